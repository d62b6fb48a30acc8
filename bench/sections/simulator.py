"""The simulated driver's own cost: many cameras streaming from the first
frame (no warm-up), at default settings and with every picture control
changed, read by a plain V4L2 loop (bench/sim_load.cpp) that gives every
frame back at once. Drops are the driver's: frame periods that found no
buffer queued.
"""

import json
import os
import subprocess

TITLE = "Simulated driver under load"

# (cameras, width, height, fps, controls)
LOADS = [
    (12, 1920, 1080, 30, "default"),
    (12, 1920, 1080, 30, "changed"),
    (4, 1920, 1080, 120, "default"),
    (4, 1920, 1080, 120, "changed"),
    (12, 1920, 1080, 120, "default"),
    (12, 3840, 2160, 30, "default"),
    (12, 1920, 1080, 30, "changing"),
]


def measure(context, quick):
    program = os.path.join(context["bin_dir"], "zelisp_bench_sim_load")
    seconds = 2 if quick else 10
    runs = []
    for cameras, width, height, fps, controls in LOADS:
        load_before = os.getloadavg()[0]
        completed = subprocess.run([program, str(cameras), str(width), str(height), str(fps), str(seconds), controls],
                                   stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
        if completed.returncode != 0:
            raise SystemExit(f"{program} failed: {completed.stdout[-2000:]}")
        result = json.loads(completed.stdout.strip().splitlines()[-1])
        result["load_average"] = round((load_before + os.getloadavg()[0]) / 2, 2)
        runs.append(result)
    return {"runs": runs, "cpus": os.cpu_count(), "seconds": seconds}


CONTROLS = {
    "default": "defaults",
    "changed": "every control changed after set-up",
    "changing": "every control changed, then brightness again every second",
}


def report(figures):
    lines = [f"## {TITLE}", ""]
    lines.append(f"Each load streams for {figures['seconds']} s from `VIDIOC_STREAMON` (no warm-up), every camera with "
                 "views 0 at the size shown, 1280x720 and 640x360 (NV12), 8 buffers, on "
                 f"{figures['cpus']} CPUs; the reader gives each frame back at once (`bench/sim_load.cpp`). "
                 "Load average is the machine's one-minute load while the run went (other work included): "
                 "drops spread over a run at a load well above the CPU count come from the reader not being "
                 "scheduled, not from the driver's start-up, which the first-second column isolates. The counts "
                 "are taken before any stream stops. Longest reader gap is the longest time between two of the "
                 "reader's looks at its descriptors: a camera drops only when that exceeds seven frame periods "
                 "(58 ms at 120 fps, 233 ms at 30 fps), so drops with a short gap are the driver's own.")
    lines.append("")
    lines.append("| Cameras | View 0 | fps | Controls | Frames produced | Dropped | Dropped in the first second "
                 "| Longest reader gap | CPU (whole process) | Load average |")
    lines.append("|---|---|---|---|---|---|---|---|---|---|")
    for run in figures["runs"]:
        lines.append(f"| {run['cameras']} | {run['width']}x{run['height']} | {run['fps']} | "
                     f"{CONTROLS.get(run['controls'], run['controls'])} | {run['produced']} | {run['dropped']} | "
                     f"{run['dropped_first_second']} | {run.get('reader_stall_ms', 0):.0f} ms | {run['cpu_percent']:.1f} % | {run['load_average']:.1f} |")
    return lines
