"""The simulated driver's own cost: many cameras streaming from the first
frame (no warm-up), at default settings and with every picture control
changed, read by a plain V4L2 loop (bench/sim_load.cpp) that gives every
frame back at once. Drops are the driver's: frame periods that found no
buffer queued.
"""

import json
import os
import shutil
import subprocess

import callgrind_costs

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
    (12, 1920, 1080, 30, "noisy"),
]


# (cameras, width, height, fps) of the instruction counts: few cameras and a
# short run, since callgrind runs the program some fifty times slower.
INSTRUCTION_LOADS = [(2, 1920, 1080, 30), (1, 3840, 2160, 30)]


def instructions_per_frame(program):
    """The frame loop's own work per frame (filling one buffer of every
    view: the processed background when it changed, the frame number, the
    moving block, planned with the driver's lock held and painted without
    it), counted by callgrind over the whole run."""
    counts = []
    for cameras, width, height, fps in INSTRUCTION_LOADS:
        out = os.path.join(os.getcwd(), f"callgrind.sim-frame.{width}x{height}.out")
        completed = subprocess.run(["valgrind", "--tool=callgrind", f"--callgrind-out-file={out}",
                                    "--toggle-collect=zsim::detail::fill_buffer*",
                                    "--toggle-collect=zsim::detail::run_paint_jobs*", program, str(cameras), str(width),
                                    str(height), str(fps), "2", "default"],
                                   stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, check=False)
        if completed.returncode != 0:
            raise SystemExit(f"callgrind of {program} failed: {completed.stdout[-2000:]}")
        result = json.loads(completed.stdout.strip().splitlines()[-1])
        frames = result["produced"] - result["dropped"]
        total = sum(callgrind_costs.read(out).self_cost.values())
        os.remove(out)
        counts.append({"width": width, "height": height, "frames": frames,
                       "instructions_per_frame": round(total / max(frames, 1))})
    return counts


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
    figures = {"runs": runs, "cpus": os.cpu_count(), "seconds": seconds}
    if shutil.which("valgrind"):
        figures["instructions"] = instructions_per_frame(program)
    return figures


CONTROLS = {
    "default": "defaults",
    "changed": "every control changed after set-up",
    "changing": "every control changed, then brightness again every second",
    "noisy": "defaults, sensor noise 4 painted over every frame",
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
                 "(58 ms at 120 fps, 233 ms at 30 fps), so drops with a short gap are the driver's own. Longest "
                 "request is the longest a single `VIDIOC_DQBUF` or `VIDIOC_QBUF` took: the frames are painted with "
                 "the driver's lock released, so a request never waits for a picture.")
    lines.append("")
    lines.append("| Cameras | View 0 | fps | Controls | Frames produced | Dropped | Dropped in the first second "
                 "| Longest reader gap | Longest request | CPU (whole process) | Load average |")
    lines.append("|---|---|---|---|---|---|---|---|---|---|---|")
    for run in figures["runs"]:
        lines.append(f"| {run['cameras']} | {run['width']}x{run['height']} | {run['fps']} | "
                     f"{CONTROLS.get(run['controls'], run['controls'])} | {run['produced']} | {run['dropped']} | "
                     f"{run['dropped_first_second']} | {run.get('reader_stall_ms', 0):.0f} ms | "
                     f"{run.get('longest_request_ms', 0):.1f} ms | {run['cpu_percent']:.1f} % | "
                     f"{run['load_average']:.1f} |")
    if figures.get("instructions"):
        lines.append("")
        lines.append("Instructions the frame loop spends per frame at default settings (callgrind, all of "
                     "`fill_buffer` and `run_paint_jobs`: the three views' frame number and moving block; the "
                     "background is painted when the buffers are allocated):")
        lines.append("")
        lines.append("| View 0 | Frames counted | Instructions per frame |")
        lines.append("|---|---|---|")
        for count in figures["instructions"]:
            lines.append(f"| {count['width']}x{count['height']} | {count['frames']} | "
                         f"{count['instructions_per_frame']:,} |")
    return lines
