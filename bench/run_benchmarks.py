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
import glob  # noqa: E402
import importlib.util  # noqa: E402


def section_modules():
    """The benchmark sections of the parts built on the library (bench/sections/*.py).

    Each module has TITLE, measure(context, quick) -> figures (JSON-serialisable)
    and report(figures) -> markdown lines, and is run in name order.
    """
    here = os.path.dirname(os.path.abspath(__file__))
    modules = []
    for path in sorted(glob.glob(os.path.join(here, "sections", "*.py"))):
        module_spec = importlib.util.spec_from_file_location(os.path.basename(path)[:-3], path)
        module = importlib.util.module_from_spec(module_spec)
        module_spec.loader.exec_module(module)
        modules.append(module)
    return modules

FRAME_BATCH = 256
CALLGRIND_FRAMES = 20000
IR_GOAL = 220  # the loop's unavoidable work is about 190
RATIO_GOAL = 1.03  # the run's median, always shown with the spread of its repetitions


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
    reps = "3" if quick else "9"
    results = gbench(os.path.join(bin_dir, "zelisp_bench_frame_path"), "frame_path",
                     [f"--benchmark_repetitions={reps}", "--benchmark_enable_random_interleaving=true",
                      "--benchmark_min_time=0.2" if quick else "--benchmark_min_time=0.5"])
    paired = "BM_SideBySide"
    return {
        "context": results["context"],
        "apart": {reader: median(results, name, "real_time") / FRAME_BATCH
                  for reader, name in (("library", "BM_Library"), ("poll_loop", "BM_PollLoop"),
                                       ("select_loop", "BM_SelectLoop"))},
        "paired": {reader: median(results, paired, f"{reader}_ns") for reader in READERS},
        "paired_wall": {reader: median(results, paired, f"{reader}_wall_ns") for reader in READERS},
        "ratio_poll": median(results, paired, "ratio_poll"),
        "ratio_select": median(results, paired, "ratio_select"),
        "wall_ratio_poll": median(results, paired, "wall_ratio_poll"),
        "ratios_poll": [b["ratio_poll"] for b in entries(results, paired)],
        "library_own_allocs": worst(results, "BM_Allocations", "library_own_allocs_per_frame"),
        "simulator_own_allocs": worst(results, "BM_Allocations", "simulator_own_allocs_per_frame"),
        "library_loop_allocs": worst(results, "BM_Allocations", "library_loop_allocs_per_frame"),
        "poll_loop_allocs": worst(results, "BM_Allocations", "poll_loop_allocs_per_frame"),
        "alloc_frames": sum(b["frames"] for b in entries(results, "BM_Allocations")),
        "pages_touched": worst(results, "BM_ImageMemoryTouched", "image_pages_touched"),
        "guarded_bytes": worst(results, "BM_ImageMemoryTouched", "image_bytes_guarded"),
        "guard_check_pages": min(b["guard_check_pages"] for b in entries(results, "BM_ImageMemoryTouched")),
        "guarded_frames": sum(b["frames"] for b in entries(results, "BM_ImageMemoryTouched")),
    }


READERS = ("library", "poll_loop", "select_loop")


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
        "poll-loop": ["--toggle-collect=*HandWrittenFrame*"],
        "select-loop": ["--toggle-collect=*HandWrittenFrame*"],
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
            figures["library_reaches"] = reachable_from_library(profile)
            figures["library_libc_helpers"] = helpers / frames
            figures["library_functions"] = [(fn, cost / frames) for fn, cost in functions.most_common(8)]
    return figures


