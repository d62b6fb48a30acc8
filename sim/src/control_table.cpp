// control_table.cpp - the simulated ISP camera driver's control table.
#include "control_table.h"

#include <linux/videodev2.h>

#include <cinttypes>
#include <cstdio>

namespace zsim::detail {

namespace {

// The published names of V4L2_CID_EXPOSURE_AUTO's first four items. The ISP
// driver hands any byte to the firmware, which has unnamed modes above 3, so
// the menu's range is a whole byte and QUERYMENU skips the unnamed items.
const char *const kExposureModes[] = {"Auto Mode", "Manual Mode", "Shutter Priority Mode",
                                      "Aperture Priority Mode"};

constexpr uint32_t kClassFlags = V4L2_CTRL_FLAG_READ_ONLY | V4L2_CTRL_FLAG_WRITE_ONLY;

} // namespace

// Sorted by id: V4L2_CTRL_FLAG_NEXT_CTRL walks it in this order.
const ControlDef kControls[kControlCount] = {
    {V4L2_CID_USER_CLASS, "User Controls", V4L2_CTRL_TYPE_CTRL_CLASS, 0, 0, 0, 0, kClassFlags, 1, nullptr, 0},
    {V4L2_CID_BRIGHTNESS, "Brightness", V4L2_CTRL_TYPE_INTEGER, 0, 255, 1, 128, V4L2_CTRL_FLAG_SLIDER, 1,
     nullptr, 0},
    {V4L2_CID_CONTRAST, "Contrast", V4L2_CTRL_TYPE_INTEGER, 0, 255, 1, 128, V4L2_CTRL_FLAG_SLIDER, 1, nullptr,
     0},
    {V4L2_CID_SATURATION, "Saturation", V4L2_CTRL_TYPE_INTEGER, 0, 255, 1, 128, V4L2_CTRL_FLAG_SLIDER, 1,
     nullptr, 0},
    {V4L2_CID_HUE, "Hue", V4L2_CTRL_TYPE_INTEGER, 0, 255, 1, 128, V4L2_CTRL_FLAG_SLIDER, 1, nullptr, 0},
    {V4L2_CID_AUTO_WHITE_BALANCE, "White Balance, Automatic", V4L2_CTRL_TYPE_BOOLEAN, 0, 1, 1, 1, 0, 1,
     nullptr, 0},
    // The driver hands the gamma word to the ISP firmware as it is, so every
    // 32-bit value is accepted; 100 is the neutral curve.
    {V4L2_CID_GAMMA, "Gamma", V4L2_CTRL_TYPE_INTEGER, INT32_MIN, INT32_MAX, 1, 100, 0, 1, nullptr, 0},
    {V4L2_CID_SHARPNESS, "Sharpness", V4L2_CTRL_TYPE_INTEGER, 0, 10, 1, 5, V4L2_CTRL_FLAG_SLIDER, 1, nullptr,
     0},
    {kCidManualWhiteBalance, "Manual White Balance", V4L2_CTRL_TYPE_U8, 0, 255, 1, 0,
     V4L2_CTRL_FLAG_HAS_PAYLOAD, kManualPayloadSize, nullptr, 0},
    {kCidManualExposure, "Manual Exposure", V4L2_CTRL_TYPE_U8, 0, 255, 1, 0, V4L2_CTRL_FLAG_HAS_PAYLOAD,
     kManualPayloadSize, nullptr, 0},
    {kCidLumaDenoise, "Luma Denoise", V4L2_CTRL_TYPE_INTEGER, 0, 10, 1, 5, V4L2_CTRL_FLAG_SLIDER, 1, nullptr,
     0},
    {kCidChromaDenoise, "Chroma Denoise", V4L2_CTRL_TYPE_INTEGER, 0, 10, 1, 5, V4L2_CTRL_FLAG_SLIDER, 1,
     nullptr, 0},
    {V4L2_CID_CAMERA_CLASS, "Camera Controls", V4L2_CTRL_TYPE_CTRL_CLASS, 0, 0, 0, 0, kClassFlags, 1, nullptr,
     0},
    {V4L2_CID_EXPOSURE_AUTO, "Auto Exposure", V4L2_CTRL_TYPE_MENU, 0, 255, 1, V4L2_EXPOSURE_AUTO, 0, 1,
     kExposureModes, 4},
};

const ControlDef *find_control(uint32_t id, size_t *slot)
{
    // Old clients reach the driver's private integer controls of the user
    // class as V4L2_CID_PRIVATE_BASE + n, as the kernel's control framework
    // maps them.
    if (id >= V4L2_CID_PRIVATE_BASE) {
        uint32_t wanted = id - V4L2_CID_PRIVATE_BASE;
        for (size_t i = 0; i < kControlCount; ++i) {
            const ControlDef &control = kControls[i];
            if (control_class_of(control.id) != V4L2_CTRL_CLASS_USER || (control.id & 0xffff) < 0x1000 ||
                !has_int_value(control))
                continue;
            if (wanted-- == 0) {
                if (slot)
                    *slot = i;
                return &control;
            }
        }
        return nullptr;
    }
    for (size_t i = 0; i < kControlCount; ++i) {
        if (kControls[i].id == id) {
            if (slot)
                *slot = i;
            return &kControls[i];
        }
    }
    return nullptr;
}

bool has_payload(const ControlDef &control) { return control.flags & V4L2_CTRL_FLAG_HAS_PAYLOAD; }

bool is_class_control(const ControlDef &control) { return control.type == V4L2_CTRL_TYPE_CTRL_CLASS; }

bool has_int_value(const ControlDef &control) { return !has_payload(control) && !is_class_control(control); }

std::string hex_id(uint32_t id)
{
    char text[16];
    snprintf(text, sizeof text, "0x%08" PRIx32, id);
    return text;
}

std::string hex_bytes(const uint8_t *bytes, size_t size)
{
    static const char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(size * 2);
    for (size_t i = 0; i < size; ++i) {
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 15];
    }
    return text;
}

} // namespace zsim::detail
