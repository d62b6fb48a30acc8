"""The library's lines go to logging.getLogger("zelisp"): failures and
system errors (with their errno text) at WARNING, progress at DEBUG, never
on standard output, where a script's own data goes."""

import errno
import threading
import logging
import subprocess
import sys

import pytest

import zelisp
import zsim
from conftest import Blocked, small_camera


def zelisp_records(caplog):
    return [(record.levelname, record.getMessage(), record.errno, record.dev_path)
            for record in caplog.records if record.name == "zelisp"]


def test_a_failed_open_is_a_warning_with_its_errno_text(capfd, caplog):
    caplog.set_level(logging.DEBUG, logger="zelisp")
    zsim.set_open_errno("/dev/isp_misc", errno.EACCES)
    with pytest.raises(zelisp.Error) as refused:
        zelisp.cameras()
    assert refused.value.code == -9
    zsim.set_open_errno("/dev/video0", errno.EBUSY)
    with pytest.raises(zelisp.Error):
        zelisp.Camera(0)
    assert zelisp_records(caplog) == [
        ("WARNING", "open error\n: Permission denied", errno.EACCES, None),
        ("WARNING", "video device /dev/video0 open failed", 0, "/dev/video0"),
    ]
    assert capfd.readouterr() == ("", "")


def test_progress_is_debug_and_standard_output_stays_empty(capfd, caplog):
    caplog.set_level(logging.DEBUG, logger="zelisp")
    script = small_camera(0)
    with zelisp.Camera(0) as camera:
        camera.configure(views=(0, 2), buffers=3)
        camera.start()
        script.push()
        with camera.get_frame() as frame:
            assert frame.sequence == 1
        with pytest.raises(zelisp.BadState):
            camera.start()
    assert zelisp_records(caplog) == [
        ("DEBUG", "/dev/video0 view input supported combination: 7", 0, "/dev/video0"),
        ("DEBUG", "/dev/video0 view input combination: 5", 0, "/dev/video0"),
        ("WARNING", "StartCapture: bad state 4", 0, "/dev/video0"),
    ]
    assert capfd.readouterr() == ("", "")


def test_a_scripts_piped_output_holds_only_its_own_data():
    code = ("import zelisp, zsim\n"
            "zsim.set_scripted(0, True)\n"
            "with zelisp.Camera(0) as camera:\n"
            "    camera.configure(views=(0,), buffers=3)\n"
            "    camera.start()\n"
            "    zsim.push_frame(0, 7, 1_000_000)\n"
            "    with camera.get_frame() as frame:\n"
            "        print(frame.sequence)\n"
            "    zelisp.Camera(5)\n")
    # The child inherits the preloaded simulator; logging is not set up, so
    # Python's last resort prints the warnings on standard error.
    run = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, timeout=120)
    assert run.stdout == "7\n"
    assert run.stderr.splitlines()[0] == "video device /dev/video5 not exist"
    assert run.stderr.splitlines()[-1].startswith("zelisp.Error: isp_open_video: ")


def close_while_a_handler_blocks(read, close, on_line=lambda: None):
    """Runs read() in a thread whose first zelisp line blocks in a logging
    handler (a socket, a slow disk); close() runs meanwhile in this thread.
    Returns what read() raised or returned."""
    in_handler, closed = threading.Event(), threading.Event()

    class Blocking(logging.Handler):
        def emit(self, record):
            if threading.current_thread() is not threading.main_thread() and not in_handler.is_set():
                on_line()
                in_handler.set()
                closed.wait(60)

    handler = Blocking()
    logging.getLogger("zelisp").addHandler(handler)
    try:
        reader = Blocked(read)
        reader.start()
        assert in_handler.wait(60)
        close()
        closed.set()
        return reader.outcome()
    finally:
        closed.set()
        logging.getLogger("zelisp").removeHandler(handler)


def test_a_handler_that_lets_other_threads_run_never_sees_the_library_mid_call():
    """While a refused frame is logged, another thread closes the camera.
    The line is logged once the library has put the refused buffer back, and
    the reader ends with Cancelled rather than in a camera that is gone."""
    small_camera(0)
    with zelisp.Camera(0) as camera:
        camera.configure(views=(0,), buffers=3)
        camera.start()
        zsim.push_frame(0, 4, 2_000_000)
        zsim.push_frame(0, 4, 2_100_000)  # numbered like the last one: refused
        with camera.get_frame() as first:
            assert first.sequence == 4
        zsim.clear_log()
        requeued_before_logging = []

        def note_requeues():
            requeued_before_logging.append([entry["detail"] for entry in zsim.requests("VIDIOC_QBUF")])

        error = close_while_a_handler_blocks(camera.get_frame, camera.close, note_requeues)
    assert requeued_before_logging == [["index=1"]]
    assert isinstance(error, zelisp.Cancelled)
    assert (error.call, error.detail) == ("isp_get_frame_buf", "close() ended the wait")


def test_a_group_closed_while_a_handler_blocks_ends_the_frame_set_read(group):
    for script in group.scripts:
        script.push()
    group.get_frame_set().release()
    zsim.push_frame(0, 1, 3_000_000)  # camera 0 repeats its number: refused, with a line
    group.scripts[1].push()
    error = close_while_a_handler_blocks(group.get_frame_set, group.close)
    assert isinstance(error, zelisp.Cancelled)
    assert (error.call, error.detail) == ("isp_group_get_sync_frame", "Group.close() ended the wait")
