"""Wrong arguments, per call: a wrong type raises TypeError and a number
that does not fit raises zelisp.InvalidArgument (also a ValueError), each
naming the parameter; none of them reaches the driver or changes anything.
Objects made with __new__ alone are refused, never read."""

import pytest

import zelisp
import zsim
from conftest import small_camera


def invalid(call, detail):
    return zelisp.InvalidArgument, (call, detail)


OPEN_MODES = "1 opens /dev/videoN with three views, 2 opens /dev/video<N+12> with one plane"

CAMERA_REFUSALS = [
    (lambda c: zelisp.Camera("0"), TypeError, "Camera(): index must be an int, not str"),
    (lambda c: zelisp.Camera(0.0), TypeError, "Camera(): index must be an int, not float"),
    (lambda c: zelisp.Camera(12), *invalid("Camera", "index=12 is outside 0..11")),
    (lambda c: zelisp.Camera(-1), *invalid("Camera", "index=-1 is outside 0..11")),
    (lambda c: zelisp.Camera(0, mode=3), *invalid("Camera", f"mode=3: {OPEN_MODES}")),
    (lambda c: zelisp.Camera(0, mode=None), TypeError, "Camera(): mode must be an int, not NoneType"),
    (lambda c: c.configure(views="0"), TypeError, "Camera.configure(): views must be an iterable, not str"),
    (lambda c: c.configure(views=0), TypeError, "Camera.configure(): views must be an iterable, not int"),
    (lambda c: c.configure(views=(0.0,)), TypeError, "Camera.configure(): views must hold view numbers (ints), not float"),
    (lambda c: c.configure(views=(3,)), *invalid("Camera.configure", "views are 0, 1 and 2; got 3")),
    (lambda c: c.configure(buffers="4"), TypeError, "Camera.configure(): buffers must be an int, not str"),
    (lambda c: c.configure(buffers=2**40),
     *invalid("Camera.configure", "buffers=1099511627776 is outside -2147483648..2147483647")),
    (lambda c: c.configure(resize=[1]), TypeError, "Camera.configure(): resize must be a dict or None, not list"),
    (lambda c: c.configure(resize={"crop": (0, 0, 2, 2)}),
     *invalid("Camera.configure", "resize has no key 'crop'; its keys are crop_before, scale, crop_after and sel")),
    (lambda c: c.configure(resize={"scale": (2,)}),
     *invalid("Camera.configure", "resize['scale']=(2,) does not hold 2 numbers")),
    (lambda c: c.configure(resize={"scale": "22"}), TypeError,
     "Camera.configure(): resize['scale'] must be a tuple of 2 numbers, not str"),
    (lambda c: c.configure(resize={"crop_before": (0, 0, -2, 2)}),
     *invalid("Camera.configure", "resize['crop_before']=-2 is outside 0..65535")),
    (lambda c: c.configure(resize={"sel": 1.0}), TypeError, "Camera.configure(): resize['sel'] must be an int, not float"),
    (lambda c: c.get_frame(1.5), TypeError,
     "Camera.get_frame(): timeout_ms must be an int of milliseconds or None, not float"),
    (lambda c: c.get_frame(-5),
     *invalid("Camera.get_frame", "timeout_ms=-5 is negative: give None to wait without a limit")),
    (lambda c: c.get_expected_frame(timeout_ms=2**40),
     *invalid("Camera.get_expected_frame", "timeout_ms=1099511627776 is outside 0..2147483647")),
    (lambda c: c.get_frame(timeout=5), TypeError, "Camera.get_frame() got an unexpected keyword argument 'timeout'"),
    (lambda c: c.get_frame(1, 2), TypeError, "Camera.get_frame() takes at most 1 argument (2 given)"),
    (lambda c: c.get_frame(1, timeout_ms=2), TypeError,
     "Camera.get_frame() got multiple values for argument 'timeout_ms'"),
    (lambda c: c.frames(count=1.5), TypeError, "Camera.frames(): count must be an int or None, not float"),
    (lambda c: c.frames(count=-1), *invalid("Camera.frames", "count=-1 is negative")),
    (lambda c: next(c.frames(timeout_ms=-1)),
     *invalid("Camera.get_frame", "timeout_ms=-1 is negative: give None to wait without a limit")),
    # Controls are refused with the range the driver gives for them.
    (lambda c: setattr(c, "brightness", -1), *invalid("Camera.brightness", "-1 is outside 0..255")),
    (lambda c: setattr(c, "brightness", 256), *invalid("Camera.brightness", "256 is outside 0..255")),
    (lambda c: setattr(c, "brightness", "1"), TypeError, "Camera.brightness must be an int, not str"),
    (lambda c: setattr(c, "sharpness", 11), *invalid("Camera.sharpness", "11 is outside 0..10")),
    (lambda c: setattr(c, "awb", 2), *invalid("Camera.awb", "2 is outside 0..1")),
    (lambda c: setattr(c, "gamma", 1 << 32), *invalid("Camera.gamma", "4294967296 is outside 0..4294967295")),
    (lambda c: setattr(c, "denoise", (-1, -1)), *invalid("Camera.denoise", "-1 is outside 0..10")),
    (lambda c: setattr(c, "denoise", (3, 11)), *invalid("Camera.denoise", "11 is outside 0..10")),
    (lambda c: setattr(c, "denoise", 3), TypeError, "Camera.denoise must be a tuple of 2 numbers, not int"),
    (lambda c: c.set_mwb("1", 1, 1), TypeError, "Camera.set_mwb(): g1 must be an int, not str"),
    (lambda c: c.set_mec([1, 2]), *invalid("Camera.set_mec", "params=[1, 2] does not hold 6 numbers")),
    (lambda c: c.set_mec([1, 2, 3, 4, 5, -6]), *invalid("Camera.set_mec", "params=-6 is outside 0..4294967295")),
    (lambda c: c.set_frame_drop(1.5, 0), TypeError, "Camera.set_frame_drop(): total must be an int, not float"),
    (lambda c: zelisp.wait([0]), TypeError, "wait(): cameras must hold initialised zelisp.Camera objects, not int"),
    (lambda c: zelisp.wait(c), TypeError, "wait(): cameras must be an iterable of zelisp.Camera, not Camera"),
    (lambda c: zelisp.wait([c], -1),
     *invalid("wait", "timeout_ms=-1 is negative: give None to wait without a limit")),
    (lambda c: zelisp.wait([]), *invalid("wait", "cameras is empty: there is nothing to wait for")),
    (lambda c: zelisp.set_i2c_ctrl(-1, 0), *invalid("set_i2c_ctrl", "camera=-1 is outside 0..4294967295")),
]


