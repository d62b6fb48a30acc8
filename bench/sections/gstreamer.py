"""GStreamer: what zelispsrc costs a frame, against the library's own loop and v4l2src.

Three clients stream view 0 of the same simulated camera (1920x1080 NV12,
60 fps) under the simulated driver:

- `zelisp-cam capture --views 0`: the library's get/put loop;
- `gst-launch-1.0 zelispsrc ! fakesink`: the plugin;
- `gst-launch-1.0 v4l2src device=/dev/video0 ! (caps) ! fakesink`: GStreamer's own
  V4L2 source on the same node, held by caps to the same format, size and rate.

The simulated sensor paints every frame in a thread of the client's process
(named zsim-sensor, and zsim-isp for its image processing): in whole-process
figures it dominates and makes them a coin toss. So both measures leave those
threads out, as the frame-path benchmark leaves the driver apart:

- instructions a frame, counted by callgrind in every other thread and split
  by object (our plugin and library, GStreamer core and base, v4l2src's plugin,
  the simulated driver's handling of the client's requests apart): the
  difference of a long and a short capture divided by the difference of their
  frame counts, free of start-up and teardown. Instruction counts do not
  depend on the machine's load;
- CPU time a frame of the same threads: the process's user + system time
  (wait4) minus the simulator's threads' time (read from /proc while the
  client runs), again as the difference of a long and a short capture,
  median of interleaved repetitions.

The goals are on the element's own code (libgstzelisp + libzelisp): against
the loop's own code (zelisp-cam's program + libzelisp) and against v4l2src's
plugin. The whole clients' ratios are information: GStreamer's per-buffer
machinery, which v4l2src pays too, is several times the bare loop.

A last run reads zelispsrc's "stats" after a capture into fakesink, for the
copies a frame while downstream keeps up.
"""

import glob
import os
import statistics
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
import callgrind_costs  # noqa: E402

TITLE = "GStreamer plugin"

CALLGRIND_FRAMES = (30, 150)
# A frame costs tens of microseconds of CPU; a GStreamer start-up costs tens
# of milliseconds, varying with the machine's load: the long capture runs
# 20 s so that the frames outweigh that variation.
CPU_FRAMES = (60, 1260)
QUICK_CPU_FRAMES = (30, 300)
CONFIG = "[camera 0]\nfps = 60\n"
# View 0 as the simulated camera streams it by default.
V4L2SRC_CAPS = "video/x-raw,format=NV12,width=1920,height=1080,framerate=60/1"
GOAL_LIBRARY = 1.3
GOAL_V4L2SRC = 1.0
CLIENTS = ("library", "zelispsrc", "v4l2src")
NAMES = {
    "library": "`zelisp-cam capture --views 0` (the library's get/put loop)",
    "zelispsrc": "`gst-launch-1.0 zelispsrc ! fakesink`",
    "v4l2src": f"`gst-launch-1.0 v4l2src device=/dev/video0 ! {V4L2SRC_CAPS} ! fakesink`",
}
# Object groups of the instruction table, in its column order.
GROUPS = ("ours", "program", "gst core", "gst base", "v4l2src plugin", "other GStreamer", "GLib", "libc", "other",
          "driver")
GROUP_NAMES = {
    "ours": "libgstzelisp + libzelisp",
    "program": "the program (zelisp-cam, gst-launch-1.0)",
    "gst core": "GStreamer core",
    "gst base": "GStreamer base",
    "v4l2src plugin": "v4l2src's plugin",
    "other GStreamer": "other GStreamer (fakesink, video, allocators)",
    "GLib": "GLib, GObject",
    "libc": "libc",
    "other": "other (libstdc++, ld.so)",
    "driver": "simulated driver, the client's requests",
}
STATS_SCRIPT = """
import gi
gi.require_version("Gst", "1.0")
from gi.repository import Gst
Gst.init(None)
pipeline = Gst.parse_launch("zelispsrc name=cam camera=0 num-buffers=%d ! fakesink")
pipeline.set_state(Gst.State.PLAYING)
message = pipeline.get_bus().timed_pop_filtered(120 * Gst.SECOND, Gst.MessageType.EOS | Gst.MessageType.ERROR)
stats = pipeline.get_by_name("cam").get_property("stats")
print(stats.get_value("frames"), stats.get_value("copied"), stats.get_value("dropped"),
      "eos" if message and message.type == Gst.MessageType.EOS else "error")
pipeline.set_state(Gst.State.NULL)
"""


