"""Benchmark section: what the Python package adds to a frame, against the C
get/put loop on the same simulated camera, measured side by side in one run."""

import json
import os
import subprocess

TITLE = "Python package: frame cost above the C loop"
GOAL_ADDED_NS = 3000


def measure(context, quick):
    package = os.path.join(context["build_dir"], "python")
    helper = os.path.join(context["bin_dir"], "python")
    if not os.path.isdir(os.path.join(package, "zelisp")) or not os.path.isdir(helper):
        return {"skipped": "the Python package was not built (ZELISP_BUILD_PYTHON=OFF)"}
    script = os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "python_frame_loop.py")
    frames, rounds = (2048, 3) if quick else (20480, 7)
    env = dict(os.environ, PYTHONPATH=f"{package}:{helper}", PYTHONDONTWRITEBYTECODE="1")
    completed = subprocess.run([context["sim_run"], "--", "/usr/bin/python3", script, str(frames), str(rounds)],
                               env=env, capture_output=True, text=True, check=False)
    if completed.returncode != 0:
        raise SystemExit(f"python_frame_loop.py failed: {completed.stderr[-2000:]}")
    last = [line for line in completed.stdout.splitlines() if line.startswith("{")][-1]
    return json.loads(last)


def report(figures):
    lines = ["", f"## {TITLE}", ""]
    if "skipped" in figures:
        return lines + [f"Not measured: {figures['skipped']}.", ""]
    verdict = "met" if figures["added_ns"] <= GOAL_ADDED_NS else "NOT met"
    lines += [
        f"One simulated camera, view 0 {figures['view']}, four buffers, scripted frames pushed in batches "
        f"outside the timed part; {figures['frames']} frames per loop, {figures['rounds']} interleaved rounds, "
        "medians. The C loop is `isp_get_frame_buf` + `isp_put_frame_buf` on a second camera set up the same "
        "way in the same process; the Python loops run Debian's /usr/bin/python3.",
        "",
        "| Loop | ns per frame | added to the C loop |",
        "|---|---:|---:|",
        f"| C: `isp_get_frame_buf` + `isp_put_frame_buf` | {figures['c_ns']:.0f} | |",
        f"| Python: `camera.get_frame()` + `frame.release()` | {figures['python_ns']:.0f} | "
        f"{figures['added_ns']:.0f} |",
        f"| Python: the same, plus `frame.views[0].array` | {figures['python_array_ns']:.0f} | "
        f"{figures['added_array_ns']:.0f} |",
        "",
        f"Goal: at most {GOAL_ADDED_NS} ns added per frame for `get_frame` + `release`: {verdict}.",
        "",
        f"Image bytes copied over {figures['traced_frames']} frames with an array each: "
        f"{figures['image_bytes_copied']} (each array is checked to be the driver's mapped plane and to own no "
        f"data). Peak memory the interpreter allocated over those frames: {figures['traced_peak_bytes']} bytes, "
        f"against {figures['image_bytes']} bytes for one image.",
        "",
    ]
    return lines