def reachable_from_library(profile):
    """Allocation or copy routines reachable in the call graph from the
    library's functions, the simulated driver's entry points excluded (it
    stands for the kernel). The graph is per function, not per call path,
    so a hit would still need checking; no hit is conclusive."""
    edges = collections.defaultdict(set)
    for (obj, fn, callee_obj, callee) in profile.calls:
        edges[(obj, fn)].add((callee_obj, callee))
    start = {(obj, fn) for (obj, fn) in list(profile.self_cost) + list(edges) if is_library(obj)}
    seen, stack, hits = set(start), list(start), []
    while stack:
        node = stack.pop()
        for callee in edges.get(node, ()):
            if callee in seen or is_simulator(callee[0]):
                continue
            seen.add(callee)
            if any(word in callee[1] for word in ALLOCATION_OR_COPY):
                hits.append(f"{os.path.basename(callee[0])}:{callee[1]}")
            stack.append(callee)
    reached = sorted({f"{os.path.basename(o)}:{f}" for (o, f) in seen - start})
    return {"hits": hits, "reached": reached}


def cameras(bin_dir, seconds):
    results = gbench(os.path.join(bin_dir, "zelisp_bench_cameras"), "cameras", env={"ZELISP_BENCH_SECONDS": str(seconds)})
    return entries(results, "BM_TwelveCameras")[0]


def groups(bin_dir, seconds):
    results = gbench(os.path.join(bin_dir, "zelisp_bench_groups"), "groups", env={"ZELISP_BENCH_SECONDS": str(seconds)})
    return {
        "free": entries(results, "BM_GroupSets/trigger:0")[0],
        "trigger": entries(results, "BM_GroupSets/trigger:1")[0],
    }


def peers(bin_dir, sim_run, cam_tool, quick):
    args = [f"--sim-run={sim_run}", f"--benchmark_repetitions={1 if quick else 5}",
            "--benchmark_enable_random_interleaving=true"]
    if cam_tool:
        args.append(f"--cam-tool={cam_tool}")
    results = gbench(os.path.join(bin_dir, "zelisp_bench_peers"), "peers", args)
    found = {}
    for name in ("BM_V4l2CtlStreamMmap", "BM_ZelispCamCapture"):
        runs = [b for b in results["benchmarks"] if b["name"].startswith(name) and b.get("run_type") == "iteration"]
        failed = [b for b in runs if b.get("error_occurred")]
        if not runs or failed:
            found[name] = {"error": failed[0].get("error_message") if failed else "not run"}
            continue
        found[name] = {key: statistics.median(b[key] for b in runs)
                       for key in ("cpu_us_per_frame", "cpu_s_long_run", "wall_s_long_run")}
        found[name]["all"] = [b["cpu_us_per_frame"] for b in runs]
    return found


PEER_FRAMES = (30, 150)


def peer_command(client, cam_tool, frames):
    if client == "v4l2-ctl":
        return ["/usr/bin/v4l2-ctl", "-d", "/dev/video0", "--stream-mmap=4", f"--stream-count={frames}"]
    return [cam_tool, "capture", "--camera", "0", "--frames", str(frames)]