def _command(context, client, frames):
    if client == "library":
        return [context["cam_tool"], "capture", "--camera", "0", "--views", "0", "--frames", str(frames)]
    if client == "zelispsrc":
        source = ["zelispsrc", "camera=0", f"num-buffers={frames}"]
    else:
        # Without caps v4l2src picks its own favourite format and the sensor's
        # full size; the caps hold it to what zelispsrc streams.
        source = ["v4l2src", "device=/dev/video0", f"num-buffers={frames}", "!", V4L2SRC_CAPS]
    return ["gst-launch-1.0", "-q", *source, "!", "fakesink"]


PROGRAMS = ("zelisp-cam", "gst-launch-1.0")


def _group(obj):
    name = os.path.basename(obj)
    if "zelisp-sim" in name:
        return "driver"
    if name in PROGRAMS:
        return "program"
    if name.startswith(("libgstzelisp", "libzelisp.so")):
        return "ours"
    if name.startswith("libgstreamer-1.0"):
        return "gst core"
    if name.startswith("libgstbase-1.0"):
        return "gst base"
    if name.startswith("libgstvideo4linux2"):
        return "v4l2src plugin"
    if name.startswith("libgst"):
        return "other GStreamer"
    if name.startswith(("libglib-2.0", "libgobject-2.0", "libgmodule-2.0")):
        return "GLib"
    if name.startswith("libc.so"):
        return "libc"
    return "other"


def _simulator_thread(profile):
    """The sensor's frame clock and the image-processing worker start with
    these functions; no client thread calls them."""
    return any("keep_host_time_on_this_thread" in fn or "run_worker" in fn for (_, fn) in profile.self_cost)


def _thread_costs(prefix):
    """Instructions by object group of the client's threads, and of the
    simulator's own threads, from callgrind's per-thread files."""
    groups, simulator = dict.fromkeys(GROUPS, 0), 0
    for path in sorted(glob.glob(prefix + "-*")):
        profile = callgrind_costs.read(path)
        if _simulator_thread(profile):
            simulator += sum(profile.self_cost.values())
            continue
        for (obj, _), cost in profile.self_cost.items():
            groups[_group(obj)] += cost
    return groups, simulator


def _instructions(context, env, work):
    figures = {}
    for client in CLIENTS:
        runs = []
        for frames in CALLGRIND_FRAMES:
            prefix = os.path.join(work, f"callgrind.gst.{client}.{frames}.out")
            run_env = dict(env)
            run_env.update({"LD_PRELOAD": context["sim_lib"], "GST_REGISTRY_UPDATE": "no"})
            subprocess.run(["valgrind", "--tool=callgrind", "--separate-threads=yes", f"--callgrind-out-file={prefix}",
                            *_command(context, client, frames)], env=run_env, stdout=subprocess.DEVNULL,
                           stderr=subprocess.DEVNULL, check=True, timeout=900)
            runs.append(_thread_costs(prefix))
        span = CALLGRIND_FRAMES[1] - CALLGRIND_FRAMES[0]
        groups = {name: (runs[1][0][name] - runs[0][0][name]) / span for name in GROUPS}
        figures[client] = {
            "groups": groups,
            "client": sum(value for name, value in groups.items() if name != "driver"),
            "simulator_threads": (runs[1][1] - runs[0][1]) / span,
        }
    return figures


