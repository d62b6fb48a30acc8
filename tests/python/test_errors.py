"""Every error class, with the library's code, sentence and call."""

import inspect

import pytest

import zelisp
import zsim
from conftest import small_camera


def test_error_classes_carry_code_text_and_call():
    assert issubclass(zelisp.Timeout, zelisp.Error)
    assert issubclass(zelisp.BadState, zelisp.Error)
    assert issubclass(zelisp.InvalidArgument, zelisp.Error)
    assert issubclass(zelisp.Error, Exception)

    zsim.remove_camera(2)
    with pytest.raises(zelisp.Error) as missing:
        zelisp.Camera(2)
    assert type(missing.value) is zelisp.Error
    assert missing.value.code == -9
    assert missing.value.call == "isp_open_video"
    assert str(missing.value).startswith("isp_open_video: ")

    with pytest.raises(zelisp.Error) as bad_mode:
        zelisp.Camera(0, mode=3)
    assert bad_mode.value.code == -9


def test_timeout_bad_state_and_invalid_argument():
    script = small_camera(0)
    with zelisp.Camera(0) as camera:
        with pytest.raises(zelisp.Error) as refused:
            camera.configure(views=(0,), buffers=9)
        assert (refused.value.code, refused.value.call) == (-2, "isp_init_video")
        assert str(refused.value) == "isp_init_video: the buffer count must be between 3 and 8 (-2)"
        with pytest.raises(zelisp.BadState) as early:
            camera.get_frame()
        assert (early.value.code, early.value.call) == (-4, "isp_get_frame_buf")
        with pytest.raises(zelisp.InvalidArgument, match="views are 0, 1 and 2"):
            camera.configure(views=(3,))
        camera.configure(views=(0,), buffers=3)
        camera.start()
        with pytest.raises(zelisp.BadState) as twice:
            camera.start()
        assert twice.value.call == "isp_start_capture"
        with pytest.raises(zelisp.Timeout) as late:
            camera.get_frame(timeout_ms=5)
        assert (late.value.code, late.value.call) == (-13, "isp_get_frame_buf")
        assert late.value.text == "no frame arrived within the time limit"
        # No time at all: the driver has nothing ready.
        with pytest.raises(zelisp.Error) as not_ready:
            camera.get_frame(timeout_ms=0)
        assert not_ready.value.code == -14
        script.push()
        with camera.get_frame(timeout_ms=0) as frame:
            assert frame.sequence == 1


def test_driver_failures_surface_as_errors():
    script = small_camera(0)
    with zelisp.Camera(0) as camera:
        camera.configure(views=(0,), buffers=3)
        camera.start()
        # A frame numbered like the last one is refused by the library and
        # stays with the driver.
        zsim.push_frame(0, 4, 2_000_000)
        zsim.push_frame(0, 4, 3_000_000)
        with camera.get_frame() as frame:
            assert frame.sequence == 4
        with pytest.raises(zelisp.Error) as refused:
            camera.get_frame()
        assert (refused.value.code, refused.value.call) == (-11, "isp_get_frame_buf")
        zsim.push_frame(0, 5, 4_000_000)
        with camera.get_frame() as frame:
            assert frame.sequence == 5
    del script


def test_frame_calls_take_their_arguments_as_documented():
    script = small_camera(0)

    class Recorder(zelisp.Camera):  # a subclass reaches the same camera
        pass

    with Recorder(0) as camera:
        camera.configure(views=(0, 2), buffers=3)
        camera.start()
        script.push(3)
        with camera.get_frame(None) as first, camera.get_frame(0) as second:
            assert (first.sequence, second.sequence) == (1, 2)
            assert repr(second) == f"Frame(index={second.index})"
            assert repr(second.views[2]) == "View(2, 'GREY', 96x64)"
        assert repr(first) == f"Frame(index={first.index}, released)"
        refusals = [
            ((), {"timeout": 5}, TypeError, "get_frame() got an unexpected keyword argument 'timeout'"),
            ((1.5,), {}, TypeError, "get_frame(): timeout_ms is an int of milliseconds or None, not float"),
            ((1, 2), {}, TypeError, r"get_frame() takes at most 1 argument (2 given)"),
            ((1,), {"timeout_ms": 2}, TypeError, "get_frame() got multiple values for argument 'timeout_ms'"),
            ((2**40,), {}, OverflowError, "get_frame(): timeout_ms 1099511627776 does not fit an int"),
        ]
        for args, kwargs, error, message in refusals:
            with pytest.raises(error) as refused:
                camera.get_frame(*args, **kwargs)
            assert str(refused.value) == message
        # None of them took a frame.
        with camera.get_expected_frame(timeout_ms=0) as third:
            assert third.sequence == 3
    assert str(inspect.signature(zelisp.Camera.get_frame)) == "(self, /, timeout_ms=1000)"
    for cls in (zelisp.Frame, zelisp.View):
        with pytest.raises(TypeError, match="cannot create"):
            cls()
