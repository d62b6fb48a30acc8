/*
 * camera_controls.h - the ISP's tuning controls as properties, in one
 * table: name, range, default and the library calls behind each, and the
 * tuning of one camera that a zelispsrc and each member of a zelispgroupsrc
 * carry.
 *
 * A control set before the camera is open is kept and sent when it opens;
 * once open, a set goes to the driver at once (also while PLAYING) and a
 * read asks the driver, so the property shows what the ISP really holds.
 * Manual exposure and white-balance gains cannot be read back from the
 * driver: they show what was last sent. Every control is controllable
 * (GstController), synchronised with the running time of each frame.
 */
#ifndef GST_ZELISP_CAMERA_CONTROLS_H
#define GST_ZELISP_CAMERA_CONTROLS_H

#include <gst/gst.h>

#include <cstdint>
#include <string>

#include "frame_memory.h"

namespace gstzelisp {

enum Control {
    kBrightness,
    kContrast,
    kSaturation,
    kHue,
    kGamma,
    kSharpness,
    kDenoiseLuma,
    kDenoiseChroma,
    kAwb,
    kAec,
    kExposure,
    kGain,
    kWbGains,
    kControlCount
};

// The values the application asked for, and which it asked for.
struct ControlValues {
    ControlValues();
    uint32_t value[kControlCount];
    uint32_t wb_gains[3];
    bool requested[kControlCount] = {};
};

// Installs one property per control, ids first_id .. first_id+kControlCount-1.
void install_control_properties(GObjectClass *klass, guint first_id);
// The control of a property id, or -1.
int control_of_property(guint property_id, guint first_id);
// The property name of a control ("brightness").
const char *control_name(int control);

// The tuning of one camera. Its values are guarded by the owner's object
// lock, its library calls by the stream's library lock.
class CameraTuning {
public:
    explicit CameraTuning(GstObject *owner) : owner_(owner) {}
    ~CameraTuning() { detach(); }
    CameraTuning(const CameraTuning &) = delete;
    CameraTuning &operator=(const CameraTuning &) = delete;

    // At set-up, the camera just opened (no stream yet, nothing else uses
    // it): sends every value asked for; the texts of refusals, one each.
    std::vector<std::string> send_requested(unsigned long handle);
    // While set up: where sets go at once and reads come from.
    void attach(Stream *stream, unsigned long handle);
    void detach();

    // A property set: false with the reason when the driver refused it (the
    // value stays as it was).
    bool set(int control, const GValue *value, std::string *refusal);
    void get(int control, GValue *value);

private:
    GstObject *owner_;
    ControlValues values_;
    Stream *stream_ = nullptr;
    unsigned long handle_ = 0;
};

} // namespace gstzelisp

#endif
