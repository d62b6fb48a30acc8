"""Picture controls go to the driver on every read and write, with the
values and payloads the driver expects."""

import pytest

import zelisp
import zsim

CONTROLS = {
    "brightness": (0x00980900, 200),
    "contrast": (0x00980901, 17),
    "saturation": (0x00980902, 255),
    "hue": (0x00980903, 0),
    "gamma": (0x00980910, 0x12345678),
    "sharpness": (0x0098091B, 9),
    "awb": (0x0098090C, 0),
    "aec": (0x009A0901, 1),
}


@pytest.fixture
def opened():
    with zelisp.Camera(1) as camera:
        yield camera


@pytest.mark.parametrize("name", sorted(CONTROLS))
def test_control_round_trip_through_the_driver(opened, name):
    control, value = CONTROLS[name]
    setattr(opened, name, value)
    assert zsim.control_value(1, control) == value
    assert getattr(opened, name) == value
    # A value changed behind the package's back is read from the driver.
    zsim.set_control_value(1, control, 1)
    assert getattr(opened, name) == 1


def test_denoise_manual_balance_exposure_and_abnormal_info(opened):
    opened.denoise = (3, 7)
    assert (zsim.control_value(1, 0x00981993), zsim.control_value(1, 0x00981994)) == (3, 7)
    assert opened.denoise == (3, 7)

    opened.set_mwb(0x12345, 2, 3)
    payload = zsim.manual_payload(1, 0x00981991)
    assert int.from_bytes(payload[0:4], "little") == 1
    gains = [int.from_bytes(payload[16 + 2 * i:18 + 2 * i], "little") for i in range(9)]
    assert gains == [0x2345, 2, 3] * 3

    opened.set_mec([1, 2, 3, 4, 5, 0x10006])
    payload = zsim.manual_payload(1, 0x00981992)
    assert [int.from_bytes(payload[4 + 2 * i:6 + 2 * i], "little") for i in range(6)] == [1, 2, 3, 4, 5, 6]
    with pytest.raises(zelisp.InvalidArgument, match=r"params=\[1, 2\] does not hold 6 numbers"):
        opened.set_mec([1, 2])

    assert opened.abnormal_info() == bytes(14)
    zsim.set_abnormal_info(1, bytes(range(14)))
    assert opened.abnormal_info() == bytes(range(14))


def test_refused_control_values(opened):
    # Outside the range the driver gives: refused before the library is
    # called, naming that range, and the driver's value stays.
    with pytest.raises(zelisp.InvalidArgument, match="11 is outside 0..10") as refused:
        opened.sharpness = 11
    assert refused.value.call == "Camera.sharpness"
    assert zsim.control_value(1, 0x0098091B) == 5
    with pytest.raises(zelisp.InvalidArgument, match="256 is outside 0..1"):
        opened.awb = 256
    assert opened.controls["awb"].current == 1


def test_controls_give_the_drivers_ranges_and_the_values_now(opened):
    opened.brightness = 140
    opened.denoise = (3, 7)
    zsim.set_control_value(1, 0x00980910, -2)  # gamma: a 32-bit word with its top bit set
    assert opened.controls == {
        "brightness": (0, 255, 128, 140),
        "contrast": (0, 255, 128, 128),
        "saturation": (0, 255, 128, 128),
        "hue": (0, 255, 128, 128),
        "gamma": (0, 0xFFFFFFFF, 100, 0xFFFFFFFE),
        "sharpness": (0, 10, 5, 5),
        "awb": (0, 1, 1, 1),
        "aec": (0, 255, 0, 0),
        "denoise": ((0, 0), (10, 10), (5, 5), (3, 7)),
    }
    control = opened.controls["sharpness"]
    assert (control.minimum, control.maximum, control.default, control.current) == (0, 10, 5, 5)
    # Everything back to the driver's defaults, as a program would do it.
    for name, control in opened.controls.items():
        setattr(opened, name, control.default)
    assert all(control.current == control.default for control in opened.controls.values())
    assert zsim.control_value(1, 0x00981993) == 5
