/*
 * auto_controls.cpp - automatic white balance and automatic exposure. Both
 * are standard controls that the ISP treats as switches: the byte given is
 * sent unchanged (the driver decides what it accepts) and any nonzero value
 * the driver reports reads back as 1.
 */
#include <linux/videodev2.h>

#include <cstdint>

#include "camera/isp_video.h"
#include "controls/camera_controls.h"
#include "controls/control_request.h"

namespace zelisp {

namespace {

struct AutoControl {
    uint32_t id;
    ControlText set;
    ControlText get;
};

constexpr AutoControl kWhiteBalance = {
    V4L2_CID_AUTO_WHITE_BALANCE, {" Set auto white balance failed", "SetAWB"}, {" Get auto white balance failed", "GetAWB"}};
constexpr AutoControl kExposure = {
    V4L2_CID_EXPOSURE_AUTO, {" Set auto exposure failed", "SetAEC"}, {" Get AEC failed", "GetAEC"}};

int SetSwitch(const IspVideo &camera, const AutoControl &control, uint8_t value)
{
    return SetControl(camera, control.id, value, control.set);
}

int GetSwitch(const IspVideo &camera, const AutoControl &control, uint8_t *value)
{
    uint32_t reported = 0;
    const int result = GetControl(camera, control.id, &reported, control.get);
    if (result == ISP_OK)
        *value = reported != 0 ? 1 : 0;
    return result;
}

} // namespace

int SetAWB(const IspVideo &camera, uint8_t value) { return SetSwitch(camera, kWhiteBalance, value); }
int GetAWB(const IspVideo &camera, uint8_t *value) { return GetSwitch(camera, kWhiteBalance, value); }
int SetAEC(const IspVideo &camera, uint8_t value) { return SetSwitch(camera, kExposure, value); }
int GetAEC(const IspVideo &camera, uint8_t *value) { return GetSwitch(camera, kExposure, value); }

} // namespace zelisp
