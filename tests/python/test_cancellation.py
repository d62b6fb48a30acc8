"""Ending waits from another thread, and signals during a wait.

stop() and close() of a camera, and stop(), close() and destroy() of a
group, wake every thread blocked on that camera or group (or a member) with
zelisp.Cancelled and complete once those threads have left. A signal handler
that returns lets the wait go on (PEP 475); one that raises ends it."""

import signal
import threading
import time

import pytest

import zelisp
import zsim
from conftest import Blocked, in_poll, small_camera

CAMERA_CALLS = {
    "get_frame": (lambda camera: camera.get_frame(None), "isp_get_frame_buf"),
    "get_expected_frame": (lambda camera: camera.get_expected_frame(timeout_ms=None), "isp_get_expected_frame"),
    "frames": (lambda camera: next(camera.frames(timeout_ms=None)), "isp_get_frame_buf"),
    "wait": (lambda camera: zelisp.wait([camera], None), "isp_camera_wait_for_data"),
}


def assert_cancelled(error, call, by):
    assert type(error) is zelisp.Cancelled, repr(error)
    assert isinstance(error, zelisp.BadState)
    assert (error.code, error.call) == (-4, call)
    assert error.detail == f"{by} ended the wait"


@pytest.mark.parametrize("ender", ["stop", "close"])
@pytest.mark.parametrize("name", sorted(CAMERA_CALLS))
def test_stop_and_close_end_every_wait_on_the_camera(camera, name, ender):
    call, library_call = CAMERA_CALLS[name]
    waiters = [Blocked(lambda: call(camera)).started() for _ in range(2)]
    getattr(camera, ender)()
    for waiter in waiters:
        assert_cancelled(waiter.outcome(), library_call, f"{ender}()")
    if ender == "close":
        assert camera.closed
        return
    # Stopped for good: the camera starts again and delivers.
    camera.start()
    number = camera.script.push()
    with camera.get_frame(timeout_ms=0) as frame:
        assert frame.sequence == number


def test_a_wait_on_several_cameras_ends_when_one_of_them_stops():
    scripts = [small_camera(0), small_camera(1)]
    with zelisp.Camera(0) as first, zelisp.Camera(1) as second:
        for camera in (first, second):
            camera.configure(views=(0,), buffers=3)
            camera.start()
        waiter = Blocked(lambda: zelisp.wait([first, second], None)).started()
        second.stop()
        assert_cancelled(waiter.outcome(), "isp_camera_wait_for_data", "stop()")
        # The other camera was not touched.
        scripts[0].push()
        assert zelisp.wait([first], timeout_ms=0) == [first]


GROUP_CALLS = {
    "get_frame_set": (lambda group: group.get_frame_set(None), "isp_group_get_sync_frame"),
    "member get_frame": (lambda group: group.camera(1).get_frame(None), "isp_get_frame_buf"),
    "wait on the members": (lambda group: zelisp.wait([group.camera(0), group.camera(1)], None),
                            "isp_camera_wait_for_data"),
}


@pytest.mark.parametrize("ender", ["stop", "close", "destroy"])
@pytest.mark.parametrize("name", sorted(GROUP_CALLS))
def test_the_group_ends_every_wait_on_it_and_its_members(name, ender):
    scripts = [small_camera(0), small_camera(1)]
    call, library_call = GROUP_CALLS[name]
    with zelisp.Group([0, 1]) as group:
        group.open()
        group.configure(views=(0,), buffers=3)
        group.start()
        if name == "get_frame_set":
            scripts[0].push()  # one member ready: the set still waits for the other
        waiters = [Blocked(lambda: call(group)).started() for _ in range(2)]
        getattr(group, ender)()
        for waiter in waiters:
            assert_cancelled(waiter.outcome(), library_call, f"Group.{ender}()")
        assert group.destroyed == (ender == "destroy")


class Poker(threading.Thread):
    """Sends the main thread a signal once it sleeps in its wait, and pushes
    a frame once the main thread's handler ran and it waits again."""

    def __init__(self, signal_number, handled, push):
        super().__init__(daemon=True)
        self.signal_number, self.handled, self.push = signal_number, handled, push
        self.main = threading.main_thread()

    def run(self):
        self.wait_until(lambda: in_poll(self.main.native_id))
        signal.pthread_kill(self.main.ident, self.signal_number)
        if self.push:
            self.wait_until(lambda: self.handled and in_poll(self.main.native_id))
            self.push()

    @staticmethod
    def wait_until(condition):
        deadline = time.monotonic() + 60
        while not condition():
            assert time.monotonic() < deadline
            time.sleep(0.001)


@pytest.fixture
def handler():
    """SIGUSR1 handled in Python by a handler that only counts."""
    handled = []
    previous = signal.signal(signal.SIGUSR1, lambda number, frame: handled.append(number))
    yield handled
    signal.signal(signal.SIGUSR1, previous)


@pytest.mark.parametrize("name", sorted(CAMERA_CALLS))
def test_a_signal_handler_that_returns_lets_the_wait_go_on(camera, handler, name):
    call, _ = CAMERA_CALLS[name]
    poker = Poker(signal.SIGUSR1, handler, camera.script.push)
    poker.start()
    result = call(camera)
    poker.join()
    assert handler == [signal.SIGUSR1]
    if name == "wait":
        assert result == [camera]
    else:
        assert result.sequence == 1
        result.release()


def test_a_signal_handler_that_raises_ends_the_wait(camera):
    poker = Poker(signal.SIGINT, None, None)
    poker.start()
    with pytest.raises(KeyboardInterrupt):
        camera.get_frame(None)
    poker.join()
    assert zsim.pending_frames(0) == 0


def test_stop_in_a_signal_handler_ends_the_wait_of_its_own_thread(camera):
    previous = signal.signal(signal.SIGUSR1, lambda number, frame: camera.stop())
    try:
        poker = Poker(signal.SIGUSR1, None, None)
        poker.start()
        with pytest.raises(zelisp.Cancelled) as cancelled:
            camera.get_frame(None)
        poker.join()
    finally:
        signal.signal(signal.SIGUSR1, previous)
    assert cancelled.value.detail == "stop() ended the wait"
    camera.start()  # the handler's stop() completed
