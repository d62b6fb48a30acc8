// camera_controls.cpp - the tuning controls table and the calls behind it.
#include "camera_controls.h"

#include <mutex>

#include "element_support.h"
#include "library_messages.h"
#include "zelisp.h"

namespace gstzelisp {
namespace {

// How the ISP takes a control.
enum class Kind {
    Word,         // a 32-bit word: isp_camera_set_X / get_X
    Switch,       // one byte: set_X / get_X (awb, aec)
    DenoisePair,  // both denoise strengths in one call
    ExposureWord, // a word of the manual exposure record: set only
    WbGains,      // the three manual white-balance gains: set only
};

struct ControlEntry {
    const char *name;
    const char *nick;
    const char *blurb;
    uint32_t minimum;
    uint32_t maximum;
    uint32_t fallback; // the driver's default, shown until the camera is open
    bool boolean;
    Kind kind;
    const char *set_name;
    const char *get_name;
    int (*set)(unsigned long, uint32_t);
    int (*get)(unsigned long, uint32_t *);
    int (*set_byte)(unsigned long, uint8_t);
    int (*get_byte)(unsigned long, uint8_t *);
};

#define WORD_CALLS(name)                                                                                           \
    Kind::Word, "isp_camera_set_" #name, "isp_camera_get_" #name, isp_camera_set_##name, isp_camera_get_##name,   \
        nullptr, nullptr
#define SWITCH_CALLS(name)                                                                                         \
    Kind::Switch, "isp_camera_set_" #name, "isp_camera_get_" #name, nullptr, nullptr, isp_camera_set_##name,      \
        isp_camera_get_##name
#define PAIR_CALLS Kind::DenoisePair, "isp_camera_set_denoise", "isp_camera_get_denoise", nullptr, nullptr, nullptr, nullptr
#define MEC_CALLS Kind::ExposureWord, "isp_camera_set_mec", nullptr, nullptr, nullptr, nullptr, nullptr
#define MWB_CALLS Kind::WbGains, "isp_camera_set_mwb", nullptr, nullptr, nullptr, nullptr, nullptr

const ControlEntry kControls[kControlCount] = {
    {"brightness", "Brightness", "Picture brightness", 0, 255, 128, false, WORD_CALLS(brightness)},
    {"contrast", "Contrast", "Picture contrast", 0, 255, 128, false, WORD_CALLS(contrast)},
    {"saturation", "Saturation", "Colour saturation", 0, 255, 128, false, WORD_CALLS(saturation)},
    {"hue", "Hue", "Hue shift", 0, 255, 128, false, WORD_CALLS(hue)},
    {"gamma", "Gamma", "Gamma word handed to the ISP firmware as it is", 0, G_MAXUINT32, 100, false, WORD_CALLS(gamma)},
    {"sharpness", "Sharpness", "Edge enhancement", 0, 10, 5, false, WORD_CALLS(sharpness)},
    {"denoise-luma", "Luma denoise", "Luma noise reduction strength", 0, 10, 5, false, PAIR_CALLS},
    {"denoise-chroma", "Chroma denoise", "Chroma noise reduction strength", 0, 10, 5, false, PAIR_CALLS},
    {"awb", "Auto white balance", "Automatic white balance on or off (off: wb-gains apply)", 0, 1, 1, true,
     SWITCH_CALLS(awb)},
    {"aec", "Auto exposure mode",
     "The ISP's exposure mode: 0 auto, 1 manual (exposure and gain apply), 2 shutter priority, 3 aperture "
     "priority, 4..255 firmware modes (reads back 1 for any mode other than 0)",
     0, 255, 0, false, SWITCH_CALLS(aec)},
    {"exposure", "Manual exposure time",
     "Exposure time in microseconds while aec is 1 (manual); 0 keeps the automatic exposure's time. Sent as the "
     "first word of the manual exposure record; shows what was last set",
     0, 65535, 0, false, MEC_CALLS},
    {"gain", "Manual gain",
     "Sensor gain in 1/256 while aec is 1 (manual), 256 = unity; 0 keeps unity. Sent as the second word of the "
     "manual exposure record; shows what was last set",
     0, 65535, 0, false, MEC_CALLS},
    {"wb-gains", "White-balance gains",
     "Red, green and blue gains in 1/256 (256 = unity) while awb is off, as an array: wb-gains=\"<300, 256, "
     "200>\"; shows what was last set",
     0, 65535, 256, false, MWB_CALLS},
};

#undef WORD_CALLS
#undef SWITCH_CALLS
#undef PAIR_CALLS
#undef MEC_CALLS
#undef MWB_CALLS

// Sends one control, the others it travels with taken from `values`;
// returns the library's result and names the call.
int send_control(unsigned long handle, int control, const ControlValues &values, const char **call)
{
    const ControlEntry &entry = kControls[control];
    *call = entry.set_name;
    const uint32_t value = values.value[control];
    switch (entry.kind) {
    case Kind::Word:
        return entry.set(handle, value);
    case Kind::Switch:
        return entry.set_byte(handle, uint8_t(value));
    case Kind::DenoisePair: {
        // The ISP takes both strengths in one call: the other one keeps
        // what the driver holds unless it was asked for too.
        uint32_t luma = values.value[kDenoiseLuma], chroma = values.value[kDenoiseChroma];
        const int other = control == kDenoiseLuma ? kDenoiseChroma : kDenoiseLuma;
        if (!values.requested[other]) {
            uint32_t held_luma = 0, held_chroma = 0;
            *call = entry.get_name;
            int result = isp_camera_get_denoise(handle, &held_luma, &held_chroma);
            if (result != ISP_OK)
                return result;
            (other == kDenoiseLuma ? luma : chroma) = other == kDenoiseLuma ? held_luma : held_chroma;
            *call = entry.set_name;
        }
        return isp_camera_set_denoise(handle, luma, chroma);
    }
    case Kind::ExposureWord: {
        zelvideo::_mec_param_t record{};
        record.param[0] = values.value[kExposure];
        record.param[1] = values.value[kGain];
        return isp_camera_set_mec(handle, &record);
    }
    case Kind::WbGains:
        return isp_camera_set_mwb(handle, values.wb_gains[0], values.wb_gains[1], values.wb_gains[2]);
    }
    return ISP_ERR_INVALID;
}

// Reads one control from the driver into `values`; the set-only ones keep
// what was sent.
int read_control(unsigned long handle, int control, ControlValues *values, const char **call)
{
    const ControlEntry &entry = kControls[control];
    *call = entry.get_name;
    int result = ISP_OK;
    switch (entry.kind) {
    case Kind::Word:
        return entry.get(handle, &values->value[control]);
    case Kind::Switch: {
        uint8_t byte = 0;
        if ((result = entry.get_byte(handle, &byte)) == ISP_OK)
            values->value[control] = byte;
        return result;
    }
    case Kind::DenoisePair:
        return isp_camera_get_denoise(handle, &values->value[kDenoiseLuma], &values->value[kDenoiseChroma]);
    case Kind::ExposureWord:
    case Kind::WbGains:
        return ISP_OK;
    }
    return ISP_ERR_INVALID;
}

void store_value(int control, const GValue *value, ControlValues *values)
{
    const ControlEntry &entry = kControls[control];
    if (entry.kind == Kind::WbGains) {
        for (guint i = 0; i < 3 && i < gst_value_array_get_size(value); ++i)
            values->wb_gains[i] = g_value_get_uint(gst_value_array_get_value(value, i));
    } else {
        values->value[control] = entry.boolean ? (g_value_get_boolean(value) ? 1u : 0u) : g_value_get_uint(value);
    }
}

void load_value(int control, const ControlValues &values, GValue *value)
{
    const ControlEntry &entry = kControls[control];
    if (entry.kind == Kind::WbGains) {
        for (uint32_t gain : values.wb_gains) {
            GValue element = G_VALUE_INIT;
            g_value_init(&element, G_TYPE_UINT);
            g_value_set_uint(&element, gain);
            gst_value_array_append_and_take_value(value, &element);
        }
    } else if (entry.boolean) {
        g_value_set_boolean(value, values.value[control] != 0);
    } else {
        g_value_set_uint(value, values.value[control]);
    }
}

} // namespace

ControlValues::ControlValues()
{
    for (int i = 0; i < kControlCount; ++i)
        value[i] = kControls[i].fallback;
    for (uint32_t &gain : wb_gains)
        gain = kControls[kWbGains].fallback;
}

void install_control_properties(GObjectClass *klass, guint first_id)
{
    const GParamFlags flags = GParamFlags(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_PLAYING |
                                          GST_PARAM_CONTROLLABLE);
    for (int i = 0; i < kControlCount; ++i) {
        const ControlEntry &entry = kControls[i];
        GParamSpec *pspec;
        if (entry.kind == Kind::WbGains)
            pspec = gst_param_spec_array(entry.name, entry.nick, entry.blurb,
                                         g_param_spec_uint("gain", "Gain", "One gain", entry.minimum, entry.maximum,
                                                           entry.fallback, G_PARAM_READWRITE),
                                         flags);
        else if (entry.boolean)
            pspec = g_param_spec_boolean(entry.name, entry.nick, entry.blurb, entry.fallback != 0, flags);
        else
            pspec = g_param_spec_uint(entry.name, entry.nick, entry.blurb, entry.minimum, entry.maximum,
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

const char *control_name(int control) { return kControls[control].name; }

// ---- The tuning of one camera ----

std::vector<std::string> CameraTuning::send_requested(unsigned long handle)
{
    GST_OBJECT_LOCK(owner_);
    ControlValues values = values_;
    GST_OBJECT_UNLOCK(owner_);
    std::vector<std::string> refusals;
    for (int control = 0; control < kControlCount; ++control) {
        // The two exposure words travel together: one request for both.
        if (!values.requested[control] || (control == kGain && values.requested[kExposure]) ||
            (control == kDenoiseChroma && values.requested[kDenoiseLuma]))
            continue;
        const char *call = "";
        int result = send_control(handle, control, values, &call);
        if (result != ISP_OK)
            refusals.push_back(std::string(control_name(control)) + ": " + library_error_text(call, result));
    }
    return refusals;
}

void CameraTuning::attach(Stream *stream, unsigned long handle)
{
    stream->ref();
    GST_OBJECT_LOCK(owner_);
    Stream *old = stream_;
    stream_ = stream;
    handle_ = handle;
    GST_OBJECT_UNLOCK(owner_);
    if (old)
        old->unref();
}

void CameraTuning::detach()
{
    GST_OBJECT_LOCK(owner_);
    Stream *old = stream_;
    stream_ = nullptr;
    handle_ = 0;
    GST_OBJECT_UNLOCK(owner_);
    if (old)
        old->unref();
}

bool CameraTuning::set(int control, const GValue *value, std::string *refusal)
{
    if (kControls[control].kind == Kind::WbGains && gst_value_array_get_size(value) != 3) {
        *refusal = "wb-gains takes three gains (red, green, blue), got " +
                   std::to_string(gst_value_array_get_size(value));
        return false;
    }
    GST_OBJECT_LOCK(owner_);
    ControlValues candidate = values_;
    Stream *stream = stream_;
    if (stream)
        stream->ref();
    unsigned long handle = handle_;
    GST_OBJECT_UNLOCK(owner_);
    store_value(control, value, &candidate);
    LibraryCalls calls(owner_, false); // a refusal is the property's warning
    if (stream) {
        const char *call = "";
        int result;
        {
            std::lock_guard<std::mutex> guard(stream->library_lock());
            result = send_control(handle, control, candidate, &call);
        }
        stream->unref();
        if (result != ISP_OK) {
            *refusal = library_error_text(call, result);
            return false;
        }
    }
    GST_OBJECT_LOCK(owner_);
    store_value(control, value, &values_);
    values_.requested[control] = true;
    GST_OBJECT_UNLOCK(owner_);
    return true;
}

void CameraTuning::get(int control, GValue *value)
{
    GST_OBJECT_LOCK(owner_);
    ControlValues values = values_;
    Stream *stream = stream_;
    if (stream)
        stream->ref();
    unsigned long handle = handle_;
    GST_OBJECT_UNLOCK(owner_);
    LibraryCalls calls(owner_, false);
    if (stream) {
        // What the driver holds, not what was asked for.
        const char *call = "";
        int result;
        {
            std::lock_guard<std::mutex> guard(stream->library_lock());
            result = read_control(handle, control, &values, &call);
        }
        stream->unref();
        if (result != ISP_OK)
            GST_WARNING_OBJECT(owner_, "%s", library_error_text(call, result).c_str());
    }
    load_value(control, values, value);
}

} // namespace gstzelisp