def _simulator_seconds(pid):
    """CPU seconds of the simulator's threads of a running process so far."""
    total = 0
    for task in glob.glob(f"/proc/{pid}/task/*"):
        try:
            with open(os.path.join(task, "comm"), encoding="utf-8") as stream:
                if not stream.read().startswith("zsim-"):
                    continue
            with open(os.path.join(task, "schedstat"), encoding="utf-8") as stream:
                total += int(stream.read().split()[0])
        except (OSError, ValueError, IndexError):
            continue
    return total / 1e9


def _client_seconds(context, command, env):
    """CPU seconds of one run without the simulator's threads; raises with
    the tail of its output when it fails."""
    with tempfile.TemporaryFile() as output:
        process = subprocess.Popen([context["sim_run"], "--", *command], env=env, stdout=output,
                                   stderr=subprocess.STDOUT)
        simulator = 0.0
        while True:
            # The simulator's threads end with the process: their time is
            # read until then, a few milliseconds apart.
            pid, status, usage = os.wait4(process.pid, os.WNOHANG)
            if pid:
                break
            simulator = max(simulator, _simulator_seconds(process.pid))
            time.sleep(0.005)
        if os.waitstatus_to_exitcode(status) != 0:
            output.seek(0)
            tail = output.read().decode(errors="replace").strip().splitlines()[-3:]
            raise RuntimeError(f"{command[0]} exited with {os.waitstatus_to_exitcode(status)}: " + " / ".join(tail))
    return usage.ru_utime + usage.ru_stime - simulator


def _cpu(context, env, frames, repetitions):
    figures = {}
    per_frame = {client: [] for client in CLIENTS}
    errors = {}
    for _ in range(repetitions):
        for client in CLIENTS:  # interleaved: a busy spell hits all three alike
            if client in errors:
                continue
            try:
                short = _client_seconds(context, _command(context, client, frames[0]), env)
                long = _client_seconds(context, _command(context, client, frames[1]), env)
            except RuntimeError as error:
                errors[client] = str(error)
                continue
            per_frame[client].append((long - short) / (frames[1] - frames[0]) * 1e6)
    for client in CLIENTS:
        if client in errors:
            figures[client] = {"error": errors[client]}
        else:
            figures[client] = {"us_per_frame": statistics.median(per_frame[client]), "all": per_frame[client]}
    return figures


def _stats(context, env):
    try:
        result = subprocess.run([context["sim_run"], "--", "/usr/bin/python3", "-c", STATS_SCRIPT % 300],
                                env=env, capture_output=True, text=True, timeout=300)
        frames, copied, dropped, end = result.stdout.strip().splitlines()[-1].split()
        return {"frames": int(frames), "copied": int(copied), "dropped": int(dropped), "end": end}
    except (ValueError, IndexError, subprocess.SubprocessError) as error:
        return {"error": str(error)}


def measure(context, quick):
    work = tempfile.mkdtemp(prefix="zelisp-bench-gst-")
    config = os.path.join(work, "sim.ini")
    with open(config, "w", encoding="utf-8") as file:
        file.write(CONFIG)
    env = dict(os.environ)
    env.update({
        "ZELISP_SIM_CONFIG": config,
        "GST_PLUGIN_PATH": os.path.join(context["build_dir"], "gst"),
        "GST_REGISTRY": os.path.join(work, "registry.bin"),
    })
    cpu_frames = QUICK_CPU_FRAMES if quick else CPU_FRAMES
    figures = {"config": CONFIG.strip(), "callgrind_frames": CALLGRIND_FRAMES, "cpu_frames": cpu_frames}
    if not context.get("cam_tool") or not os.path.exists(os.path.join(context["build_dir"], "gst",
                                                                        "libgstzelisp.so")):
        figures["error"] = "the plugin or zelisp-cam is not built"
        return figures
    # The first GStreamer run of a fresh registry scans every plugin: done
    # here, not in a measured run.
    subprocess.run([context["sim_run"], "--", "gst-inspect-1.0", "zelispsrc"], env=env, stdout=subprocess.DEVNULL,
                   stderr=subprocess.DEVNULL, timeout=300, check=False)
    figures["measured"] = time.strftime("%Y-%m-%d %H:%M UTC", time.gmtime())
    figures["load"] = os.getloadavg()[0]
    figures["instructions"] = _instructions(context, env, work)
    figures["cpu"] = _cpu(context, env, cpu_frames, 1 if quick else 3)
    figures["stats"] = _stats(context, env)
    figures["raw"] = work
    return figures


