"""zelisp: cameras of the ISP board from Python, without copying images.

    import zelisp
    with zelisp.Camera(0) as camera:
        camera.configure(views=(0,), buffers=4)
        camera.start()
        with camera.get_frame() as frame:
            image = frame.views[0].array      # numpy, over the mapped buffer

A frame's buffer goes back to the driver when the frame is released and no
array of it is alive. On a machine without the board, run Python on the
simulated driver: zelisp-sim-run -- /usr/bin/python3 script.py
"""

from ._errors import BadState, Error, InvalidArgument, Timeout
from ._zelisp import Camera, CameraInfo, Frame, Group, View, cameras, set_i2c_ctrl, version
from ._zelisp import _wait

__all__ = [
    "BadState", "Camera", "CameraInfo", "Error", "Frame", "FrameSet", "Group", "InvalidArgument",
    "Timeout", "View", "cameras", "set_i2c_ctrl", "version", "wait",
]


def wait(cameras, timeout_ms=None):
    """Waits until at least one of the cameras (up to 8) has a frame ready,
    with the GIL released, and returns the ready ones; an empty list when
    timeout_ms passed first (None: no limit)."""
    return _wait(list(cameras), timeout_ms)


def _frames(self, count=None, timeout_ms=1000):
    """Yields count frames (None: without end). Each frame is released when
    the next one is asked for or the loop ends; arrays taken from it keep
    its buffer until they are gone."""
    taken = 0
    while count is None or taken < count:
        frame = self.get_frame(timeout_ms)
        taken += 1
        try:
            yield frame
        finally:
            frame.release()


_frames.__name__ = "frames"
_frames.__qualname__ = "Camera.frames"
Camera.frames = _frames

_CONVERSIONS = {
    "NV12": "COLOR_YUV2BGR_NV12",
    "NV21": "COLOR_YUV2BGR_NV21",
    "YUYV": "COLOR_YUV2BGR_YUYV",
    "GREY": "COLOR_GRAY2BGR",
    "RGB3": "COLOR_RGB2BGR",
}


def _to_bgr(self):
    """A new (h, w, 3) BGR image converted with OpenCV, for cv2.imwrite and
    the rest of OpenCV. Needs the cv2 module (Debian: python3-opencv)."""
    try:
        import cv2
    except ImportError as error:
        raise ImportError(
            "View.to_bgr needs OpenCV for this interpreter: install python3-opencv "
            "(apt-get install python3-opencv) and run /usr/bin/python3") from error
    code = _CONVERSIONS.get(self.format)
    if code is None:
        raise Error(-15, "invalid argument", "View.to_bgr", f"no conversion from {self.format}")
    return cv2.cvtColor(self.array, getattr(cv2, code))


_to_bgr.__name__ = "to_bgr"
_to_bgr.__qualname__ = "View.to_bgr"
View.to_bgr = _to_bgr


class FrameSet(tuple):
    """One frame per group member, in member order; a context manager that
    releases them all on exit."""

    def release(self):
        """Releases every frame of the set."""
        for frame in self:
            frame.release()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.release()
        return False


_get_frame_set = Group.get_frame_set


def _group_get_frame_set(self, timeout_ms=1000):
    """Waits up to timeout_ms (None: no limit), with the GIL released, until
    every member has a frame, and returns them as a FrameSet. Raises Timeout
    when a member has none in time; frames already taken are handed back."""
    return FrameSet(_get_frame_set(self, timeout_ms))


_group_get_frame_set.__name__ = "get_frame_set"
_group_get_frame_set.__qualname__ = "Group.get_frame_set"
Group.get_frame_set = _group_get_frame_set


def _group_enter(self):
    return self


def _group_exit(self, *exc):
    self.destroy()
    return False


Group.__enter__ = _group_enter
Group.__exit__ = _group_exit
