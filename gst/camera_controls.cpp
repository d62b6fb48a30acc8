// camera_controls.cpp - the tuning controls table and the calls behind it.
#include "camera_controls.h"

#include "zelisp.h"

namespace gstzelisp {
namespace {

struct ControlEntry {
    const char *name;
    const char *nick;
    const char *blurb;
    uint32_t minimum;
    uint32_t maximum;
    uint32_t fallback; // the driver's default, shown until the camera is open
    bool boolean;
    // The library's calls: a 32-bit word or an 8-bit switch; neither for
    // the denoise strengths, which the ISP takes as a pair (below).
    const char *set_name;
    const char *get_name;
    int (*set)(unsigned long, uint32_t);
    int (*get)(unsigned long, uint32_t *);
    int (*set_byte)(unsigned long, uint8_t);
    int (*get_byte)(unsigned long, uint8_t *);
};

#define WORD_CALLS(name)                                                                                           \
    "isp_camera_set_" #name, "isp_camera_get_" #name, isp_camera_set_##name, isp_camera_get_##name, nullptr, nullptr
#define BYTE_CALLS(name)                                                                                           \
    "isp_camera_set_" #name, "isp_camera_get_" #name, nullptr, nullptr, isp_camera_set_##name, isp_camera_get_##name
#define PAIR_CALLS "isp_camera_set_denoise", "isp_camera_get_denoise", nullptr, nullptr, nullptr, nullptr

const ControlEntry kControls[kControlCount] = {
    {"brightness", "Brightness", "Picture brightness", 0, 255, 128, false, WORD_CALLS(brightness)},
    {"contrast", "Contrast", "Picture contrast", 0, 255, 128, false, WORD_CALLS(contrast)},
    {"saturation", "Saturation", "Colour saturation", 0, 255, 128, false, WORD_CALLS(saturation)},
    {"hue", "Hue", "Hue shift", 0, 255, 128, false, WORD_CALLS(hue)},
    {"gamma", "Gamma", "Gamma word handed to the ISP firmware as it is", 0, G_MAXUINT32, 100, false, WORD_CALLS(gamma)},
    {"sharpness", "Sharpness", "Edge enhancement", 0, 10, 5, false, WORD_CALLS(sharpness)},
    {"denoise-luma", "Luma denoise", "Luma noise reduction strength", 0, 10, 5, false, PAIR_CALLS},
    {"denoise-chroma", "Chroma denoise", "Chroma noise reduction strength", 0, 10, 5, false, PAIR_CALLS},
    {"awb", "Auto white balance", "Automatic white balance on or off", 0, 1, 1, true, BYTE_CALLS(awb)},
    {"aec", "Auto exposure mode",
     "The ISP's exposure mode: 0 auto, 1 manual, 2 shutter priority, 3 aperture priority, 4..255 firmware "
     "modes (reads back 1 for any mode other than 0)",
     0, 255, 0, false, BYTE_CALLS(aec)},
};

#undef WORD_CALLS
#undef BYTE_CALLS
#undef PAIR_CALLS

} // namespace

ControlValues::ControlValues()
{
    for (int i = 0; i < kControlCount; ++i)
        value[i] = kControls[i].fallback;
}

void install_control_properties(GObjectClass *klass, guint first_id)
{
    const GParamFlags flags = GParamFlags(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_PLAYING);
    for (int i = 0; i < kControlCount; ++i) {
        const ControlEntry &entry = kControls[i];
        GParamSpec *pspec =
            entry.boolean
                ? g_param_spec_boolean(entry.name, entry.nick, entry.blurb, entry.fallback != 0, flags)
                : g_param_spec_uint(entry.name, entry.nick, entry.blurb, entry.minimum, entry.maximum,
                                    entry.fallback, flags);
        g_object_class_install_property(klass, first_id + guint(i), pspec);
    }
}

int control_of_property(guint property_id, guint first_id)
{
    if (property_id < first_id || property_id >= first_id + kControlCount)
        return -1;
    return int(property_id - first_id);
}

uint32_t control_from_value(int control, const GValue *value)
{
    return kControls[control].boolean ? (g_value_get_boolean(value) ? 1u : 0u) : g_value_get_uint(value);
}

void control_to_value(int control, uint32_t number, GValue *value)
{
    if (kControls[control].boolean)
        g_value_set_boolean(value, number != 0);
    else
        g_value_set_uint(value, number);
}

int send_control(unsigned long handle, int control, uint32_t value, const char **call)
{
    if (control < 0 || control >= kControlCount) {
        *call = "controls";
        return ISP_ERR_INVALID;
    }
    const ControlEntry &entry = kControls[control];
    *call = entry.set_name;
    if (entry.set)
        return entry.set(handle, value);
    if (entry.set_byte)
        return entry.set_byte(handle, uint8_t(value));
    // The ISP takes both denoise strengths in one call: keep the other one.
    uint32_t luma = 0, chroma = 0;
    *call = entry.get_name;
    int result = isp_camera_get_denoise(handle, &luma, &chroma);
    if (result != 0)
        return result;
    (control == kDenoiseLuma ? luma : chroma) = value;
    *call = entry.set_name;
    return isp_camera_set_denoise(handle, luma, chroma);
}

int read_control(unsigned long handle, int control, uint32_t *value, const char **call)
{
    if (control < 0 || control >= kControlCount) {
        *call = "controls";
        return ISP_ERR_INVALID;
    }
    const ControlEntry &entry = kControls[control];
    *call = entry.get_name;
    if (entry.get)
        return entry.get(handle, value);
    int result;
    if (entry.get_byte) {
        uint8_t byte = 0;
        if ((result = entry.get_byte(handle, &byte)) == 0)
            *value = byte;
        return result;
    }
    uint32_t luma = 0, chroma = 0;
    if ((result = isp_camera_get_denoise(handle, &luma, &chroma)) == 0)
        *value = control == kDenoiseLuma ? luma : chroma;
    return result;
}

} // namespace gstzelisp