def _own_code(instructions):
    """The element's own code and the loop's: what each adds to a frame
    beyond the machinery it runs in."""
    return {
        "element": instructions["zelispsrc"]["groups"]["ours"],
        "loop": instructions["library"]["groups"]["ours"] + instructions["library"]["groups"]["program"],
        "v4l2src": instructions["v4l2src"]["groups"]["v4l2src plugin"],
    }


def _reading(instructions):
    """What the instruction figures say, in words drawn from them."""
    ours = instructions["zelispsrc"]
    v4l2 = instructions["v4l2src"]
    library = instructions["library"]["client"]
    own = _own_code(instructions)
    machinery = ours["client"] - own["element"]
    v4l2_machinery = v4l2["client"] - own["v4l2src"]
    return [
        f"Of zelispsrc's {ours['client']:.0f} instructions a frame, {own['element']:.0f} are its own code with the "
        f"library's get and put inside, against {own['loop']:.0f} for the library's loop (zelisp-cam's own code "
        f"with the same get and put) and {own['v4l2src']:.0f} for v4l2src's plugin. The other {machinery:.0f} are "
        "GStreamer's per-buffer machinery, which every source element pays: a GstBuffer and its memory, a video "
        "meta, the push through the pad and fakesink's chain, in GStreamer core, base, GLib and libc. v4l2src pays "
        f"{v4l2_machinery:.0f} for the same. The library's bare loop, which hands its caller a 256-byte descriptor "
        f"and nothing else, costs {library:.0f} in all, so no source element's whole client can come near 1.3 times "
        "it: that ratio is information, and the goal against the loop is on the element's own code.",
    ]


def _whole_process(figures):
    return figures["client"] + figures["groups"]["driver"] + figures["simulator_threads"]


def _verdict(ratio, goal):
    return "met" if ratio <= goal else "**missed**"


