#!/usr/bin/env python3
"""Runs every benchmark of bench/ and writes docs/performance.md.

Called by the `bench` build target (scripts/bench.sh builds and runs it);
the programs come from --bin-dir, the raw results are left there as JSON
and callgrind profiles.
"""

import argparse
import collections
import datetime
import json
import os
import statistics
import subprocess
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import callgrind_costs  # noqa: E402

FRAME_BATCH = 256
CALLGRIND_FRAMES = 20000
IR_GOAL = 500  # "a few hundred at most"
RATIO_GOAL = 1.05


def log(text):
    print(f"[bench] {text}", flush=True)


def run(command, env=None):
    log(" ".join(command))
    full_env = dict(os.environ)
    full_env.update(env or {})
    completed = subprocess.run(command, env=full_env, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    if completed.returncode != 0:
        sys.stdout.write(completed.stdout[-4000:])
        raise SystemExit(f"{command[0]} failed with {completed.returncode}")
    return completed.stdout


def gbench(binary, name, args=(), env=None):
    out = os.path.join(os.getcwd(), f"{name}.json")
    run([binary, f"--benchmark_out={out}", "--benchmark_out_format=json", *args], env)
    with open(out, encoding="utf-8") as stream:
        return json.load(stream)


def entries(results, prefix, run_type="iteration"):
    found = [b for b in results["benchmarks"] if b["name"].startswith(prefix) and b.get("run_type") == run_type]
    errors = [b for b in found if b.get("error_occurred")]
    if errors:
        raise SystemExit(f"{prefix}: {errors[0].get('error_message')}")
    return found


def median(results, prefix, key):
    return statistics.median(b[key] for b in entries(results, prefix))


def worst(results, prefix, key):
    return max(b[key] for b in entries(results, prefix))


# ---------------------------------------------------------------- measures


def frame_path(bin_dir, quick):
    reps = "3" if quick else "7"
    results = gbench(os.path.join(bin_dir, "zelisp_bench_frame_path"), "frame_path",
                     [f"--benchmark_repetitions={reps}", "--benchmark_enable_random_interleaving=true",
                      "--benchmark_min_time=0.2" if quick else "--benchmark_min_time=0.5"])
    return {
        "context": results["context"],
        "library_ns": median(results, "BM_Library", "real_time") / FRAME_BATCH,
        "hand_written_ns": median(results, "BM_HandWrittenV4l2", "real_time") / FRAME_BATCH,
        "paired_library_ns": median(results, "BM_SideBySide", "library_ns_per_frame"),
        "paired_hand_written_ns": median(results, "BM_SideBySide", "hand_written_ns_per_frame"),
        "paired_ratio": median(results, "BM_SideBySide", "ratio"),
        "paired_ratios": [b["ratio"] for b in entries(results, "BM_SideBySide")],
        "library_loop_allocs": worst(results, "BM_Allocations", "library_loop_allocs_per_frame"),
        "hand_written_allocs": worst(results, "BM_Allocations", "hand_written_allocs_per_frame"),
        "library_allocs": worst(results, "BM_Allocations", "library_allocs_per_frame"),
        "pages_touched": worst(results, "BM_ImageMemoryTouched", "image_pages_touched"),
        "guarded_bytes": worst(results, "BM_ImageMemoryTouched", "image_bytes_guarded"),
        "guarded_frames": sum(b["frames"] for b in entries(results, "BM_ImageMemoryTouched")),
    }


def is_library(obj):
    return os.path.basename(obj).startswith("libzelisp.so")


def is_simulator(obj):
    return os.path.basename(obj).startswith("libzelisp-sim.so")


def is_libc(obj):
    return os.path.basename(obj).startswith(("libc.so", "libc-"))


ALLOCATION_OR_COPY = ("malloc", "calloc", "realloc", "memalign", "operator new", "memcpy", "memmove")
SYSTEM_CALLS = ("poll", "ppoll", "select", "pselect", "ioctl", "__errno_location")


def callgrind(bin_dir, frames):
    program = os.path.join(bin_dir, "zelisp_bench_frame_loop")
    sides = {
        "library": ["--toggle-collect=isp_get_frame_buf", "--toggle-collect=isp_put_frame_buf"],
        "hand-written": ["--toggle-collect=*HandWrittenFrame*"],
    }
    figures = {}
    for side, toggles in sides.items():
        out = os.path.join(os.getcwd(), f"callgrind.{side}.out")
        run(["valgrind", "--tool=callgrind", f"--callgrind-out-file={out}", *toggles, program, side, str(frames)])
        profile = callgrind_costs.read(out)
        by_object = {
            "library": profile.object_cost(is_library) / frames,
            "simulator": profile.object_cost(is_simulator) / frames,
            "libc": profile.object_cost(is_libc) / frames,
            "program": profile.object_cost(lambda o: os.path.basename(o) == os.path.basename(program)) / frames,
        }
        by_object["other"] = sum(profile.self_cost.values()) / frames - sum(by_object.values())
        figures[side] = by_object
        if side == "library":
            # Calls the library's own functions make: into allocation or
            # copy routines (should be none), and into libc for anything
            # but the wait and the driver requests.
            suspicious, helpers = [], 0.0
            functions = collections.Counter()
            for (obj, fn, callee_obj, callee), count in profile.calls.items():
                if not is_library(obj):
                    continue
                if any(word in callee for word in ALLOCATION_OR_COPY):
                    suspicious.append(f"{fn} -> {callee} ({count} calls)")
                if is_libc(callee_obj) and not callee.startswith(SYSTEM_CALLS):
                    helpers += profile.call_cost[(obj, fn, callee_obj, callee)]
            for (obj, fn), cost in profile.self_cost.items():
                if is_library(obj):
                    functions[fn] += cost
            figures["library_calls_alloc_or_copy"] = suspicious
            figures["library_libc_helpers"] = helpers / frames
            figures["library_functions"] = [(fn, cost / frames) for fn, cost in functions.most_common(8)]
    return figures


def cameras(bin_dir, seconds):
    results = gbench(os.path.join(bin_dir, "zelisp_bench_cameras"), "cameras", env={"ZELISP_BENCH_SECONDS": str(seconds)})
    return entries(results, "BM_TwelveCameras")[0]


def groups(bin_dir, seconds):
    results = gbench(os.path.join(bin_dir, "zelisp_bench_groups"), "groups", env={"ZELISP_BENCH_SECONDS": str(seconds)})
    return {
        "free": entries(results, "BM_GroupSets/trigger:0")[0],
        "trigger": entries(results, "BM_GroupSets/trigger:1")[0],
    }


def peers(bin_dir, sim_run, cam_tool):
    args = [f"--sim-run={sim_run}"]
    if cam_tool:
        args.append(f"--cam-tool={cam_tool}")
    results = gbench(os.path.join(bin_dir, "zelisp_bench_peers"), "peers", args)
    found = {}
    for b in results["benchmarks"]:
        found[b["name"].split("/")[0]] = b
    return found


# ------------------------------------------------------------------ report


def machine():
    model = "unknown CPU"
    try:
        with open("/proc/cpuinfo", encoding="utf-8") as stream:
            for line in stream:
                if line.startswith("model name"):
                    model = line.split(":", 1)[1].strip()
                    break
    except OSError:
        pass
    load = os.getloadavg()[0]
    return f"{os.cpu_count()} x {model}, load average {load:.2f} at the start of the run"


def verdict(ok):
    return "met" if ok else "**missed**"


def write_report(path, figures, started, finished):
    f = figures["frame"]
    cg = figures["callgrind"]
    cam = figures["cameras"]
    grp = figures["groups"]
    peer = figures["peers"]
    lib_ir = cg["library"]["library"]
    hw_ir = cg["hand-written"]["program"]
    pages = int(f["pages_touched"])

    lines = []
    add = lines.append
    add("# Performance")
    add("")
    add("What the library adds to the frame path, measured on the simulated ISP driver, with each")
    add("comparison made side by side in one run so that the driver's cost is the same on both sides.")
    add("")
    add("Reproduce on a fresh clone (installs what is missing, builds with `-DZELISP_BUILD_BENCH=ON` in")
    add("`build-bench/`, runs everything and rewrites this file):")
    add("")
    add("```sh")
    add("./scripts/bench.sh")
    add("```")
    add("")
    add(f"Last run: {started:%Y-%m-%d %H:%M} UTC to {finished:%H:%M} UTC on {figures['machine']}.")
    add("This is a shared 2-core machine: the wall-clock figures carry its noise; the instruction and")
    add("allocation counts do not.")
    add("")
    add("## Summary")
    add("")
    add("| Measure | Figure | Goal | |")
    add("|---|---|---|---|")
    add(f"| Frame path time, library / hand-written V4L2 loop (median of paired runs) | "
        f"{f['paired_ratio']:.3f} ({f['paired_library_ns']:.0f} ns vs {f['paired_hand_written_ns']:.0f} ns a frame) | "
        f"≤ {RATIO_GOAL:.2f} | {verdict(f['paired_ratio'] <= RATIO_GOAL)} |")
    add(f"| Library's own instructions per frame (callgrind, get + put) | {lib_ir:.0f} | "
        f"a few hundred at most (≤ {IR_GOAL}) | {verdict(lib_ir <= IR_GOAL)} |")
    add(f"| Heap allocations per frame by the library | {f['library_allocs']:g} | 0 | "
        f"{verdict(f['library_allocs'] == 0 and not cg['library_calls_alloc_or_copy'])} |")
    add(f"| Image bytes read, written or copied by the library per frame | {pages * 4096 if pages else 0} | 0 | "
        f"{verdict(pages == 0)} |")
    add(f"| 12 cameras, 120 fps, 1080p, one thread, {cam['seconds']:.0f} s: driver drops | "
        f"{cam['dropped']:.0f} of {cam['produced']:.0f} produced | 0 | {verdict(cam['dropped'] == 0)} |")
    add(f"| 12 cameras: frames dequeued / produced | {cam['dequeued']:.0f} / {cam['produced']:.0f} | | |")
    add(f"| 12 cameras: frames accepted / refused by the 12 ms rule | {cam['accepted']:.0f} / {cam['refused']:.0f} | | |")
    add(f"| 12 cameras: CPU of the reading thread | {cam['loop_cpu_percent']:.1f} % of a core "
        f"({cam['loop_cpu_us_per_frame']:.1f} µs a dequeued frame) | | |")
    for key, label in (("free", "free-running"), ("trigger", "internal trigger")):
        g = grp[key]
        add(f"| 8-camera group, {label}: sets/s, latency p50/p99, skew p50/max | "
            f"{g['sets_per_second']:.1f}/s, {g['latency_us_p50']:.0f}/{g['latency_us_p99']:.0f} µs, "
            f"{g['skew_us_p50']:.0f}/{g['skew_us_max']:.0f} µs | | |")
    v4l2 = peer.get("BM_V4l2CtlStreamMmap")
    cam_tool = peer.get("BM_ZelispCamCapture")
    if v4l2 and cam_tool and not cam_tool.get("error_occurred") and not v4l2.get("error_occurred"):
        ratio = cam_tool["cpu_us_per_frame"] / v4l2["cpu_us_per_frame"]
        add(f"| CPU a frame, zelisp-cam capture / v4l2-ctl --stream-mmap | {ratio:.2f} "
            f"({cam_tool['cpu_us_per_frame']:.1f} µs vs {v4l2['cpu_us_per_frame']:.1f} µs) | | |")
    else:
        add("| CPU a frame, zelisp-cam capture / v4l2-ctl --stream-mmap | not measured (see below) | | |")
    add("")

    add("## Library overhead per frame")
    add("")
    add("One simulated camera (three views: 1920x1080, 1280x720 and 640x360 NV12, four buffers) streams")
    add("scripted frames 20 ms apart, pushed before each measured batch of "
        f"{FRAME_BATCH} frames, so the simulator's hardware thread is idle while a batch is timed. Two readers take")
    add("turns on the same node and the same buffers:")
    add("")
    add("- the library: `isp_get_frame_buf(handle, &frame, 1000)` then `isp_put_frame_buf(handle, &frame)`;")
    add("- a hand-written loop (`bench/frame_path.cpp`): `select` on the node, `VIDIOC_DQBUF`, `VIDIOC_QBUF` of")
    add("  the same index, with the same three-plane records.")
    add("")
    add("`BM_SideBySide` times one batch of each per iteration, alternating which goes first, and its")
    add("ratio is the headline figure; `BM_Library` and `BM_HandWrittenV4l2` time them apart. Medians over")
    add("repetitions run in random interleaving.")
    add("")
    add("| Reader | ns a frame, paired | ns a frame, apart |")
    add("|---|---|---|")
    add(f"| library | {f['paired_library_ns']:.0f} | {f['library_ns']:.0f} |")
    add(f"| hand-written V4L2 loop | {f['paired_hand_written_ns']:.0f} | {f['hand_written_ns']:.0f} |")
    add("")
    add("Paired ratios of the repetitions: " + ", ".join(f"{r:.3f}" for r in f["paired_ratios"]) + ".")
    add("")
    add("Instructions a frame counted by callgrind (`zelisp_bench_frame_loop`, "
        f"{CALLGRIND_FRAMES} frames; collection switched on only inside")
    add("`isp_get_frame_buf`/`isp_put_frame_buf`, or inside the hand-written loop's frame function), by object:")
    add("")
    add("| Object | library reader | hand-written reader |")
    add("|---|---|---|")
    names = {"library": "libzelisp.so", "program": "the reader's own code (benchmark program)",
             "simulator": "libzelisp-sim.so (the driver)", "libc": "libc", "other": "other (ld.so, libstdc++)"}
    for key in ("library", "program", "simulator", "libc", "other"):
        add(f"| {names[key]} | {cg['library'][key]:.0f} | {cg['hand-written'][key]:.0f} |")
    add("")
    add(f"The library's own code costs {lib_ir:.0f} instructions a frame, against {hw_ir:.0f} for the")
    add(f"hand-written loop's own code; the libc routines the library calls besides the wait and the driver")
    add(f"requests (record zeroing and copying) add {cg['library_libc_helpers']:.0f}. Heaviest library functions:")
    add("")
    for fn, cost in cg["library_functions"]:
        add(f"- `{fn}`: {cost:.0f}")
    add("")

    add("## Allocations and copies")
    add("")
    add("Allocations: the benchmark program replaces `malloc`, `calloc`, `realloc` and the aligned")
    add("allocators with counting forwarders to glibc's (`bench/alloc_counter.cpp`), which count on the")
    add("reading thread only while a measured batch runs. The simulator allocates on that thread too (its")
    add("request log), identically for both readers, so the library's count is the library loop's minus")
    add("the hand-written loop's:")
    add("")
    add(f"- library loop: {f['library_loop_allocs']:g} allocations a frame; hand-written loop: "
        f"{f['hand_written_allocs']:g}; difference: **{f['library_allocs']:g}**.")
    calls = cg["library_calls_alloc_or_copy"]
    add("- callgrind's call graph of the library's functions: "
        + ("no call into `malloc`, `operator new`, `memcpy` or `memmove`." if not calls
           else "calls into allocation or copy routines: " + "; ".join(calls) + "."))
    add("")
    add("Copies: after one frame per buffer has shown every plane mapping, the benchmark makes all plane")
    add(f"pages inaccessible (`mprotect(PROT_NONE)`, {f['guarded_bytes'] / 1e6:.1f} MB in all) while "
        f"{f['guarded_frames']:.0f} frames go through")
    add("`isp_get_frame_buf`/`isp_put_frame_buf`; a read or write of image memory by the library would")
    add("fault, and the handler counts the page. The scripted frames are not painted, so nothing else")
    add(f"touches the planes. Pages touched: **{pages}**. The only data the library moves per frame is")
    add("the 256-byte `_isp_buf_t` record handed to the caller.")
    add("")

    add("## Many cameras")
    add("")
    add("Twelve simulated cameras free-running at 120 fps, each reading view 0 only (one 1920x1080 NV12")
    add("plane) with four buffers, served by one thread. A wait covers at most 8 cameras, so the thread")
    add("reads two sets of six: each round it blocks up to 2 ms in `isp_camera_wait_for_data` on one set")
    add("and polls the other with a zero timeout, taking turns, and takes one frame from each ready camera")
    add("(`isp_get_frame_buf` with timeout 0, then `isp_put_frame_buf`). Produced, dequeued and dropped are")
    add("the driver's counters (`zsim::counters`) over the measured window; CPU is `getrusage`.")
    add("")
    add("| Figure | Value |")
    add("|---|---|")
    add(f"| measured time | {cam['seconds']:.2f} s |")
    add(f"| frames produced by the driver | {cam['produced']:.0f} |")
    add(f"| frames dequeued | {cam['dequeued']:.0f} |")
    add(f"| frames dropped by the driver (no buffer queued) | {cam['dropped']:.0f} |")
    add(f"| frames accepted by the library | {cam['accepted']:.0f} |")
    add(f"| frames refused by the library (closer than 12 ms), queued again | {cam['refused']:.0f} |")
    add(f"| other failures | {cam['failures']:.0f} |")
    add(f"| waits | {cam['waits']:.0f} |")
    add(f"| CPU of the reading thread | {cam['loop_cpu_percent']:.1f} % of one core |")
    add(f"| CPU of the whole process (with the simulated hardware) | {cam['process_cpu_percent']:.1f} % of one core |")
    add("")
    add("The reading thread's CPU includes the simulated driver's handling of every request, which runs")
    add("in that thread (on a board it is kernel time of the same thread).")
    add("")
    add("At 120 fps frames come 8.3 ms apart, closer than the 12 ms the library requires between two")
    add("accepted frames: the library refuses every second frame (prints its `ERROR: buf_ts` line, queues")
    add("the buffer again and returns -11), so an application gets 60 fps from each camera. That is the")
    add("library's frame-time rule doing what it must, not a loss in the loop: refused frames are")
    add("dequeued and requeued at once, which is why the driver drops none.")
    add("")

    add("## Groups")
    add("")
    add("Eight cameras at 60 fps (every frame clear of the 12 ms rule) in one group (`isp_create_video_group`,")
    add("view 0, four buffers), read with `zelvideo::isp_group_get_sync_frame(group, frames, 8, 1000)` and")
    add("given back with `zelvideo::isp_group_put_frame`. Latency is the time from the newest capture")
    add("timestamp in a set (CLOCK_MONOTONIC, as V4L2 stamps buffers) to the return of the set; skew is the")
    add("newest minus the oldest capture timestamp in the set. The trigger run calls")
    add("`isp_group_set_internal_trigger(group, 0, 0, 0)` before starting.")
    add("")
    add("| Mode | sets/s | latency p50 | latency p99 | call p50 | skew p50 | skew max | failed sets | CPU |")
    add("|---|---|---|---|---|---|---|---|---|")
    for key, label in (("free", "free-running"), ("trigger", "internal trigger")):
        g = grp[key]
        add(f"| {label} | {g['sets_per_second']:.1f} | {g['latency_us_p50']:.0f} µs | {g['latency_us_p99']:.0f} µs | "
            f"{g['call_us_p50']:.0f} µs | {g['skew_us_p50']:.0f} µs | {g['skew_us_max']:.0f} µs | "
            f"{g['failed_sets']:.0f} | {g['loop_cpu_percent']:.1f} % |")
    add("")

    add("## Peers")
    add("")
    add("`v4l2-ctl -d /dev/video0 --stream-mmap=4 --stream-count=N` (Debian's v4l-utils) and")
    add("`zelisp-cam capture --camera 0 --frames N` (three views, four buffers, no files written) each stream")
    add("camera 0 of the simulator at its default 30 fps under `zelisp-sim-run`, once with N = 30 and once")
    add("with N = 300. CPU time is user + system of the whole process from `wait4`; the difference between")
    add("the two runs divided by 270 frames is the cost of one frame, free of start-up and set-up. Both")
    add("processes include the simulator and its hardware thread, which cost the same on both sides.")
    add("")
    add("| Client | CPU µs a frame | CPU s, 300 frames | wall s, 300 frames |")
    add("|---|---|---|---|")
    for name, label in (("BM_V4l2CtlStreamMmap", "v4l2-ctl --stream-mmap"), ("BM_ZelispCamCapture", "zelisp-cam capture")):
        b = peer.get(name)
        if b and not b.get("error_occurred"):
            add(f"| {label} | {b['cpu_us_per_frame']:.1f} | {b['cpu_s_long_run']:.2f} | {b['wall_s_long_run']:.2f} |")
        else:
            add(f"| {label} | not measured: {(b or {}).get('error_message', 'not run')} | | |")
    add("")
    notes = figures.get("notes")
    if notes:
        add("## Findings")
        add("")
        lines.extend(notes)
        add("")
    with open(path, "w", encoding="utf-8") as stream:
        stream.write("\n".join(lines))
    log(f"wrote {path}")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--bin-dir", required=True)
    parser.add_argument("--sim-run", required=True)
    parser.add_argument("--cam-tool", default="")
    parser.add_argument("--output", required=True)
    parser.add_argument("--quick", action="store_true", help="short runs, for checking the harness")
    options = parser.parse_args()
    quick = options.quick or os.environ.get("ZELISP_BENCH_QUICK") == "1"

    started = datetime.datetime.utcnow()
    figures = {"machine": machine()}
    figures["frame"] = frame_path(options.bin_dir, quick)
    figures["callgrind"] = callgrind(options.bin_dir, 2000 if quick else CALLGRIND_FRAMES)
    figures["cameras"] = cameras(options.bin_dir, 2 if quick else 10)
    figures["groups"] = groups(options.bin_dir, 2 if quick else 10)
    figures["peers"] = peers(options.bin_dir, options.sim_run, options.cam_tool)
    notes_path = os.path.join(os.path.dirname(os.path.abspath(__file__)), "findings.md")
    if os.path.exists(notes_path):
        with open(notes_path, encoding="utf-8") as stream:
            figures["notes"] = stream.read().rstrip("\n").split("\n")
    write_report(options.output, figures, started, datetime.datetime.utcnow())


if __name__ == "__main__":
    main()
