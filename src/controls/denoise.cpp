/*
 * denoise.cpp - luma (Y) and chroma (UV) denoise strength. The ISP keeps
 * them as two private controls reached one extended-control request each;
 * the pair is set and read in order, luma first, and a failure stops there
 * with what already went through left in force.
 */
#include <linux/videodev2.h>

#include <cstdint>

#include "camera/isp_video.h"
#include "controls/camera_controls.h"
#include "controls/control_request.h"
#include "driver/isp_requests.h"

namespace zelisp {

namespace {

struct DenoiseChannel {
    uint32_t id;
    ControlText set;
    ControlText get;
};

constexpr DenoiseChannel kLuma = {ISP_CID_YDNS, {" SetYDNS failed", "SetYDNS"}, {" GetYDNS failed", "GetYDNS"}};
constexpr DenoiseChannel kChroma = {ISP_CID_UVDNS, {" SetUVDNS failed", "SetUVDNS"}, {" GetUVDNS failed", "GetUVDNS"}};

int SetChannel(const IspVideo &camera, const DenoiseChannel &channel, uint32_t strength)
{
    ExtControlRequest request(channel.id, static_cast<int32_t>(strength));
    return ControlRequest(camera, VIDIOC_S_EXT_CTRLS, request.record(), channel.set);
}

int GetChannel(const IspVideo &camera, const DenoiseChannel &channel, uint32_t *strength)
{
    ExtControlRequest request(channel.id, 0);
    const int result = ControlRequest(camera, VIDIOC_G_EXT_CTRLS, request.record(), channel.get);
    if (result == ISP_OK)
        *strength = static_cast<uint32_t>(request.value());
    return result;
}

} // namespace

int SetDenoise(const IspVideo &camera, uint32_t luma, uint32_t chroma)
{
    const int result = SetChannel(camera, kLuma, luma);
    return result != ISP_OK ? result : SetChannel(camera, kChroma, chroma);
}

int GetDenoise(const IspVideo &camera, uint32_t *luma, uint32_t *chroma)
{
    const int result = GetChannel(camera, kLuma, luma);
    return result != ISP_OK ? result : GetChannel(camera, kChroma, chroma);
}

} // namespace zelisp