def peer_instructions(sim_lib, cam_tool):
    """Instructions of each client's main thread a frame: the program, the
    library it uses, libc, and the simulated driver's handling of the
    program's requests; the simulated sensor thread is left out."""
    figures = {}
    for client in ("v4l2-ctl", "zelisp-cam"):
        if client == "zelisp-cam" and not cam_tool:
            continue
        totals = []
        for frames in PEER_FRAMES:
            out = os.path.join(os.getcwd(), f"callgrind.{client}.{frames}.out")
            run(["valgrind", "--tool=callgrind", "--separate-threads=yes", f"--callgrind-out-file={out}",
                 *peer_command(client, cam_tool, frames)], env={"LD_PRELOAD": sim_lib})
            profile = callgrind_costs.read(out + "-01")
            totals.append({
                "client": profile.object_cost(lambda o: not (is_simulator(o) or is_libc(o) or is_library(o)
                                                             or os.path.basename(o).startswith(("ld-linux", "libstdc++")))),
                "library": profile.object_cost(is_library),
                "simulator": profile.object_cost(is_simulator),
                "libc": profile.object_cost(is_libc),
                "total": sum(profile.self_cost.values()),
            })
        span = PEER_FRAMES[1] - PEER_FRAMES[0]
        figures[client] = {key: (totals[1][key] - totals[0][key]) / span for key in totals[0]}
    return figures


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
    peer_ir = figures["peer_instructions"]
    lib_ir = cg["library"]["library"]
    poll_ir = cg["poll-loop"]["program"]
    pages = int(f["pages_touched"])
    v4l2 = peer.get("BM_V4l2CtlStreamMmap", {})
    zcam = peer.get("BM_ZelispCamCapture", {})
    peers_ok = "error" not in v4l2 and "error" not in zcam and zcam

    lines = []
    add = lines.append
    add("# Performance")
    add("")
    add("What the library adds to the frame path, measured on the simulated ISP driver. Each comparison")
    add("is made side by side in one run, so that the driver's cost is the same on both sides.")
    add("")
    add("Reproduce on a fresh clone (installs what is missing, builds with `-DZELISP_BUILD_BENCH=ON` in")
    add("`build-bench/`, runs everything, a few minutes after the build, and rewrites this file):")
    add("")
    add("```sh")
    add("./scripts/bench.sh            # --quick: short runs, to check the harness")
    add("```")
    add("")
    add("In a tree configured with `-DZELISP_BUILD_BENCH=ON`, `cmake --build <dir> --target bench` does the")
    add("same; the runner it calls (`bench/run_benchmarks.py`, see `bench/CMakeLists.txt`) given")
    add("`--report-only` rewrites the report from the figures of the last run without measuring; given")
    add("`--only SECTION` (a file of `bench/sections/`, such as `web_console`), it measures that section alone")
    add("and rewrites its part of this file.")
    add("")
    add(f"Last run: {started:%Y-%m-%d %H:%M} to {finished:%H:%M} UTC, on {figures['machine']}, x86-64, build type")
    add("RelWithDebInfo (-O2). The machine was shared with other jobs: time figures are CPU time of the")
    add("measuring thread where possible and medians of repetitions; instruction and allocation counts do")
    add("not depend on load. Raw results are left in `build-bench/bench/` (`*.json`, `callgrind.*.out`).")
    add("")
    add("## Summary")
    add("")
    add("| Measure | Figure | Goal | |")
    add("|---|---|---|---|")
    # A verdict on a time ratio is given on the run's median and stated with
    # the spread of the repetitions it comes from, so a reader sees how near
    # to the goal single repetitions land.
    low, high = min(f["ratios_poll"]), max(f["ratios_poll"])
    add(f"| Frame path CPU time, library / hand-written loop with the same requests (poll, DQBUF, QBUF) | "
        f"{f['ratio_poll']:.3f}, {low:.3f} to {high:.3f} over {len(f['ratios_poll'])} repetitions "
        f"({f['paired']['library']:.0f} vs {f['paired']['poll_loop']:.0f} ns a frame) | "
        f"≤ {RATIO_GOAL:.2f} (the run's median) | {verdict(f['ratio_poll'] <= RATIO_GOAL)} |")
    add(f"| Frame path CPU time, library / classic select loop (select, DQBUF, QBUF) | "
        f"{f['ratio_select']:.3f} ({f['paired']['library']:.0f} vs {f['paired']['select_loop']:.0f} ns a frame) | "
        f"information: the library waits with poll | |")
    add(f"| Library's own instructions a frame (get + put, callgrind, libzelisp.so only) | {lib_ir:.0f} "
        f"(hand-written loop's own: {poll_ir:.0f}) | ≤ {IR_GOAL} | {verdict(lib_ir <= IR_GOAL)} |")
    allocation_free = (f["library_own_allocs"] == 0 and not cg["library_calls_alloc_or_copy"]
                       and not cg["library_reaches"]["hits"])
    add(f"| Heap allocations a frame by the library | {f['library_own_allocs']:g} | 0 | {verdict(allocation_free)} |")
    add(f"| Image bytes read, written or copied by the library a frame | {pages * 4096 if pages else 0} | 0 | "
        f"{verdict(pages == 0 and f['guard_check_pages'] == 1)} |")
    dropped_all = cam["dropped_from_start"]
    produced_all = cam["produced_from_start"]
    add(f"| 12 cameras, 120 fps, 1080p, one thread: driver drops from the first frame | "
        f"{dropped_all:.0f} of {produced_all:.0f} frames produced | 0 | {verdict(dropped_all == 0)} |")
    add(f"| 12 cameras: frames dequeued / produced | {cam['dequeued']:.0f} / {cam['produced']:.0f} | | |")
    add(f"| 12 cameras, {cam['seconds']:.0f} s measured: frames accepted / refused by the 12 ms rule | "
        f"{cam['accepted']:.0f} / {cam['refused']:.0f}: the rule delivers 60 of each camera's 120 fps | | |")
    add(f"| 12 cameras: CPU of the reading thread | {cam['loop_cpu_percent']:.1f} % of a core "
        f"({cam['loop_cpu_us_per_frame']:.1f} µs a dequeued frame) | | |")
    for key, label in (("free", "free-running"), ("trigger", "internal trigger")):
        g = grp[key]
        add(f"| 8-camera group, {label}: sets/s; latency p50/p99; skew p50/max | "
            f"{g['sets_per_second']:.1f}; {g['latency_us_p50']:.0f}/{g['latency_us_p99']:.0f} µs; "
            f"{g['skew_us_p50']:.0f}/{g['skew_us_max']:.0f} µs | | |")
    if peers_ok:
        ratio = zcam["cpu_us_per_frame"] / v4l2["cpu_us_per_frame"]
        add(f"| CPU a frame, zelisp-cam capture / v4l2-ctl --stream-mmap (whole process) | {ratio:.2f} "
            f"({zcam['cpu_us_per_frame']:.0f} vs {v4l2['cpu_us_per_frame']:.0f} µs) | | |")
    else:
        add("| CPU a frame, zelisp-cam capture / v4l2-ctl --stream-mmap | not measured (see Peers) | | |")
    if "zelisp-cam" in peer_ir and "v4l2-ctl" in peer_ir:
        a, b = peer_ir["zelisp-cam"]["total"], peer_ir["v4l2-ctl"]["total"]
        add(f"| Instructions a frame of the client's thread, zelisp-cam / v4l2-ctl (callgrind) | {a / b:.2f} "
            f"({a:.0f} vs {b:.0f}) | | |")
    add("")

    add("## Library overhead per frame")
    add("")
    add("One simulated camera (three views: 1920x1080, 1280x720 and 640x360 NV12; four buffers) streams")
    add(f"scripted frames 20 ms apart, pushed before each measured batch of {FRAME_BATCH} frames, so that the")
    add("simulator's sensor thread is idle while a batch is timed. Three readers take turns on the same node")
    add("and the same buffers (`bench/frame_path.cpp`):")
    add("")
    add("- the library: `isp_get_frame_buf(handle, &frame, 1000)` then `isp_put_frame_buf(handle, &frame)`;")
    add("- a hand-written loop sending exactly the library's requests: `poll` on the node (the library waits")
    add("  with `poll`, which has no `FD_SETSIZE` ceiling), `VIDIOC_DQBUF`, `VIDIOC_QBUF` of the same index,")
    add("  with the same three-plane records;")
    add("- the classic hand-written loop: the same with `select` instead of `poll`.")
    add("")
    add("`BM_SideBySide` runs one batch of each reader per iteration, rotating which goes first, and")
    add("measures each batch with the reading thread's CPU clock (`CLOCK_THREAD_CPUTIME_ID`), so that time")
    add("the machine gave to other jobs is not counted; medians over repetitions run in random")
    add("interleaving. `BM_Library`, `BM_PollLoop` and `BM_SelectLoop` time the readers apart.")
    add("")
    add("| Reader | CPU ns a frame, paired | wall ns a frame, paired | CPU ns a frame, apart |")
    add("|---|---|---|---|")
    for reader, label in (("library", "library"), ("poll_loop", "hand-written, poll"),
                          ("select_loop", "hand-written, select")):
        add(f"| {label} | {f['paired'][reader]:.0f} | {f['paired_wall'][reader]:.0f} | {f['apart'][reader]:.0f} |")
    add("")
    add("Paired CPU ratios library / poll loop of the repetitions: "
        + ", ".join(f"{r:.3f}" for r in f["ratios_poll"]) + f"; wall-clock ratio {f['wall_ratio_poll']:.3f}.")
    add("")
    add(f"Instructions a frame counted by callgrind (`zelisp_bench_frame_loop`, {figures['callgrind_frames']} frames")
    add("a reader; collection switched on only inside `isp_get_frame_buf`/`isp_put_frame_buf`, or inside the")
    add("hand-written loop's frame function), by object:")
    add("")
    add("| Object | library | hand-written, poll | hand-written, select |")
    add("|---|---|---|---|")
    names = {"library": "libzelisp.so", "program": "the loop's own code (benchmark program)",
             "simulator": "libzelisp-sim.so (the driver)", "libc": "libc",
             "other": "other (libstdc++ used by the simulator, ld.so)"}
    for key in ("library", "program", "simulator", "libc", "other"):
        add(f"| {names[key]} | {cg['library'][key]:.0f} | {cg['poll-loop'][key]:.0f} | {cg['select-loop'][key]:.0f} |")
    add("")
    add(f"The library's own code costs {lib_ir:.0f} instructions a frame, {lib_ir - poll_ir:.0f} more than the")
    add("hand-written loop's: the state check, the sequence and 12 ms checks, the plane-to-view bookkeeping")
    add("of three planes, the 256-byte descriptor copy and the retry wrapper. It calls no libc routine beyond")
    add(f"`poll` ({cg['library_libc_helpers']:.0f} instructions a frame in other libc calls). Its functions, own instructions a frame:")
    add("")
    for fn, cost in cg["library_functions"]:
        add(f"- `{fn}`: {cost:.0f}")
    add("")
    add("Most of a frame's cost here is the simulated driver (its request handling and locking); on a board the")
    add("driver runs in the kernel and costs differently, while the library's own work a frame stays what")
    add("it is here.")
    add("")

    add("## Allocations and copies")
    add("")
    add("Allocations, three ways (`bench/alloc_counter.cpp`, `BM_Allocations`, "
        f"{f['alloc_frames']:.0f} frames). The benchmark program")
    add("replaces `malloc`, `calloc`, `realloc`, the aligned allocators and the global `operator new` with")
    add("counting forwarders to glibc's allocator; they count on the reading thread only while a measured")
    add("batch runs, and note the address that called them.")
    add("")
    add(f"- Asked for by the library's own code (caller inside libzelisp.so): **{f['library_own_allocs']:g}** a frame.")
    add(f"  The same attribution sees the simulator's code allocate {f['simulator_own_allocs']:.2f} times a frame")
    add("  (its request log) while the poll loop runs, so it does see allocations where there are some.")
    reaches = cg["library_reaches"]
    add("- Reached indirectly: in callgrind's call graph of the library run, the functions reachable from")
    add("  the library's own, not going through the simulated driver's entry points (the driver stands for")
    add("  the kernel), are " + ", ".join(f"`{name}`" for name in reaches["reached"]) + "; "
        + ("none of them allocates or copies memory." if not reaches["hits"]
           else "among them allocation or copy routines: " + ", ".join(reaches["hits"]) + "."))
    add(f"- Everything on the thread: {f['library_loop_allocs']:g} a frame with the library, "
        f"{f['poll_loop_allocs']:g} with the poll loop: all")
    add("  of it the simulator's request log (its count moves slightly with the length of the numbers it")
    add("  logs, which is why the two may differ in the last digits).")
    add("")
    add("Copies: after one frame per buffer has shown every plane mapping, the benchmark makes all plane")
    add(f"pages inaccessible (`mprotect(PROT_NONE)`, {f['guarded_bytes'] / 1e6:.1f} MB) while "
        f"{f['guarded_frames']:.0f} frames go through")
    add("`isp_get_frame_buf`/`isp_put_frame_buf`; any read or write of image memory by the library would")
    add("fault, and the handler counts the page. The scripted frames are not painted, so nothing else")
    add("touches the planes. As a check of the guard, the benchmark first reads one guarded byte itself:")
    add(f"seen as {f['guard_check_pages']:.0f} touched page. Pages touched by the library: **{pages}**. "
        "What the library moves a frame is the 256-byte")
    add("`_isp_buf_t` record handed to the caller (inline moves, no `memcpy` call).")
    add("")

    add("## Many cameras")
    add("")
    add("Twelve simulated cameras free-running at 120 fps, each reading view 0 only (one 1920x1080 NV12")
    add("plane) with four buffers, served by one thread (`bench/cameras_bench.cpp`). A wait covers at most")
    add("8 cameras, so the thread reads two sets of six: each round it blocks up to 2 ms in")
    add("`isp_camera_wait_for_data` on one set and polls the other with a zero timeout, taking turns, and")
    add("takes one frame from each ready camera (`isp_get_frame_buf` with timeout 0, then")
    add("`isp_put_frame_buf`). Produced, dequeued and dropped are the driver's counters (`zsim::counters`):")
    add("drops are counted from the first frame after `VIDIOC_STREAMON`, and again over the measured window")
    add("that follows a 1 s settling period, so that the rates below describe the steady state; CPU is")
    add("`getrusage`.")
    add("")
    add("| Figure | Value |")
    add("|---|---|")
    add(f"| frames produced / dropped by the driver from the first frame | "
        f"{cam['produced_from_start']:.0f} / {cam['dropped_from_start']:.0f} |")
    add(f"| measured time | {cam['seconds']:.2f} s |")
    add(f"| frames produced by the driver | {cam['produced']:.0f} |")
    add(f"| frames dequeued | {cam['dequeued']:.0f} |")
    add(f"| frames dropped by the driver (no buffer queued) | {cam['dropped']:.0f} |")
    add(f"| frames accepted by the library | {cam['accepted']:.0f} |")
    add(f"| frames refused by the library (closer than 12 ms to the last), queued again | {cam['refused']:.0f} |")
    add(f"| other failures | {cam['failures']:.0f} |")
    add(f"| waits | {cam['waits']:.0f} |")
    add(f"| longest loop round | {cam['longest_round_ms']:.1f} ms |")
    add(f"| oldest accepted frame at dequeue | {cam['max_frame_age_ms']:.1f} ms |")
    add(f"| CPU of the reading thread | {cam['loop_cpu_percent']:.1f} % of one core |")
    add(f"| CPU of the whole process (with the simulated sensors) | {cam['process_cpu_percent']:.1f} % of one core |")
    add("")
    add("The reading thread's CPU includes the simulated driver's handling of every request, which runs")
    add("in that thread (on a board it is the same thread's kernel time), and the refusal line the library")
    add("prints for every refused frame (to /dev/null here).")
    add("")
    add("At 120 fps frames come 8.3 ms apart, closer than the 12 ms the library requires between two")
    add("accepted frames: the library refuses every second frame (prints its `ERROR: buf_ts` line, queues")
    add("the buffer again and returns -11), so an application gets 60 fps from each camera. That is the")
    add("library's frame-time rule doing what it is required to do, not a loss in the loop: refused frames")
    add("are dequeued and queued again at once, which is why the driver drops none.")
    add("")

    add("## Groups")
    add("")
    add("Eight cameras at 60 fps (every frame clear of the 12 ms rule) in one group (`isp_create_video_group`,")
    add("view 0, four buffers), read with `zelvideo::isp_group_get_sync_frame(group, frames, 8, 1000)` and")
    add("given back with `zelvideo::isp_group_put_frame` (`bench/groups_bench.cpp`), after a 1 s warm-up.")
    add("Latency is the time from the newest capture timestamp in a set (CLOCK_MONOTONIC, as V4L2 stamps")
    add("buffers) to the return of the set; skew is the newest minus the oldest capture timestamp in the")
    add("set. The trigger run calls `isp_group_set_internal_trigger(group, 0, 0, 0)` before starting, which")
    add("puts the simulated sensors on one frame clock.")
    add("")
    add("| Mode | sets/s | latency p50 | latency p99 | call p50 | skew p50 | skew max | failed sets | drops | CPU |")
    add("|---|---|---|---|---|---|---|---|---|---|")
    for key, label in (("free", "free-running"), ("trigger", "internal trigger")):
        g = grp[key]
        add(f"| {label} | {g['sets_per_second']:.1f} | {g['latency_us_p50']:.0f} µs | {g['latency_us_p99']:.0f} µs | "
            f"{g['call_us_p50']:.0f} µs | {g['skew_us_p50']:.0f} µs | {g['skew_us_max']:.0f} µs | "
            f"{g['failed_sets']:.0f} | {g['dropped']:.0f} | {g['loop_cpu_percent']:.1f} % |")
    add("")
    add("A set is read member after member, each `GetFrame` waiting for its camera, so the call lasts about")
    add("one frame period (the set completes when its last member's frame arrives); the group lines nothing")
    add("up itself, so the skew is the sensors' own phase difference: their stream-on times when free-running,")
    add("none on a shared trigger.")
    add("")

    add("## Peers")
    add("")
    add("`v4l2-ctl -d /dev/video0 --stream-mmap=4 --stream-count=N` (Debian's v4l-utils; four buffers of the")
    add("node's default input, all three views) and `zelisp-cam capture --camera 0 --frames N` (three views,")
    add("four buffers, no files written) each stream camera 0 of the simulator at its default 30 fps under")
    add("`zelisp-sim-run`, once with N = 30 and once")
    add("with N = 300. CPU time is user + system of the whole process from `wait4`; the difference between")
    add("the two runs divided by 270 frames is the cost of one frame, free of start-up and set-up. Medians")
    add("of five interleaved repetitions. Both processes carry the simulated sensor thread (painting and")
    add("waking at each frame), which costs the same on both sides and dominates these figures.")
    add("")
    add("| Client | CPU µs a frame (median) | repetitions | CPU s, 300 frames | wall s, 300 frames |")
    add("|---|---|---|---|---|")
    for name, label in (("BM_V4l2CtlStreamMmap", "v4l2-ctl --stream-mmap"), ("BM_ZelispCamCapture", "zelisp-cam capture")):
        b = peer.get(name, {"error": "not run"})
        if "error" in b:
            add(f"| {label} | not measured: {b['error']} | | | |")
        else:
            add(f"| {label} | {b['cpu_us_per_frame']:.0f} | " + ", ".join(f"{v:.0f}" for v in b["all"])
                + f" | {b['cpu_s_long_run']:.3f} | {b['wall_s_long_run']:.2f} |")
    add("")
    add("Because whole-process CPU time on a shared machine is noisy, the same two runs (N = "
        f"{PEER_FRAMES[0]} and {PEER_FRAMES[1]}) were")
    add("also counted with callgrind, on the client's main thread only (the simulated sensor thread left")
    add("out): instructions a frame, by object.")
    add("")
    add("| Client | total | program | libzelisp.so | simulated driver | libc | other (libstdc++, ld.so) |")
    add("|---|---|---|---|---|---|---|")
    for client in ("v4l2-ctl", "zelisp-cam"):
        b = peer_ir.get(client)
        if b:
            other = b["total"] - b["client"] - b["library"] - b["simulator"] - b["libc"]
            add(f"| {client} | {b['total']:.0f} | {b['client']:.0f} | {b['library']:.0f} | {b['simulator']:.0f} | "
                f"{b['libc']:.0f} | {other:.0f} |")
    add("")
    for module in section_modules():
        section = figures.get("sections", {}).get(module.__name__)
        if section is not None:
            lines.extend(module.report(section))
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
    parser.add_argument("--sim-lib", required=True)
    parser.add_argument("--cam-tool", default="")
    parser.add_argument("--output", required=True)
    parser.add_argument("--quick", action="store_true", help="short runs, for checking the harness")
    parser.add_argument("--only", metavar="SECTION",
                        help="measure one section of bench/sections/ alone and rewrite its part of the report")
    parser.add_argument("--report-only", action="store_true",
                        help="rewrite the report from the figures of the last run, without measuring")
    options = parser.parse_args()
    quick = options.quick or os.environ.get("ZELISP_BENCH_QUICK") == "1"
    saved = os.path.join(os.getcwd(), "figures.json")
    options.only = options.only or os.environ.get("ZELISP_BENCH_ONLY")  # scripts/bench.sh --only SECTION
    if options.only:
        measure_one_section(options, quick, saved)
        return

    if options.report_only:
        with open(saved, encoding="utf-8") as stream:
            figures = json.load(stream)
        write_report(options.output, add_findings(figures), datetime.datetime.fromisoformat(figures["started"]),
                     datetime.datetime.fromisoformat(figures["finished"]))
        return

    started = datetime.datetime.utcnow()
    figures = {"machine": machine()}
    figures["frame"] = frame_path(options.bin_dir, quick)
    figures["callgrind_frames"] = 2000 if quick else CALLGRIND_FRAMES
    figures["callgrind"] = callgrind(options.bin_dir, figures["callgrind_frames"])
    figures["cameras"] = cameras(options.bin_dir, 2 if quick else 10)
    figures["groups"] = groups(options.bin_dir, 2 if quick else 10)
    figures["peers"] = peers(options.bin_dir, options.sim_run, options.cam_tool, quick)
    figures["peer_instructions"] = peer_instructions(options.sim_lib, options.cam_tool)
    context = {"bin_dir": options.bin_dir, "sim_run": options.sim_run, "sim_lib": options.sim_lib,
               "cam_tool": options.cam_tool, "build_dir": os.path.dirname(os.getcwd())}  # runs in <build>/bench
    figures["sections"] = {}
    for module in section_modules():
        log(f"section: {module.TITLE}")
        figures["sections"][module.__name__] = module.measure(context, quick)
    finished = datetime.datetime.utcnow()
    figures["started"], figures["finished"] = started.isoformat(), finished.isoformat()
    with open(saved, "w", encoding="utf-8") as stream:
        json.dump(figures, stream)
    write_report(options.output, add_findings(figures), started, finished)


