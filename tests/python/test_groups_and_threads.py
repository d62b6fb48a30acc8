"""Groups and their frame sets, waiting on several cameras, and threads:
one reads frames while another sets controls."""

import gc
import os
import threading

import pytest

import zelisp
import zsim
from conftest import Script, in_forked_child, small_camera, stamp_of


def test_frame_sets_hold_one_stamped_frame_per_member(group):
    for _ in range(3):
        numbers = [script.push() for script in group.scripts]
        with group.get_frame_set() as frames:
            assert isinstance(frames, zelisp.FrameSet)
            assert len(frames) == 2
            assert [f.sequence for f in frames] == numbers
            assert [stamp_of(f.views[2]) for f in frames] == numbers
            assert sorted(frames[0].views) == [0, 2]
        assert all(f.returned for f in frames)


def test_a_member_without_a_frame_times_out_and_loses_nothing(group):
    group.scripts[0].push()
    with pytest.raises(zelisp.Timeout) as late:
        group.get_frame_set(timeout_ms=5)
    assert late.value.call == "isp_group_get_sync_frame"
    group.scripts[1].push()
    with group.get_frame_set() as frames:
        assert [f.sequence for f in frames] == [1, 1]


def test_member_cameras_controls_triggers_and_closing(group):
    member = group.camera(1)
    member.brightness = 77
    assert zsim.control_value(1, 0x00980900) == 77
    assert zsim.control_value(0, 0x00980900) == 128
    with pytest.raises(zelisp.BadState, match="through its group"):
        member.close()
    with pytest.raises(zelisp.InvalidArgument):
        group.camera(5)

    group.trigger_internal(1, 2, 0)
    assert zsim.trigger_mode() == "internal"
    group.trigger_external(0, 0, 1)
    assert zsim.trigger_mode() == "external"

    for script in group.scripts:
        script.push()
    frames = group.get_frame_set()
    with pytest.raises(zelisp.BadState, match="still out"):
        group.close()
    array = frames[0].views[0].array
    view = frames[1].views[2]
    frames.release()
    with pytest.raises(zelisp.BadState):
        group.destroy()
    del array
    group.stop()
    assert os.fstat(view.fd).st_size >= view.length  # stopped: still the member's descriptor
    group.close()
    # The members closed their descriptors; the number may be another file now.
    with pytest.raises(zelisp.BadState, match="closed or re-configured"):
        view.fd
    group.destroy()
    with pytest.raises(zelisp.BadState, match="closed"):
        member.brightness


def test_group_view_format_and_refusals():
    small_camera(0)
    small_camera(1)
    with zelisp.Group([0, 1]) as pair:
        with pytest.raises(zelisp.BadState):
            pair.get_frame_set()
        pair.open()
        pair.set_view_format(1, "GREY", 64, 48)
        pair.configure(views=(1,), buffers=3)
        assert pair.camera(0).view_formats == [("GREY", 64, 48)]
        with pytest.raises(zelisp.InvalidArgument, match="four characters"):
            pair.set_view_format(1, "NV1", 64, 48)
        pair.start()
        zsim.push_frame(0, 3, 2_000_000)
        zsim.push_frame(1, 3, 2_000_000)
        with pair.get_frame_set() as frames:
            assert [(f.views[1].format, f.views[1].array.shape) for f in frames] == [("GREY", (48, 64))] * 2


def test_wait_reports_the_ready_cameras():
    scripts = [small_camera(i) for i in range(3)]
    cameras = [zelisp.Camera(i) for i in range(3)]
    for camera in cameras:
        camera.configure(views=(0,), buffers=3)
        camera.start()
    assert zelisp.wait(cameras, timeout_ms=0) == []
    scripts[1].push()
    assert zelisp.wait(cameras, timeout_ms=1000) == [cameras[1]]
    scripts[0].push()
    scripts[2].push()
    ready = zelisp.wait(cameras)
    assert ready == cameras
    for camera in ready:
        with camera.get_frame(timeout_ms=0) as frame:
            assert frame.sequence == 1
    with pytest.raises(zelisp.InvalidArgument):
        zelisp.wait(cameras * 3, timeout_ms=0)
    for camera in cameras:
        camera.close()


def test_a_thread_reads_frames_while_another_sets_controls(camera):
    frames = 300
    seen = []
    failure = []

    def reader():
        try:
            for _ in range(frames):
                # The wait releases the GIL: the main thread keeps running.
                with camera.get_frame(timeout_ms=60_000) as frame:
                    seen.append((frame.sequence, stamp_of(frame.views[0])))
        except Exception as error:  # reported by the main thread
            failure.append(error)

    thread = threading.Thread(target=reader)
    thread.start()
    for i in range(frames):
        camera.brightness = i % 256
        assert camera.brightness == i % 256
        camera.contrast = 255 - i % 256
        while zsim.pending_frames(0) > 2 and not failure:
            camera.sharpness = i % 11  # controls while the reader holds the driver busy
        camera.script.push()
    thread.join(timeout=120)
    assert not thread.is_alive()
    assert failure == []
    assert seen == [(n, n) for n in range(1, frames + 1)]
    assert zsim.control_value(0, 0x00980900) == (frames - 1) % 256


def test_set_i2c_ctrl_hands_the_sensor_bus_over():
    zelisp.set_i2c_ctrl(3, 1)
    zelisp.set_i2c_ctrl(3, 0)
    with pytest.raises(zelisp.Error) as refused:
        zelisp.set_i2c_ctrl(3, 2)
    assert refused.value.call == "isp_set_i2c_ctrl"


def test_leaving_a_group_block_by_an_exception_keeps_that_exception():
    scripts = [small_camera(0), small_camera(1)]
    with pytest.raises(ValueError, match="the user's own") as raised:
        with zelisp.Group([0, 1]) as group:
            group.open()
            group.configure(views=(0,), buffers=3)
            group.start()
            for script in scripts:
                script.push()
            frames = group.get_frame_set()
            raise ValueError("the user's own")
    assert raised.value.__context__ is None
    # The group stayed for its frames and is freed once they are gone.
    assert not group.destroyed
    assert [frame.sequence for frame in frames] == [1, 1]
    del group, frames
    gc.collect()
    assert zsim.live_descriptors() == 0


def test_a_forked_child_leaves_the_parents_group_alone(group):
    """A child's group calls are refused, its copies of the parent's frame set
    never go back to the driver, and it may destroy its copy of the group."""
    numbers = [script.push() for script in group.scripts]
    frames = group.get_frame_set()
    refusal = f"opened by process {os.getpid()}; a forked child opens cameras of its own"

    def child():
        zsim.clear_log()
        refusals = []
        for call in (lambda: group.get_frame_set(0), group.stop, group.start, lambda: group.configure(views=(0,))):
            with pytest.raises(zelisp.BadState) as refused:
                call()
            refusals.append(refused.value.detail)
        frames.release()
        group.destroy()
        return (refusals == [refusal] * 4, group.destroyed,
                [zsim.requests(name) for name in ("VIDIOC_DQBUF", "VIDIOC_QBUF", "VIDIOC_STREAMOFF")])

    assert in_forked_child(child) == repr((True, True, [[], [], []]))
    assert [stamp_of(frame.views[2]) for frame in frames] == numbers
    frames.release()
    numbers = [script.push() for script in group.scripts]
    with group.get_frame_set() as frames:
        assert [stamp_of(frame.views[2]) for frame in frames] == numbers
