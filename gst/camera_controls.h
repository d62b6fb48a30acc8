/*
 * camera_controls.h - the ISP's tuning controls as element properties, in
 * one table: name, range, default and the library calls behind each.
 *
 * A control set before the camera is open is kept and sent when the element
 * opens it; once open, a set goes to the driver at once (also while
 * PLAYING) and a read asks the driver, so the property shows what the ISP
 * really holds.
 */
#ifndef GST_ZELISP_CAMERA_CONTROLS_H
#define GST_ZELISP_CAMERA_CONTROLS_H

#include <gst/gst.h>

#include <cstdint>

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
    kControlCount
};

// The values the application asked for, and which it asked for.
struct ControlValues {
    ControlValues();
    uint32_t value[kControlCount];
    bool requested[kControlCount] = {};
};

// Installs one property per control, ids first_id .. first_id+kControlCount-1.
void install_control_properties(GObjectClass *klass, guint first_id);
// The control of a property id, or -1.
int control_of_property(guint property_id, guint first_id);

uint32_t control_from_value(int control, const GValue *value);
void control_to_value(int control, uint32_t number, GValue *value);

// Sends one control; returns the library's result and names the call.
int send_control(unsigned long handle, int control, uint32_t value, const char **call);
// Reads one control from the driver.
int read_control(unsigned long handle, int control, uint32_t *value, const char **call);

} // namespace gstzelisp

#endif
