/*
 * controls.cpp - the picture control table and the driver's ranges.
 */
#include "controls.h"

#include "core.h"

#include <linux/videodev2.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>

namespace zelpy {

#define WORD_CALLS(name) isp_camera_get_##name, isp_camera_set_##name, nullptr, nullptr
#define BYTE_CALLS(name) nullptr, nullptr, isp_camera_get_##name, isp_camera_set_##name

const std::array<NumberControl, 8> kNumberControls{{
    {"brightness", V4L2_CID_BRIGHTNESS, WORD_CALLS(brightness), "Brightness, 0..255."},
    {"contrast", V4L2_CID_CONTRAST, WORD_CALLS(contrast), "Contrast, 0..255."},
    {"saturation", V4L2_CID_SATURATION, WORD_CALLS(saturation), "Saturation, 0..255."},
    {"hue", V4L2_CID_HUE, WORD_CALLS(hue), "Hue, 0..255."},
    {"gamma", V4L2_CID_GAMMA, WORD_CALLS(gamma), "Gamma, a 32-bit word for the ISP firmware."},
    {"sharpness", V4L2_CID_SHARPNESS, WORD_CALLS(sharpness), "Sharpness, 0..10."},
    {"awb", V4L2_CID_AUTO_WHITE_BALANCE, BYTE_CALLS(awb), "Automatic white balance, 1 on, 0 off."},
    {"aec", V4L2_CID_EXPOSURE_AUTO, BYTE_CALLS(aec), "Exposure mode: 0 automatic, 1 manual, ..."},
}};

#undef WORD_CALLS
#undef BYTE_CALLS

// The ISP driver's private controls of the user class.
const uint32_t kLumaDenoiseId = 0x00981993;
const uint32_t kChromaDenoiseId = 0x00981994;

namespace {

/* The library call's name; refuses a closed camera (handle 0). */
std::string call_name(const char *verb, const NumberControl &control, unsigned long handle)
{
    std::string call = std::string("isp_camera_") + verb + "_" + control.name;
    if (handle == 0)
        fail(ISP_ERR_STATE, call.c_str(), "the camera is closed");
    return call;
}

} // namespace

int64_t read_control(unsigned long handle, const NumberControl &control)
{
    const std::string call = call_name("get", control, handle);
    if (control.get_word) {
        uint32_t value = 0;
        check(control.get_word(handle, &value), call.c_str());
        return value;
    }
    uint8_t value = 0;
    check(control.get_byte(handle, &value), call.c_str());
    return value;
}

void write_control(unsigned long handle, const NumberControl &control, int64_t value)
{
    const std::string call = call_name("set", control, handle);
    check(control.set_word ? control.set_word(handle, uint32_t(value)) : control.set_byte(handle, uint8_t(value)),
          call.c_str());
}

int64_t control_maximum(const NumberControl &control) { return control.set_word ? UINT32_MAX : UINT8_MAX; }

std::pair<int64_t, int64_t> writable_range(int node, uint32_t id, int64_t call_maximum)
{
    if (node >= 0)
        if (auto range = driver_range(node, id))
            return {std::max<int64_t>(range->minimum, 0), std::min(range->maximum, call_maximum)};
    return {0, call_maximum};
}

std::optional<DriverRange> driver_range(int node, uint32_t id)
{
    v4l2_queryctrl query{};
    query.id = id;
    int result;
    do {
        result = ioctl(node, VIDIOC_QUERYCTRL, &query);
    } while (result == -1 && errno == EINTR);
    if (result != 0 || (query.flags & V4L2_CTRL_FLAG_DISABLED))
        return std::nullopt;
    if (query.minimum < 0)
        return DriverRange{0, UINT32_MAX, int64_t(uint32_t(query.default_value))};
    return DriverRange{query.minimum, query.maximum, query.default_value};
}

} // namespace zelpy