def check_refusal(call, target, error_type, expected):
    with pytest.raises(error_type) as refused:
        call(target)
    if error_type is zelisp.InvalidArgument:
        assert (refused.value.code, refused.value.call, refused.value.detail) == (-15, *expected)
        assert isinstance(refused.value, ValueError)
    else:
        assert str(refused.value) == expected


@pytest.mark.parametrize("call,error_type,expected", CAMERA_REFUSALS)
def test_camera_calls_refuse_wrong_arguments_naming_them(camera, call, error_type, expected):
    controls = camera.controls
    zsim.clear_log()
    check_refusal(call, camera, error_type, expected)
    # Nothing reached the driver, nothing changed.
    assert [entry for entry in zsim.requests("VIDIOC_S_CTRL")] == []
    assert camera.controls == controls
    assert camera.view_formats == [("NV12", 192, 108), ("YUYV", 128, 72), ("GREY", 96, 64)]
    number = camera.script.push()
    with camera.get_frame(timeout_ms=0) as frame:
        assert frame.sequence == number


GROUP_REFUSALS = [
    (lambda g: zelisp.Group("01"), TypeError, "Group(): cameras must be an iterable, not str"),
    (lambda g: zelisp.Group([0.5]), TypeError, "Group(): cameras must be an int, not float"),
    (lambda g: zelisp.Group([0], name=5), TypeError, "Group(): name must be a str, not int"),
    (lambda g: zelisp.Group([0], name="a\0b"), *invalid("Group", "name='a\\x00b' holds a NUL character")),
    (lambda g: zelisp.Group([0], group_type=-1), *invalid("Group", "group_type=-1 is outside 0..4294967295")),
    (lambda g: g.open(-1), *invalid("Group.open", f"mode=-1: {OPEN_MODES}")),
    (lambda g: g.open("1"), TypeError, "Group.open(): mode must be an int, not str"),
    (lambda g: g.configure(views="1"), TypeError, "Group.configure(): views must be an iterable, not str"),
    (lambda g: g.configure(buffers=-3), *invalid("Group.configure", "buffers=-3 is outside 0..4294967295")),
    (lambda g: g.set_view_format(0, 1234, 64, 48), TypeError,
     "Group.set_view_format(): fourcc must be a str, not int"),
    (lambda g: g.set_view_format(0, "NV12", -64, 48),
     *invalid("Group.set_view_format", "width=-64 is outside 0..4294967295")),
    (lambda g: g.trigger_internal(1, 2, -1), *invalid("Group.trigger_internal", "p3=-1 is outside 0..4294967295")),
    (lambda g: g.camera("1"), TypeError, "Group.camera(): index must be an int, not str"),
    (lambda g: g.get_frame_set(-1),
     *invalid("Group.get_frame_set", "timeout_ms=-1 is negative: give None to wait without a limit")),
    (lambda g: g.get_frame_set(1.5), TypeError,
     "Group.get_frame_set(): timeout_ms must be an int of milliseconds or None, not float"),
]


