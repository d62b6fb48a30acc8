/*
 * isp_controls.h - the ISP camera driver's private control ids and request
 * for denoise, manual white balance, manual exposure and the abnormal
 * information block, and the payload its manual controls share.
 */
#ifndef ZELISP_CONTROLS_ISP_CONTROLS_H
#define ZELISP_CONTROLS_ISP_CONTROLS_H

#include <linux/videodev2.h>

#include <cstddef>
#include <cstdint>

namespace zelisp {

// Private ids in the user class, next to the standard ones.
constexpr uint32_t ISP_CID_MWB = 0x00981991;
constexpr uint32_t ISP_CID_MEC = 0x00981992;
constexpr uint32_t ISP_CID_YDNS = 0x00981993;
constexpr uint32_t ISP_CID_UVDNS = 0x00981994;

// The driver fills a 14-byte record the library hands through untouched.
constexpr uint32_t kAbnormalInfoSize = 14;
constexpr unsigned long VIDIOC_ISP_GET_ABNORMAL_INFO = _IOR('V', BASE_VIDIOC_PRIVATE + 12, uint8_t[kAbnormalInfoSize]);
static_assert(VIDIOC_ISP_GET_ABNORMAL_INFO == 0x800E56CC, "the driver's request number");

// Payload of ISP_CID_MWB and ISP_CID_MEC. The driver takes both from one
// record; each request fills only its own fields and leaves the rest zero.
struct ManualCtrlPayload {
    uint32_t wb_flag;     // 1: the white-balance gains below apply
    uint16_t exposure[6];
    uint16_t wb_gain[9];  // the gain triple, three times over
    uint8_t reserved[2];
};
static_assert(sizeof(ManualCtrlPayload) == 36, "the driver reads 36 bytes");
static_assert(offsetof(ManualCtrlPayload, exposure) == 4, "ManualCtrlPayload layout");
static_assert(offsetof(ManualCtrlPayload, wb_gain) == 16, "ManualCtrlPayload layout");
static_assert(offsetof(ManualCtrlPayload, reserved) == 34, "ManualCtrlPayload layout");

} // namespace zelisp

#endif
