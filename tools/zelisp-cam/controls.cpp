// controls.cpp - the table of the library's controls.
#include "controls.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include <linux/videodev2.h>

#include "zelisp.h"

namespace zcam {
namespace {

// The ISP driver's private control of the luma denoise strength (its range
// stands for the chroma one too).
constexpr uint32_t kLumaDenoiseId = 0x00981993;

using SetU32 = int (*)(unsigned long, uint32_t);
using SetSwitch = int (*)(unsigned long, uint8_t);

// A number the library reads back; the driver's automatic modes are
// booleans that it reads back as 0 or 1 in a byte.
template <typename T, int (*Get)(unsigned long, T *)> int read_value(unsigned long handle, std::string *value)
{
    T number = 0;
    int result = Get(handle, &number);
    if (result == ISP_OK)
        *value = std::to_string(uint32_t(number));
    return result;
}

template <SetU32 Set> int write_number(unsigned long handle, const uint32_t *values)
{
    return Set(handle, values[0]);
}

// The value goes out as one byte; the table's limits keep it within one.
template <SetSwitch Set> int write_switch(unsigned long handle, const uint32_t *values)
{
    return Set(handle, uint8_t(values[0]));
}

int read_denoise(unsigned long handle, std::string *value)
{
    uint32_t luma = 0, chroma = 0;
    int result = isp_camera_get_denoise(handle, &luma, &chroma);
    if (result == ISP_OK)
        *value = std::to_string(luma) + " " + std::to_string(chroma);
    return result;
}

int write_denoise(unsigned long handle, const uint32_t *values)
{
    return isp_camera_set_denoise(handle, values[0], values[1]);
}

int write_mwb(unsigned long handle, const uint32_t *values)
{
    return isp_camera_set_mwb(handle, values[0], values[1], values[2]);
}

int write_mec(unsigned long handle, const uint32_t *values)
{
    zelvideo::_mec_param_t param = {};
    for (int i = 0; i < 6; ++i)
        param.param[i] = values[i];
    return isp_camera_set_mec(handle, &param);
}

// The ISP's abnormal-information block: 14 bytes the driver fills, shown as
// hexadecimal bytes in the order the driver wrote them.
int read_abnormal(unsigned long handle, std::string *value)
{
    uint8_t info[14] = {};
    int result = isp_camera_get_abnormal_info(handle, info);
    if (result != ISP_OK)
        return result;
    value->clear();
    for (uint8_t byte : info) {
        char hex[4];
        snprintf(hex, sizeof hex, "%02x", byte);
        if (!value->empty())
            *value += ' ';
        *value += hex;
    }
    return result;
}

} // namespace

const std::vector<Control> &controls()
{
    // The limits are the library's own checks, except awb: the library
    // sends any byte, but the control is a switch and its driver refuses
    // anything but 0 and 1.
    static const std::vector<Control> table = {
        {"brightness", "0..255", 1, 255, false, V4L2_CID_BRIGHTNESS, read_value<uint32_t, isp_camera_get_brightness>,
         write_number<isp_camera_set_brightness>},
        {"contrast", "0..255", 1, 255, false, V4L2_CID_CONTRAST, read_value<uint32_t, isp_camera_get_contrast>,
         write_number<isp_camera_set_contrast>},
        {"saturation", "0..255", 1, 255, false, V4L2_CID_SATURATION, read_value<uint32_t, isp_camera_get_saturation>,
         write_number<isp_camera_set_saturation>},
        {"hue", "0..255", 1, 255, false, V4L2_CID_HUE, read_value<uint32_t, isp_camera_get_hue>,
         write_number<isp_camera_set_hue>},
        {"sharpness", "0..10", 1, 10, false, V4L2_CID_SHARPNESS, read_value<uint32_t, isp_camera_get_sharpness>,
         write_number<isp_camera_set_sharpness>},
        {"gamma", "any 32-bit value", 1, UINT32_MAX, false, V4L2_CID_GAMMA, read_value<uint32_t, isp_camera_get_gamma>,
         write_number<isp_camera_set_gamma>},
        {"denoise", "LUMA CHROMA, 0..10 each", 2, 10, false, kLumaDenoiseId, read_denoise, write_denoise},
        {"awb", "0|1 or off|on (automatic white balance)", 1, 1, false, V4L2_CID_AUTO_WHITE_BALANCE,
         read_value<uint8_t, isp_camera_get_awb>, write_switch<isp_camera_set_awb>},
        {"mwb", "GAIN1 GAIN2 GAIN3, set only (manual white balance gains, low 16 bits each)", 3, UINT32_MAX, true, 0,
         nullptr, write_mwb},
        {"aec", "0..255, the driver's exposure mode (V4L2: 0 auto, 1 manual); read back as 0 or 1", 1, 255, false,
         V4L2_CID_EXPOSURE_AUTO, read_value<uint8_t, isp_camera_get_aec>, write_switch<isp_camera_set_aec>},
        {"mec", "P1 P2 P3 P4 P5 P6, set only (manual exposure, low 16 bits each)", 6, UINT32_MAX, true, 0, nullptr,
         write_mec},
        {"abnormal", "read only (14 bytes of abnormal information, in hex)", 0, 0, false, 0, read_abnormal, nullptr},
    };
    return table;
}

const Control *find_control(const std::string &name)
{
    for (const Control &control : controls())
        if (name == control.name)
            return &control;
    return nullptr;
}

std::vector<std::string> control_names()
{
    std::vector<std::string> names;
    for (const Control &control : controls())
        names.emplace_back(control.name);
    return names;
}

bool parse_control_value(const std::string &text, uint32_t *value)
{
    if (text == "on") {
        *value = 1;
        return true;
    }
    if (text == "off") {
        *value = 0;
        return true;
    }
    if (text.empty() || text[0] == '-' || text[0] == '+')
        return false;
    errno = 0;
    char *end = nullptr;
    unsigned long long number = strtoull(text.c_str(), &end, 0);
    if (errno != 0 || *end != '\0' || number > UINT32_MAX)
        return false;
    *value = uint32_t(number);
    return true;
}

} // namespace zcam