@pytest.mark.parametrize("call,error_type,expected", GROUP_REFUSALS)
def test_group_calls_refuse_wrong_arguments_naming_them(call, error_type, expected):
    small_camera(0)
    small_camera(1)
    with zelisp.Group([0, 1]) as group:
        check_refusal(call, group, error_type, expected)
        assert zsim.trigger_mode() == "none"
        group.open()  # still a new group
        assert [group.camera(i).closed for i in (0, 1)] == [False, False]


def test_numbers_of_any_integer_type_are_taken():
    np = pytest.importorskip("numpy")
    script = small_camera(0)
    with zelisp.Camera(np.int64(0)) as camera:
        camera.configure(views=np.array([0, 2]), buffers=np.uint8(3))
        camera.brightness = np.int32(77)
        assert zsim.control_value(0, 0x00980900) == 77
        camera.start()
        script.push()
        with camera.get_frame(np.int16(1000)) as frame:
            assert sorted(frame.views) == [0, 2]


ARGUMENTS = {
    "camera": (0,), "set_view_format": (0, "NV12", 64, 48), "trigger_internal": (1, 2, 0),
    "trigger_external": (0, 0, 1), "set_frame_drop": (30, 10), "set_mwb": (1, 1, 1), "set_mec": ([0] * 6,),
    "get_frame_set": (0,), "get_frame": (0,), "get_expected_frame": (0,),
}


@pytest.mark.parametrize("cls", [zelisp.Camera, zelisp.Group])
def test_an_object_made_without_init_is_refused_by_every_member(cls):
    bare = cls.__new__(cls)
    assert repr(bare) == f"{cls.__name__}(not initialised)"
    message = f"expected an initialised zelisp.{cls.__name__}, got one made without calling __init__"
    for name in sorted(name for name in dir(cls) if not name.startswith("_")):
        with pytest.raises(TypeError) as refused:
            member = getattr(bare, name)
            if callable(member):
                result = member(*ARGUMENTS.get(name, ()))
                next(result)  # frames() is a generator: its first frame is asked for here
        assert str(refused.value) == message, name
    with pytest.raises(TypeError, match=message):
        with bare:
            pass
    # An object of another class is refused the same way, never read as one.
    with pytest.raises(TypeError, match=rf"expected an initialised zelisp\.{cls.__name__}, got int"):
        cls.start(5)


def test_the_other_types_cannot_be_made_half_way():
    for cls in (zelisp.Frame, zelisp.View):
        with pytest.raises(TypeError, match="is not safe"):
            cls.__new__(cls)
        with pytest.raises(TypeError, match="cannot create"):
            cls()
    info = zelisp.CameraInfo.__new__(zelisp.CameraInfo)
    with pytest.raises(AttributeError):
        info.index
    with pytest.raises(TypeError):
        zelisp.Control.__new__(zelisp.Control)
    assert zelisp.FrameSet.__new__(zelisp.FrameSet).release() is None
    for cls in (zelisp.Error, zelisp.Timeout, zelisp.Cancelled):
        bare = cls.__new__(cls)
        assert str(bare) == ""
