"""Shared set-up for the zelisp package tests: a clean simulated driver per
test, small cameras with scripted frames, and a reader for the frame number
the simulator stamps into every image."""

import gc
import threading
import time

import numpy as np
import pytest

import zelisp
import zsim

# Small views keep 10,000 frames cheap; every one still carries a stamp.
SMALL_VIEWS = [("NV12", 192, 108), ("YUYV", 128, 72), ("GREY", 96, 64)]
FRAME_PERIOD_US = 33_333


@pytest.fixture(autouse=True)
def driver():
    """A fresh driver; afterwards no node descriptor or mapping may be left."""
    assert zsim.active(), "the simulator is not preloaded: run through zelisp-sim-run"
    zsim.reset()
    yield
    zsim.clear_faults()
    gc.collect()
    assert zsim.live_descriptors() == 0
    assert zsim.live_mappings() == 0


class Script:
    """Scripted frames for one node: increasing numbers, 30 fps timestamps."""

    def __init__(self, node):
        self.node = node
        self.sequence = 0
        self.timestamp_us = 1_000_000

    def push(self, count=1):
        for _ in range(count):
            self.sequence += 1
            self.timestamp_us += FRAME_PERIOD_US
            zsim.push_frame(self.node, self.sequence, self.timestamp_us)
        return self.sequence


def small_camera(index=0, views=SMALL_VIEWS, scripted=True):
    """Sets camera index up with small views; returns the Script of its mode-1 node."""
    zsim.set_camera(index, views)
    if scripted:
        zsim.set_scripted(index, True)
        zsim.set_scripted(index + 12, True)
    return Script(index)


@pytest.fixture
def camera():
    """Camera 0 with three small views, configured, started, frames scripted."""
    script = small_camera(0)
    with zelisp.Camera(0) as cam:
        cam.configure(views=(0, 1, 2), buffers=4)
        cam.start()
        cam.script = script
        yield cam


@pytest.fixture
def group():
    """Cameras 0 and 1 as a group with views 0 and 2, started, frames scripted."""
    scripts = [small_camera(0), small_camera(1)]
    with zelisp.Group([0, 1], name="pair") as pair:
        pair.open()
        pair.configure(views=(0, 2), buffers=3)
        pair.start()
        pair.scripts = scripts
        yield pair


def luma(view_format, array):
    """The luma (or, for RGB, red) plane of an image array."""
    fourcc, width, height = view_format
    if fourcc in ("NV12", "NV21"):
        return array[:height]
    if fourcc == "YUYV":
        return array[:, :, 0]
    if fourcc == "RGB3":
        return array[:, :, 0]
    if fourcc == "BGR":
        return array[:, :, 2]
    return array


def read_stamp(plane):
    """The frame number stamped in the image: two rows of 32 cells, the lower
    the complement of the upper; None when the rows disagree."""
    height, width = plane.shape[:2]
    cell = min(width // 48, (height - 2) // 5) & ~1
    number = 0
    for k in range(32):
        x = cell * (k + 1) + cell // 2
        upper = int(plane[cell + cell // 2, x]) >= 128
        lower = int(plane[2 * cell + cell // 2, x]) >= 128
        if upper == lower:
            return None
        number = number << 1 | int(upper)
    return number


def stamp_of(view):
    """The stamp of a zelisp View, read through its array."""
    return read_stamp(luma((view.format, view.width, view.height), view.array))


def assert_shares(array, plane_fd, length):
    """The array's memory is the plane: a write through it shows in a second
    mapping of the plane's DMA-buf descriptor."""
    import mmap
    other = mmap.mmap(plane_fd, length, mmap.MAP_SHARED, mmap.PROT_READ | mmap.PROT_WRITE)
    try:
        flat = array.reshape(-1)
        saved = int(flat[5])
        flat[5] = (saved + 77) % 256
        assert other[5] == (saved + 77) % 256
        other[5] = saved
        assert int(flat[5]) == saved
    finally:
        other.close()


def array_mapping(array):
    """The /proc/self/maps line of the mapping that holds the array's data."""
    address = array.__array_interface__["data"][0]
    with open("/proc/self/maps") as maps:
        for line in maps:
            span = line.split()[0]
            start, end = (int(part, 16) for part in span.split("-"))
            if start <= address < end:
                return start, line.rstrip("\n")
    return None, ""


def in_poll(native_id):
    """Whether the thread sleeps in poll (the kernel's wait channel), where
    the package's waits sleep."""
    try:
        with open(f"/proc/self/task/{native_id}/wchan") as channel:
            return "poll" in channel.read()
    except FileNotFoundError:  # the thread is gone
        return False


class Blocked(threading.Thread):
    """Runs one blocking call in a thread of its own and keeps its outcome;
    started(), it returns once the call sleeps in its poll."""

    def __init__(self, call):
        super().__init__(daemon=True)
        self.call = call
        self.result = None
        self.error = None
        self.ready = threading.Event()

    def run(self):
        self.native = threading.get_native_id()
        self.ready.set()
        try:
            self.result = self.call()
        except BaseException as error:  # the test looks at it
            self.error = error

    def started(self):
        self.start()
        self.ready.wait()
        deadline = time.monotonic() + 60  # a generous limit, for a loaded machine
        while not in_poll(self.native):
            assert self.is_alive(), f"the call returned without waiting: {self.result!r} {self.error!r}"
            assert time.monotonic() < deadline, "the call never began to wait"
            time.sleep(0.001)
        return self

    def outcome(self):
        self.join(timeout=60)
        assert not self.is_alive(), "the call is still blocked"
        return self.error if self.error is not None else self.result


def in_forked_child(body):
    """Runs body() in a forked child and returns what it returned (repr'd),
    or the repr of what it raised; fails when the child hangs."""
    import os
    import signal
    reading, writing = os.pipe()
    pid = os.fork()
    if pid == 0:  # the child: never back into pytest
        try:
            os.close(reading)
            try:
                outcome = repr(body())
            except BaseException as error:
                outcome = "raised " + repr(error)
            os.write(writing, outcome.encode())
        finally:
            os._exit(0)
    os.close(writing)
    deadline = time.monotonic() + 60  # a generous limit, for a loaded machine
    while os.waitpid(pid, os.WNOHANG) == (0, 0):
        if time.monotonic() > deadline:
            os.kill(pid, signal.SIGKILL)
            os.waitpid(pid, 0)
            os.close(reading)
            pytest.fail("the forked child hung")
        time.sleep(0.01)
    with os.fdopen(reading, "rb") as pipe:
        return pipe.read().decode()


__all__ = ["np", "small_camera", "Script", "read_stamp", "stamp_of", "luma", "assert_shares",
           "array_mapping", "in_poll", "Blocked", "in_forked_child", "SMALL_VIEWS"]