def report(figures):
    lines = [f"## {TITLE}", ""]
    if "error" in figures:
        return lines + [f"Not measured: {figures['error']}.", ""]
    instructions, cpu = figures["instructions"], figures["cpu"]
    short, long = figures["callgrind_frames"]
    own = _own_code(instructions)
    own_to_loop = own["element"] / own["loop"]
    own_to_v4l2 = own["element"] / own["v4l2src"]
    ours = instructions["zelispsrc"]["client"]
    to_v4l2 = ours / instructions["v4l2src"]["client"]
    to_library = ours / instructions["library"]["client"]
    whole = {client: _whole_process(instructions[client]) for client in CLIENTS}
    whole_to_v4l2 = whole["zelispsrc"] / whole["v4l2src"]
    whole_to_library = whole["zelispsrc"] / whole["library"]
    lines += [
        "Three clients stream view 0 of the same simulated camera (`" + figures["config"].replace("\n", "; ")
        + "`, 1920x1080 NV12) under the simulated driver. The simulated sensor paints each frame in threads of the "
        "client's own process (`zsim-sensor`, `zsim-isp`); both measures below leave those threads out, so that "
        "what is compared is what each client does a frame. Measured " + figures.get("measured", "")
        + f", load average {figures.get('load', 0):.2f} at the start.",
        "",
        "| Measure | Figure | Goal | |",
        "|---|---|---|---|",
        f"| Instructions a frame of the element's own code (libgstzelisp + libzelisp) / the loop's own code "
        f"(zelisp-cam's program + libzelisp) | {own_to_loop:.2f} ({own['element']:.0f} vs {own['loop']:.0f}) | "
        f"≤ {GOAL_LIBRARY} | {_verdict(own_to_loop, GOAL_LIBRARY)} |",
        f"| Instructions a frame of the element's own code / v4l2src's plugin on the same node and caps | "
        f"{own_to_v4l2:.2f} ({own['element']:.0f} vs {own['v4l2src']:.0f}) | ≤ {GOAL_V4L2SRC} | "
        f"{_verdict(own_to_v4l2, GOAL_V4L2SRC)} |",
        f"| Instructions a frame of the whole client, zelispsrc / v4l2src (GStreamer core, base, GLib and libc "
        f"included) | {to_v4l2:.2f} ({ours:.0f} vs {instructions['v4l2src']['client']:.0f}) | information | |",
        f"| Instructions a frame of the whole client, zelispsrc / the library's loop | {to_library:.2f} ({ours:.0f} "
        f"vs {instructions['library']['client']:.0f}) | information: GStreamer's per-buffer machinery | |",
        f"| Instructions a frame of the whole process (the simulated driver and sensor included), zelispsrc / "
        f"v4l2src | {whole_to_v4l2:.2f} ({whole['zelispsrc']:.0f} vs {whole['v4l2src']:.0f}) | information | |",
        f"| Instructions a frame of the whole process, zelispsrc / the library's loop | {whole_to_library:.2f} "
        f"({whole['zelispsrc']:.0f} vs {whole['library']:.0f}) | information | |",
        "",
        "The first two rows compare the element's own code, the part it can change, with the library's loop and "
        "with v4l2src's plugin; the next two what the clients do in all, GStreamer's machinery included; the last "
        "two what their processes do a frame on the simulated board, where the sensor's painting stands for the "
        "camera's own work. Instruction counts do not depend on the machine's load.",
        "",
        f"Instructions a frame by object (callgrind, every thread but the simulator's, difference of a {long}- and a "
        f"{short}-frame capture over {long - short} frames). The client's total leaves out the simulated driver's "
        "handling of its requests (on a board: the kernel), shown apart:",
        "",
        "| Object | " + " | ".join(NAMES[client].split(" (")[0] for client in CLIENTS) + " |",
        "|---|" + "---:|" * len(CLIENTS),
    ]
    for group in GROUPS:
        lines.append(f"| {GROUP_NAMES[group]} | "
                     + " | ".join(f"{instructions[client]['groups'][group]:.0f}" for client in CLIENTS) + " |")
    lines.append("| **the client's total** | "
                 + " | ".join(f"**{instructions[client]['client']:.0f}**" for client in CLIENTS) + " |")
    lines.append("| (the simulated sensor's threads: painting, frame clock) | "
                 + " | ".join(f"{instructions[client]['simulator_threads']:.0f}" for client in CLIENTS) + " |")
    lines += [
        "",
        f"CPU time a frame of the same threads (user + system of the process from wait4, minus the simulator's "
        f"threads' time from /proc; difference of a {figures['cpu_frames'][1]}- and a {figures['cpu_frames'][0]}-"
        "frame capture, median of interleaved repetitions). Time on a shared machine varies from run to run; the "
        "instruction counts above do not.",
        "",
        "| Client | CPU µs a frame | Runs (µs) |",
        "|---|---:|---|",
    ]
    for client in CLIENTS:
        found = cpu.get(client, {})
        if "us_per_frame" in found:
            runs = ", ".join(f"{value:.0f}" for value in found["all"])
            lines.append(f"| {NAMES[client]} | {found['us_per_frame']:.0f} | {runs} |")
        else:
            lines.append(f"| {NAMES[client]} | not measurable | {found.get('error', 'not run')} |")
    lines.append("")
    stats = figures.get("stats", {})
    if "frames" in stats:
        per_frame = stats["copied"] / stats["frames"] if stats["frames"] else 0
        lines.append(f"Copies a frame while downstream keeps up (`zelispsrc ! fakesink`, {stats['frames']} frames, from "
                     f"the element's `stats`): {per_frame:g} ({stats['copied']} copied, {stats['dropped']} dropped).")
    else:
        lines.append(f"Copies a frame: not measured ({stats.get('error', 'no stats')}).")
    lines += ["", *_reading(instructions), ""]
    return lines
