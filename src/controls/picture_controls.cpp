/*
 * picture_controls.cpp - brightness, contrast, saturation, hue, gamma and
 * sharpness. The ISP exposes them as standard user-class controls that differ
 * only in id, range and wording, so they are one table and one pair of
 * operations; the twelve exported functions (controls_api.cpp) are fronts
 * onto it.
 */
#include <linux/videodev2.h>

#include <cstdint>

#include "camera/isp_video.h"
#include "controls/camera_controls.h"
#include "controls/control_request.h"

namespace zelisp {

namespace {

struct PictureControl {
    uint32_t id;
    uint32_t maximum; // the ISP's ceiling; gamma takes any 32-bit value
    ControlText set;
    ControlText get;
};

// Indexed by Picture.
constexpr PictureControl kPictureControls[] = {
    {V4L2_CID_BRIGHTNESS, 255, {" SetBrightness failed", "SetBrightness"}, {" GetBrightness failed", "GetBrightness"}},
    {V4L2_CID_CONTRAST, 255, {" SetContrast failed", "SetContrast"}, {" GetContrast failed", "GetContrast"}},
    {V4L2_CID_SATURATION, 255, {" SetSaturation failed", "SetSaturation"}, {" GetSaturation failed", "GetSaturation"}},
    {V4L2_CID_HUE, 255, {" SetHue failed", "SetHue"}, {" GetHue failed", "GetHue"}},
    {V4L2_CID_GAMMA, UINT32_MAX, {" Set gamma failed", "SetGamma"}, {" Get gamma failed", "GetGamma"}},
    {V4L2_CID_SHARPNESS, 10, {" SetSharpness failed", "SetSharpness"}, {" GetSharpness failed", "GetSharpness"}},
};

const PictureControl &Entry(Picture control) { return kPictureControls[static_cast<int>(control)]; }

} // namespace

uint32_t PictureMaximum(Picture control) { return Entry(control).maximum; }

int SetPicture(const IspVideo &camera, Picture control, uint32_t value)
{
    return SetControl(camera, Entry(control).id, value, Entry(control).set);
}

int GetPicture(const IspVideo &camera, Picture control, uint32_t *value)
{
    return GetControl(camera, Entry(control).id, value, Entry(control).get);
}

} // namespace zelisp
