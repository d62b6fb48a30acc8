/*
 * manual_controls.cpp - manual white balance and manual exposure. The ISP
 * takes both through one 36-byte payload on its private ids; each request
 * fills only its own fields, every other byte goes out as zero.
 */
#include <linux/videodev2.h>

#include <cstdint>

#include "camera/isp_video.h"
#include "controls/camera_controls.h"
#include "controls/control_request.h"
#include "driver/isp_requests.h"

namespace zelisp {

namespace {

constexpr ControlText kWhiteBalanceText = {" Set white balance manually failed", "SetMWB"};
constexpr ControlText kExposureText = {" Set exposure manually failed", "SetMEC"};

// The driver expects the gain triple repeated over its nine gain slots.
ManualCtrlPayload WhiteBalancePayload(uint32_t gain1, uint32_t gain2, uint32_t gain3)
{
    ManualCtrlPayload payload{};
    payload.wb_flag = 1;
    const uint32_t gains[3] = {gain1, gain2, gain3};
    for (int slot = 0; slot < 9; ++slot)
        payload.wb_gain[slot] = static_cast<uint16_t>(gains[slot % 3]);
    return payload;
}

ManualCtrlPayload ExposurePayload(const zelvideo::_mec_param_t &param)
{
    ManualCtrlPayload payload{};
    for (int word = 0; word < 6; ++word)
        payload.exposure[word] = static_cast<uint16_t>(param.param[word]);
    return payload;
}

int SendManual(const IspVideo &camera, uint32_t id, ManualCtrlPayload payload, const ControlText &text)
{
    ExtControlRequest request(id, &payload, sizeof(payload));
    return ControlRequest(camera, VIDIOC_S_EXT_CTRLS, request.record(), text);
}

} // namespace

int SetMWB(const IspVideo &camera, uint32_t gain1, uint32_t gain2, uint32_t gain3)
{
    return SendManual(camera, ISP_CID_MWB, WhiteBalancePayload(gain1, gain2, gain3), kWhiteBalanceText);
}

int SetMEC(const IspVideo &camera, const zelvideo::_mec_param_t &param)
{
    return SendManual(camera, ISP_CID_MEC, ExposurePayload(param), kExposureText);
}

} // namespace zelisp
