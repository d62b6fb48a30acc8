/*
 * control_table.h - the controls the simulated ISP camera driver registers
 * for every camera, as one table: id, type, range, default, flags, menu.
 *
 * The query requests (control_query.cpp) and the value requests
 * (controls.cpp) both read this table, so what v4l2-ctl lists is exactly
 * what the driver accepts.
 */
#ifndef ZELISP_SIM_CONTROL_TABLE_H
#define ZELISP_SIM_CONTROL_TABLE_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "driver/isp_requests.h"
#include "sim_internal.h"

namespace zsim::detail {

// The ISP driver's private ids, in the user class.
constexpr uint32_t kCidManualWhiteBalance = zelisp::ISP_CID_MWB;
constexpr uint32_t kCidManualExposure = zelisp::ISP_CID_MEC;
constexpr uint32_t kCidLumaDenoise = zelisp::ISP_CID_YDNS;
constexpr uint32_t kCidChromaDenoise = zelisp::ISP_CID_UVDNS;
// The firmware's manual white-balance / exposure block.
constexpr size_t kManualPayloadSize = 36;
// VIDIOC_ISP_GET_ABNORMAL_INFO: _IOR('V', BASE_VIDIOC_PRIVATE + 12, 14 bytes).
constexpr uint32_t kGetAbnormalInfo = uint32_t(zelisp::VIDIOC_ISP_GET_ABNORMAL_INFO);
constexpr size_t kAbnormalInfoSize = 14;

struct ControlDef {
    uint32_t id;
    const char *name; // at most 31 characters: v4l2_queryctrl's name is 32 bytes
    uint32_t type;    // V4L2_CTRL_TYPE_*
    int64_t minimum;
    int64_t maximum;
    uint64_t step;
    int64_t default_value;
    uint32_t flags;   // V4L2_CTRL_FLAG_*
    uint32_t elems;   // 1, or the payload size of the byte-array controls
    const char *const *menu; // names of menu items 0..menu_count-1
    uint32_t menu_count;
};

constexpr size_t kControlCount = 14;
extern const ControlDef kControls[kControlCount];

// The control with this id, or nullptr; its position in kControls in *slot.
const ControlDef *find_control(uint32_t id, size_t *slot = nullptr);
// Controls that carry a value in v4l2_control / v4l2_ext_control.value.
bool has_int_value(const ControlDef &control);
bool has_payload(const ControlDef &control);
bool is_class_control(const ControlDef &control);
// V4L2_CTRL_ID2WHICH: the class an id belongs to.
constexpr uint32_t control_class_of(uint32_t id) { return id & 0x0fff0000; }

// Handles the query requests (QUERYCTRL, QUERY_EXT_CTRL, QUERYMENU); false
// when `request` is none of them.
bool handle_control_query(uint32_t request, void *arg, int *error, LogNote *note);

std::string hex_id(uint32_t id);
std::string hex_bytes(const uint8_t *bytes, size_t size);

} // namespace zsim::detail

#endif
