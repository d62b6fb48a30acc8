"""Capturing through the package: views, array shapes per format, the frame
number the simulator paints, zero copy, the frame iterator and decimation."""

import selectors

import numpy as np
import pytest

import zelisp
import zsim
from conftest import array_mapping, assert_shares, small_camera, stamp_of

SHAPES = {
    "NV12": lambda w, h: (h * 3 // 2, w),
    "NV21": lambda w, h: (h * 3 // 2, w),
    "YUYV": lambda w, h: (h, w, 2),
    "GREY": lambda w, h: (h, w),
    "RGB3": lambda w, h: (h, w, 3),
}


def test_discovery_and_version():
    assert zelisp.version() == "zelisp:v1.3.0"
    infos = zelisp.cameras()
    assert [info.index for info in infos] == [0, 1, 2, 3]
    # Every byte but the camera number is the driver's data, kept unchanged.
    for info in infos:
        record = info.record
        assert len(record) == 40
        assert int.from_bytes(record[32:36], "little") == info.index
        expected = bytes(((0xC0 + i) ^ (info.index * 0x15)) & 0xFF for i in range(40) if not 32 <= i < 36)
        assert record[:32] + record[36:] == expected


@pytest.mark.parametrize("fourcc", sorted(SHAPES))
def test_each_format_gives_its_shape_and_carries_the_frame_number(fourcc):
    script = small_camera(0, views=[(fourcc, 192, 108), ("NV12", 128, 72), ("NV12", 96, 64)])
    with zelisp.Camera(0) as camera:
        camera.configure(views=(0,), buffers=3)
        assert camera.view_formats == [(fourcc, 192, 108)]
        camera.start()
        for _ in range(3):
            number = script.push()
            with camera.get_frame() as frame:
                assert list(frame.views) == [0]
                view = frame.views[0]
                assert (view.format, view.width, view.height) == (fourcc, 192, 108)
                array = view.array
                assert array.dtype == np.uint8
                assert array.shape == SHAPES[fourcc](192, 108)
                assert frame.sequence == number
                assert frame.timestamp_us == script.timestamp_us
                assert stamp_of(view) == number
                del array


def test_three_views_in_one_frame(camera):
    number = camera.script.push()
    with camera.get_frame() as frame:
        assert sorted(frame.views) == [0, 1, 2]
        shapes = {v: frame.views[v].array.shape for v in frame.views}
        assert shapes == {0: (162, 192), 1: (72, 128, 2), 2: (64, 96)}
        assert [stamp_of(frame.views[v]) for v in (0, 1, 2)] == [number] * 3
        assert all(frame.views[v].fd >= 0 for v in (0, 1, 2))
        assert len({frame.views[v].fd for v in (0, 1, 2)}) == 3
        assert frame.views[2].length >= 96 * 64


def test_views_one_and_two_only_and_mode_two():
    script = small_camera(0)
    with zelisp.Camera(0) as camera:
        camera.configure(views=(1, 2), buffers=3)
        assert camera.view_formats == [("YUYV", 128, 72), ("GREY", 96, 64)]
        camera.start()
        number = script.push()
        with camera.get_frame() as frame:
            assert sorted(frame.views) == [1, 2]
            assert stamp_of(frame.views[1]) == number
    # Mode 2 is the one-plane node /dev/video12 carrying view 0.
    script = small_camera(0)
    with zelisp.Camera(0, mode=2) as camera:
        assert (camera.index, camera.mode) == (0, 2)
        camera.configure(views=(0,), buffers=3)
        camera.start()
        zsim.push_frame(12, 9, 5_000_000)
        with camera.get_frame() as frame:
            assert frame.sequence == 9
            assert stamp_of(frame.views[0]) == 9


def test_arrays_are_the_mapped_plane_without_a_copy(camera):
    camera.script.push()
    with camera.get_frame() as frame:
        for number, view in frame.views.items():
            array = view.array
            assert not array.flags.owndata
            assert array.base is not None
            start, line = array_mapping(array)
            # The array starts where the driver's plane is mapped.
            assert "zelisp-sim-plane" in line, line
            assert array.__array_interface__["data"][0] == start
            assert_shares(array, view.fd, view.length)
            again = view.array
            assert np.shares_memory(array, again)
            del array, again


def test_frames_iterator_releases_each_frame_when_the_next_is_asked_for(camera):
    camera.script.push(3)
    seen = []
    kept = None
    for frame in camera.frames(count=3, timeout_ms=1000):
        if kept is not None:
            assert kept.released
        seen.append(frame.sequence)
        kept = frame
    assert seen == [1, 2, 3]
    assert kept.released and kept.returned
    # Every buffer is back: four more frames fill all four.
    camera.script.push(4)
    frames = [camera.get_frame() for _ in range(4)]
    assert [f.sequence for f in frames] == [4, 5, 6, 7]
    for frame in frames:
        frame.release()


def test_expected_frames_follow_the_drop_rule(camera):
    camera.set_frame_drop(30, 10)  # drops every third frame number
    camera.script.push(7)
    kept = []
    for _ in range(5):
        with camera.get_expected_frame() as frame:
            kept.append(frame.sequence)
    assert kept == [1, 2, 4, 5, 7]
    assert zsim.pending_frames(0) == 0
    with pytest.raises(zelisp.InvalidArgument) as refused:
        camera.set_frame_drop(25, 10)
    assert refused.value.call == "isp_set_frame_drop_num"


def test_fileno_works_with_selectors(camera):
    selector = selectors.DefaultSelector()
    selector.register(camera.fileno(), selectors.EVENT_READ, camera)
    assert selector.select(timeout=0) == []
    camera.script.push()
    events = selector.select(timeout=30)
    assert [key.data for key, _ in events] == [camera]
    with camera.get_frame(timeout_ms=0) as frame:
        assert frame.sequence == 1
    selector.close()


def test_to_bgr_converts_with_opencv_and_says_when_it_is_missing(camera, monkeypatch):
    import sys
    number = camera.script.push()
    with camera.get_frame() as frame:
        for view in frame.views.values():
            bgr = view.to_bgr()
            assert bgr.shape == (view.height, view.width, 3)
            assert stamp_of_bgr(bgr) == number
        monkeypatch.setitem(sys.modules, "cv2", None)
        with pytest.raises(ImportError, match="python3-opencv"):
            frame.views[0].to_bgr()


def stamp_of_bgr(image):
    from conftest import read_stamp
    return read_stamp(image[:, :, 1])


def test_resize_is_validated_before_the_stream_is_set_up():
    small_camera(0)
    with zelisp.Camera(0) as camera:
        with pytest.raises(zelisp.InvalidArgument) as refused:
            camera.configure(views=(0,), buffers=3, resize={"sel": 3})
        assert refused.value.call == "isp_resize_resolution"
        camera.configure(views=(0,), buffers=3, resize={"scale": (0, 0), "sel": 0})
        assert camera.view_formats == [("NV12", 192, 108)]
