/*
 * misc_node.h - the ISP platform driver's control node /dev/isp_misc: its
 * request numbers and records, shared by camera discovery, the sensor-bus
 * and trigger requests, and camera groups (which keep the node open).
 */
#ifndef ZELISP_PLATFORM_MISC_NODE_H
#define ZELISP_PLATFORM_MISC_NODE_H

#include <cstdint>

#include "zelisp.h"

namespace zelisp {

constexpr char kMiscNodePath[] = "/dev/isp_misc";
constexpr int kValidCameraSlots = 12;

// The platform driver encodes 4 bytes in these numbers but reads and writes
// whole records (488, 8 and 20 bytes).
constexpr unsigned long GET_VAILED_CAMERA_INFO = 0x80047941;    // _IOR('y', 0x41, 4)
constexpr unsigned long IOC_SET_I2C_CTRL = 0x40047944;          // _IOW('y', 0x44, 4)
constexpr unsigned long IOC_SET_MIPI_TRIGGER_MODE = 0x80047943; // _IOR('y', 0x43, 4)

struct CameraInfoTable {
    zelvideo::_camera_info_t cameras[kValidCameraSlots];
    uint32_t count;
    uint8_t reserved[4];
};
static_assert(sizeof(CameraInfoTable) == 488, "the driver fills 488 bytes");

struct I2cCtrlRecord {
    uint32_t camera_index;
    uint32_t i2c_bus_ctrler;
};
static_assert(sizeof(I2cCtrlRecord) == 8, "the driver reads 8 bytes");

struct MipiTriggerRecord {
    uint32_t trigger_mode; // 0 internal, 1 external
    uint32_t trigger_param1;
    uint32_t internal_param3;
    uint32_t trigger_param2;
    uint32_t external_param3;
};
static_assert(sizeof(MipiTriggerRecord) == 20, "the driver reads 20 bytes");

// Reads the valid-camera table: stores the count (held to the table's 12
// slots), copies that many records to destination when it is not null.
// 0, -9 or -11.
int isp_get_all_valid_camera_info(zelvideo::_camera_info_t *destination, uint32_t *count);

MipiTriggerRecord InternalTriggerRecord(uint32_t param1, uint32_t param2, uint32_t internal_param3);
MipiTriggerRecord ExternalTriggerRecord(uint32_t param1, uint32_t param2, uint32_t external_param3);
// Sends a trigger record on an open /dev/isp_misc descriptor and prints the
// failure line of its mode; the result is not reported (a refused trigger
// does not fail the call). retry_on_eintr: repeat while interrupted.
void SendTriggerRecord(int misc_fd, const MipiTriggerRecord &record, bool retry_on_eintr);

} // namespace zelisp

#endif
