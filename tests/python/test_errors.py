"""Every error class, with the library's code, sentence and call; what
plain Python handlers catch; pickling; frames the library refuses."""

import concurrent.futures
import inspect
import pickle

import pytest

import zelisp
import zsim
from conftest import small_camera


def test_error_classes_are_caught_by_plain_python_handlers_too():
    assert issubclass(zelisp.Error, Exception)
    for cls in (zelisp.Timeout, zelisp.BadState, zelisp.InvalidArgument):
        assert issubclass(cls, zelisp.Error)
    assert issubclass(zelisp.Cancelled, zelisp.BadState)
    assert issubclass(zelisp.Timeout, TimeoutError)
    assert issubclass(zelisp.InvalidArgument, ValueError)

    zsim.remove_camera(2)
    with pytest.raises(zelisp.Error) as missing:
        zelisp.Camera(2)
    assert type(missing.value) is zelisp.Error
    assert (missing.value.code, missing.value.call) == (-9, "isp_open_video")
    assert str(missing.value) == ("isp_open_video: a device node could not be opened, or the sensor bus could "
                                  "not be taken (-9): camera 2 mode 1 could not be opened")


def test_every_exception_survives_pickling_and_another_process():
    raised = [zelisp.Error(-9, "a device node could not be opened", "isp_open_video", "camera 2"),
              zelisp.Timeout(-13, "no frame arrived within the time limit", "isp_get_frame_buf"),
              zelisp.BadState(-4, "bad state", "isp_close_video", "1 frame(s) still out"),
              zelisp.Cancelled(-4, "bad state", "isp_get_frame_buf", "stop() ended the wait"),
              zelisp.InvalidArgument(-15, "invalid argument", "Camera", "index=12 is outside 0..11")]
    for error in raised:
        copy = pickle.loads(pickle.dumps(error))
        assert type(copy) is type(error)
        assert (copy.code, copy.text, copy.call, copy.detail, str(copy)) == \
            (error.code, error.text, error.call, error.detail, str(error))
    # As multiprocessing reports a worker's failure.
    with concurrent.futures.ProcessPoolExecutor(max_workers=1) as pool:
        with pytest.raises(zelisp.InvalidArgument) as remote:
            pool.submit(zelisp.Camera, 12).result(timeout=120)
    assert remote.value.detail == "index=12 is outside 0..11"


def test_timeout_bad_state_and_library_refusals():
    script = small_camera(0)
    with zelisp.Camera(0) as camera:
        with pytest.raises(zelisp.Error) as refused:
            camera.configure(views=(0,), buffers=9)
        assert (refused.value.code, refused.value.call) == (-2, "isp_init_video")
        assert str(refused.value) == "isp_init_video: the buffer count must be between 3 and 8 (-2)"
        with pytest.raises(zelisp.BadState) as early:
            camera.get_frame()
        assert (early.value.code, early.value.call) == (-4, "isp_get_frame_buf")
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


def test_refused_frames_are_skipped_and_counted_a_failed_dequeue_is_raised():
    small_camera(0)
    with zelisp.Camera(0) as camera:
        camera.configure(views=(0,), buffers=3)
        camera.start()
        # Numbered like the last one, then 4 ms after it (a 240 fps sensor
        # against the 12 ms rule): both refused, requeued, and skipped.
        zsim.push_frame(0, 4, 2_000_000)
        zsim.push_frame(0, 4, 2_100_000)
        zsim.push_frame(0, 5, 2_004_000)
        zsim.push_frame(0, 6, 2_012_000)
        with camera.get_frame() as first, camera.get_frame() as second:
            assert (first.sequence, second.sequence) == (4, 6)
        assert camera.refused == 2
        # With nothing but a refused frame there, no time means no frame.
        zsim.push_frame(0, 6, 3_000_000)
        with pytest.raises(zelisp.Error) as not_ready:
            camera.get_frame(timeout_ms=0)
        assert not_ready.value.code == -14
        assert camera.refused == 3
        # A dequeue the driver fails is not a refused frame.
        zsim.push_frame(0, 7, 4_000_000)
        zsim.fail_request(0xC0585611, 1, 5)  # VIDIOC_DQBUF, EIO
        with pytest.raises(zelisp.Error) as failed:
            camera.get_frame()
        assert (failed.value.code, failed.value.call) == (-11, "isp_get_frame_buf")
        assert camera.refused == 3
        with camera.get_frame() as frame:
            assert frame.sequence == 7


def test_frames_goes_on_across_refused_frames(camera):
    # Every other frame only 6 ms after the last: the 12 ms rule refuses it.
    timestamp = 1_000_000
    for sequence in range(1, 21):
        timestamp += 6_000 if sequence % 2 == 0 else 30_000
        zsim.push_frame(0, sequence, timestamp)
    seen = [frame.sequence for frame in camera.frames(count=10)]
    assert seen == list(range(1, 21, 2))
    assert camera.refused == 9  # frames 2 to 18; frame 20 was never asked for
    assert zsim.counters(0)["delivered"] == 19


def test_the_frame_calls_show_their_signature():
    assert str(inspect.signature(zelisp.Camera.get_frame)) == "(self, /, timeout_ms=1000)"
    assert str(inspect.signature(zelisp.Camera.get_expected_frame)) == "(self, /, timeout_ms=1000)"
