"""zelisp: cameras of the ISP board from Python, without copying images.

    import zelisp
    with zelisp.Camera(0) as camera:
        camera.configure(views=(0,), buffers=4)
        camera.start()
        with camera.get_frame() as frame:
            image = frame.views[0].array      # numpy, over the mapped buffer

A frame's buffer goes back to the driver when the frame is released and no
array of it is alive. The library's messages go to logging.getLogger("zelisp").
On a machine without the board, run Python on the simulated driver:
zelisp-sim-run -- /usr/bin/python3 script.py
"""

import dataclasses
import operator
from typing import NamedTuple, Tuple, TypedDict

from ._errors import BadState, Cancelled, Error, InvalidArgument, Timeout
from ._zelisp import Camera, Frame, Group, View, set_i2c_ctrl, version
from ._zelisp import _camera_records, _wait

__all__ = [
    "BadState", "Camera", "CameraInfo", "Cancelled", "Control", "Error", "Frame", "FrameSet", "Group",
    "InvalidArgument", "Resize", "Timeout", "View", "cameras", "set_i2c_ctrl", "version", "wait",
]

__version__ = version().rpartition(":v")[2]


@dataclasses.dataclass(frozen=True)
class CameraInfo:
    """One record of the platform's valid-camera table: the camera number
    (as in Camera(index)) and the 40 bytes the driver wrote, unchanged."""

    index: int
    record: bytes = dataclasses.field(repr=False)


def cameras():
    """The cameras the platform lists as valid, as CameraInfo records."""
    return [CameraInfo(int.from_bytes(record[32:36], "little", signed=True), record)
            for record in _camera_records()]


class Control(NamedTuple):
    """A picture control as the driver describes it: its range, its default
    and its value now. The denoise control gives (luma, chroma) pairs."""

    minimum: object
    maximum: object
    default: object
    current: object


class Resize(TypedDict, total=False):
    """The resize of Camera.configure: crop, scale to (w, h), crop again;
    crops are (x, y, w, h); sel picks the view (0..2) it applies to."""

    crop_before: Tuple[int, int, int, int]
    scale: Tuple[int, int]
    crop_after: Tuple[int, int, int, int]
    sel: int


def wait(cameras, timeout_ms=None):
    """Waits until at least one of the cameras (up to 8) has a frame ready,
    with the GIL released, and returns the ready ones; an empty list when
    timeout_ms passed first (None: no limit). Raises Cancelled when another
    thread stops or closes one of them meanwhile."""
    if isinstance(cameras, (str, bytes)) or not hasattr(cameras, "__iter__"):
        raise TypeError(f"wait(): cameras must be an iterable of zelisp.Camera, not {type(cameras).__name__}")
    return _wait(list(cameras), timeout_ms)


def _frames(self, count=None, timeout_ms=1000):
    """Yields count frames (None: without end). Each frame is released when
    the next one is asked for or the loop ends; arrays taken from it keep
    its buffer until they are gone. Frames the library refuses are skipped
    (see refused). Raises Cancelled when another thread stops or closes the
    camera."""
    if count is not None:
        try:
            count = operator.index(count)
        except TypeError:
            raise TypeError(f"Camera.frames(): count must be an int or None, not {type(count).__name__}") from None
        if count < 0:
            raise InvalidArgument(-15, "invalid argument", "Camera.frames", f"count={count} is negative")
    return _frame_stream(self, count, timeout_ms)


def _frame_stream(camera, count, timeout_ms):
    taken = 0
    while count is None or taken < count:
        frame = camera.get_frame(timeout_ms)
        taken += 1
        try:
            yield frame
        finally:
            frame.release()


_frames.__name__ = "frames"
_frames.__qualname__ = "Camera.frames"
Camera.frames = _frames


def _controls(self):
    return {name: Control(*values) for name, values in self._controls().items()}


Camera.controls = property(
    _controls, doc="name -> Control(minimum, maximum, default, current), read from the driver each time.")

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

    def __exit__(self, exc_type, exc, traceback):
        self.release()


def _group_get_frame_set(self, timeout_ms=1000):
    """Waits up to timeout_ms (None: no limit), with the GIL released, until
    every member has a frame, and returns them as a FrameSet. Raises Timeout
    when a member has none in time (frames already taken are handed back),
    Cancelled when another thread stops, closes or destroys the group."""
    return FrameSet(self._get_frame_set(timeout_ms))


_group_get_frame_set.__name__ = "get_frame_set"
_group_get_frame_set.__qualname__ = "Group.get_frame_set"
Group.get_frame_set = _group_get_frame_set


def _group_enter(self):
    return self


def _group_exit(self, exc_type, exc, traceback):
    """Destroys the group. Leaving on an exception, that exception goes on
    even when frames are still out: the group is then freed once its last
    frame and array are gone."""
    try:
        self.destroy()
    except BadState:
        if exc_type is None:
            raise


Group.__enter__ = _group_enter
Group.__exit__ = _group_exit
