/*
 * misc_node.h - the operations on the ISP platform driver's control node
 * /dev/isp_misc shared by camera discovery, the sensor-bus and trigger
 * requests, and camera groups (which keep the node open). The node's
 * request numbers and records are the driver's (driver/isp_requests.h).
 */
#ifndef ZELISP_PLATFORM_MISC_NODE_H
#define ZELISP_PLATFORM_MISC_NODE_H

#include <cstdint>

#include "driver/driver_request.h"
#include "driver/isp_requests.h"
#include "zelisp.h"

namespace zelisp {

static_assert(sizeof(CameraInfoRecord) == sizeof(zelvideo::_camera_info_t),
              "the public camera record is the driver's, handed through");

// Reads the valid-camera table: stores the count (held to the table's 12
// slots), copies that many records to destination when it is not null.
// 0, -9 or -11.
int isp_get_all_valid_camera_info(zelvideo::_camera_info_t *destination, uint32_t *count);
// The same, with the count stored even when the caller asked for more
// records than there are (then -15 and "invailed camera_num! ").
int GetValidCameraInfo(zelvideo::_camera_info_t *info, uint32_t camera_num, uint32_t *count);

// Owners of a sensor's I2C bus.
constexpr uint32_t kBusIsp = 0;
constexpr uint32_t kBusArm = 1;
// Trigger modes; the ranges of their parameters are the public ISP_TRIGGER_*
// and ISP_EXTERNAL_PARAM3_MAX limits.
constexpr uint32_t kInternalMode = 0;
constexpr uint32_t kExternalMode = 1;

// Gives a camera slot's sensor bus to the ISP (0) or the ARM side (1).
// 0, -9 (node or request failed).
int SetI2cCtrl(uint32_t camera_index, uint32_t i2c_bus_ctrler);

MipiTriggerRecord InternalTriggerRecord(uint32_t param1, uint32_t param2, uint32_t internal_param3);
MipiTriggerRecord ExternalTriggerRecord(uint32_t param1, uint32_t param2, uint32_t external_param3);
// Sends a trigger record on an open /dev/isp_misc descriptor and prints the
// failure line of its mode; the result is not reported (a refused trigger
// does not fail the call).
void SendTriggerRecord(int misc_fd, const MipiTriggerRecord &record, Retry retry);
// The same on a descriptor of its own for this call: 0, or -9 when the node
// cannot be opened.
int SetTrigger(const MipiTriggerRecord &record, Retry retry);

} // namespace zelisp

#endif
