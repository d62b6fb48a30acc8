"""Times the Python package's frame loop against the C get/put loop, side by
side in one process on the simulated driver, and prints the figures as JSON.
Run by bench/sections/python.py under zelisp-sim-run:

    python_frame_loop.py FRAMES ROUNDS
"""

import gc
import json
import statistics
import sys
import time
import tracemalloc

import zelisp
import zelisp_pybench as bench

WIDTH, HEIGHT = 640, 360
BATCH = 256


def plane_mapping(address):
    with open("/proc/self/maps") as maps:
        for line in maps:
            start, end = (int(part, 16) for part in line.split()[0].split("-"))
            if start <= address < end:
                return line
    return ""


def main():
    frames, rounds = int(sys.argv[1]), int(sys.argv[2])
    assert bench.active(), "run under zelisp-sim-run"
    bench.setup(0, WIDTH, HEIGHT)  # the Python loop's camera
    bench.setup(1, WIDTH, HEIGHT)  # the C loop's camera, set up the same way
    with zelisp.Camera(0) as camera:
        camera.configure(views=(0,), buffers=4)
        camera.start()
        get = camera.get_frame

        def python_loop(with_array):
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

        timings = {"c": [], "python": [], "python_array": []}
        gc.disable()
        for _ in range(rounds):  # interleaved, so that load affects all alike
            timings["c"].append(bench.c_loop(1, frames, BATCH))
            timings["python"].append(python_loop(False))
            timings["python_array"].append(python_loop(True))
        gc.enable()

        # Copies: every array must be the driver's plane itself, and the
        # interpreter must not allocate anything near an image per frame.
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

    medians = {name: statistics.median(values) for name, values in timings.items()}
    print(json.dumps({
        "frames": frames, "rounds": rounds, "view": f"NV12 {WIDTH}x{HEIGHT}",
        "image_bytes": WIDTH * HEIGHT * 3 // 2,
        "c_ns": medians["c"], "python_ns": medians["python"], "python_array_ns": medians["python_array"],
        "added_ns": medians["python"] - medians["c"],
        "added_array_ns": medians["python_array"] - medians["c"],
        "rounds_ns": timings,
        "image_bytes_copied": copied, "traced_peak_bytes": peak, "traced_frames": BATCH,
    }))


if __name__ == "__main__":
    main()
