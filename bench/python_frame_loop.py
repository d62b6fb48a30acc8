"""Times the Python package's frame loop against the C get/put loop, side by
side in one process on the simulated driver, and prints the figures as JSON.
Run by bench/sections/python.py under zelisp-sim-run:

    python_frame_loop.py FRAMES ROUNDS        timings of every loop, interleaved
    python_frame_loop.py --count LOOP FRAMES  one loop once, untimed: run under
                                              callgrind to count its instructions

The loops:
    c             isp_get_frame_buf(handle, &buf, 1000) + isp_put_frame_buf, as
                  a C program waits for its frames
    c_nowait      the same with a zero time limit: the library polls nothing,
                  which is what the package does first when a frame waits
    python        camera.get_frame() + frame.release()
    python_array  the same, plus frame.views[0].array each frame

After the loops it times how fast stop() ends a wait of another thread: a
reader blocked in get_frame(None) (asleep in its poll) and stop() called.
"""

import gc
import json
import statistics
import sys
import threading
import time
import tracemalloc

import zelisp
import zelisp_pybench as bench

WIDTH, HEIGHT = 640, 360
BATCH = 256
LOOPS = ("c", "c_nowait", "python", "python_array")
WAKE_REPETITIONS = 50


def plane_mapping(address):
    with open("/proc/self/maps") as maps:
        for line in maps:
            start, end = (int(part, 16) for part in line.split()[0].split("-"))
            if start <= address < end:
                return line
    return ""


def python_loop(get, frames, with_array):
    """Nanoseconds a frame; frames are pushed in batches outside the timed part."""
    spent = 0
    for _ in range(0, frames, BATCH):
        bench.push(0, BATCH)
        start = time.perf_counter_ns()
        if with_array:
            for _ in range(BATCH):
                frame = get(1000)
                array = frame.views[0].array
                del array
                frame.release()
        else:
            for _ in range(BATCH):
                get(1000).release()
        spent += time.perf_counter_ns() - start
    return spent / frames


def run_loop(name, get, frames):
    if name == "c":
        return bench.c_loop(1, frames, BATCH)
    if name == "c_nowait":
        return bench.c_loop(1, frames, BATCH, timeout_ms=0)
    return python_loop(get, frames, name == "python_array")


def spread(values):
    return {"median": statistics.median(values), "min": min(values), "max": max(values)}


def count_copies(get):
    """Every array must be the driver's plane itself, and the interpreter
    must not allocate anything near an image per frame."""
    bench.push(0, BATCH)
    tracemalloc.start()
    copied = 0
    for _ in range(BATCH):
        with get(1000) as frame:
            array = frame.views[0].array
            address = array.__array_interface__["data"][0]
            if array.flags.owndata or "zelisp-sim-plane" not in plane_mapping(address):
                copied += array.nbytes
            del array
    _, peak = tracemalloc.get_traced_memory()
    tracemalloc.stop()
    return copied, peak


def asleep_in_poll(native_id):
    with open(f"/proc/self/task/{native_id}/wchan") as channel:
        return "poll" in channel.read()


def wake_times(camera, repetitions):
    """Microseconds from stop() to its return (every waiter has left its
    poll by then) and to the reader's Cancelled (raised once the stopping
    thread lets go of the GIL, here at join)."""
    returned, raised = [], []
    for _ in range(repetitions):
        seen = {}

        def reader():
            seen["id"] = threading.get_native_id()
            try:
                camera.get_frame(None)
            except zelisp.Cancelled:
                seen["raised"] = time.perf_counter_ns()

        thread = threading.Thread(target=reader)
        thread.start()
        while "id" not in seen or not asleep_in_poll(seen["id"]):
            time.sleep(0.0005)
        start = time.perf_counter_ns()
        camera.stop()
        returned.append((time.perf_counter_ns() - start) / 1000)
        thread.join()
        raised.append((seen["raised"] - start) / 1000)
        camera.start()
    return spread(returned), spread(raised)


def main():
    counting = sys.argv[1] == "--count"
    assert bench.active(), "run under zelisp-sim-run"
    bench.setup(0, WIDTH, HEIGHT)  # the Python loop's camera
    bench.setup(1, WIDTH, HEIGHT)  # the C loop's camera, set up the same way
    with zelisp.Camera(0) as camera:
        camera.configure(views=(0,), buffers=4)
        camera.start()
        get = camera.get_frame
        if counting:
            run_loop(sys.argv[2], get, int(sys.argv[3]))
            return
        frames, rounds = int(sys.argv[1]), int(sys.argv[2])
        timings = {name: [] for name in LOOPS}
        gc.disable()
        for _ in range(rounds):  # interleaved, so that load affects all alike
            for name in LOOPS:
                timings[name].append(run_loop(name, get, frames))
        gc.enable()
        copied, peak = count_copies(get)
        stop_returned, cancelled_raised = wake_times(camera, WAKE_REPETITIONS)

    # What Python adds, round by round against the C loop of the same round.
    added = {}
    for loop in ("python", "python_array"):
        for base in ("c", "c_nowait"):
            added[f"{loop}-{base}"] = spread([p - c for p, c in zip(timings[loop], timings[base])])
    print(json.dumps({
        "frames": frames, "rounds": rounds, "view": f"NV12 {WIDTH}x{HEIGHT}",
        "image_bytes": WIDTH * HEIGHT * 3 // 2,
        "loops_ns": {name: spread(values) for name, values in timings.items()},
        "added_ns": added,
        "rounds_ns": timings,
        "image_bytes_copied": copied, "traced_peak_bytes": peak, "traced_frames": BATCH,
        "wake_repetitions": WAKE_REPETITIONS, "stop_returned_us": stop_returned,
        "cancelled_raised_us": cancelled_raised,
    }))


if __name__ == "__main__":
    main()