def measure_one_section(options, quick, saved):
    """Measures one section and puts its part into the report as it stands
    (and into the saved figures, when there are any)."""
    module = next((m for m in section_modules() if m.__name__ == options.only), None)
    if module is None:
        raise SystemExit(f"no section {options.only} in bench/sections/")
    context = {"bin_dir": options.bin_dir, "sim_run": options.sim_run, "sim_lib": options.sim_lib,
               "cam_tool": options.cam_tool, "build_dir": os.path.dirname(os.getcwd())}
    log(f"section: {module.TITLE}")
    section = module.measure(context, quick)
    if os.path.exists(saved):
        with open(saved, encoding="utf-8") as stream:
            figures = json.load(stream)
        figures.setdefault("sections", {})[module.__name__] = section
        with open(saved, "w", encoding="utf-8") as stream:
            json.dump(figures, stream)
    with open(options.output, encoding="utf-8") as stream:
        text = stream.read()
    start = text.index(f"## {module.TITLE}\n")
    end = text.find("\n## ", start)
    # A report ends on a blank line of its own: exactly one before the next section.
    part = "\n".join(module.report(section)).rstrip("\n") + "\n\n"
    text = text[:start] + part + (text[end + 1:] if end >= 0 else "")
    with open(options.output, "w", encoding="utf-8") as stream:
        stream.write(text)
    log(f"rewrote the section {module.TITLE} of {options.output}")


def add_findings(figures):
    """The analysis of the figures, kept beside this script (findings.md)."""
    notes_path = os.path.join(os.path.dirname(os.path.abspath(__file__)), "findings.md")
    if os.path.exists(notes_path):
        with open(notes_path, encoding="utf-8") as stream:
            figures["notes"] = stream.read().rstrip("\n").split("\n")
    return figures


if __name__ == "__main__":
    main()
