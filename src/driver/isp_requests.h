/*
 * isp_requests.h - the ISP drivers' own requests: the camera driver's
 * private requests and control ids, the platform driver's /dev/isp_misc
 * requests, and the kernel records each of them carries.
 *
 * These are the numbers and layouts the board's drivers were built with.
 * The library, the simulated drivers, the tests, the benchmarks and the
 * tools all take them from here, so that a number typed twice can never
 * disagree with itself. The header needs nothing but <cstdint>.
 */
#ifndef ZELISP_DRIVER_ISP_REQUESTS_H
#define ZELISP_DRIVER_ISP_REQUESTS_H

#include <cstddef>
#include <cstdint>

namespace zelisp {

// ---- The camera driver (/dev/video<n>) -------------------------------------

// Private control ids in the user class (V4L2_CID_USER_BASE | 0x1991..), set
// and read with the extended-control requests.
constexpr uint32_t ISP_CID_MWB = 0x00981991;   // manual white balance, 36-byte payload
constexpr uint32_t ISP_CID_MEC = 0x00981992;   // manual exposure, 36-byte payload
constexpr uint32_t ISP_CID_YDNS = 0x00981993;  // luma denoise strength, 0..10
constexpr uint32_t ISP_CID_UVDNS = 0x00981994; // chroma denoise strength, 0..10

// _IOW('V', BASE_VIDIOC_PRIVATE + 15, 22 bytes): the crop / scale / crop
// resize, applied before the buffers are requested.
constexpr unsigned long VIDIOC_ISP_SET_RESIZE = 0x401656CF;
// _IOR('V', BASE_VIDIOC_PRIVATE + 12, 14 bytes): the abnormal-information
// block, which the driver writes into the caller's 14 bytes.
constexpr unsigned long VIDIOC_ISP_GET_ABNORMAL_INFO = 0x800E56CC;
constexpr size_t kAbnormalInfoSize = 14;

// The resize record: each crop as begin and end edges, vertical pair first.
struct IspResizeRegs {
    uint16_t crop_before_top;
    uint16_t crop_before_bottom;
    uint16_t crop_before_left;
    uint16_t crop_before_right;
    uint16_t crop_after_top;
    uint16_t crop_after_bottom;
    uint16_t crop_after_left;
    uint16_t crop_after_right;
    uint16_t scaled_width;
    uint16_t scaled_height;
    uint16_t reserved;
};
static_assert(sizeof(IspResizeRegs) == 22, "the driver reads 22 bytes");

// Payload of ISP_CID_MWB and ISP_CID_MEC. The driver takes both from one
// record; each request fills only its own fields and leaves the rest zero.
struct ManualCtrlPayload {
    uint32_t wb_flag; // 1: the white-balance gains below apply
    uint16_t exposure[6];
    uint16_t wb_gain[9]; // the gain triple, three times over
    uint8_t reserved[2];
};
static_assert(sizeof(ManualCtrlPayload) == 36, "the driver reads 36 bytes");
static_assert(offsetof(ManualCtrlPayload, exposure) == 4, "ManualCtrlPayload layout");
static_assert(offsetof(ManualCtrlPayload, wb_gain) == 16, "ManualCtrlPayload layout");
static_assert(offsetof(ManualCtrlPayload, reserved) == 34, "ManualCtrlPayload layout");

// ---- The platform driver (/dev/isp_misc) ----------------------------------

constexpr char kMiscNodePath[] = "/dev/isp_misc";
constexpr int kValidCameraSlots = 12;

// The platform driver encodes 4 bytes in these numbers but reads and writes
// whole records (488, 8 and 20 bytes).
constexpr unsigned long GET_VAILED_CAMERA_INFO = 0x80047941;    // _IOR('y', 0x41, 4)
constexpr unsigned long IOC_SET_I2C_CTRL = 0x40047944;          // _IOW('y', 0x44, 4)
constexpr unsigned long IOC_SET_MIPI_TRIGGER_MODE = 0x80047943; // _IOR('y', 0x43, 4)

// One detected sensor: the camera number at bytes 32..35, the driver's own
// data around it (the library hands it through as _camera_info_t).
struct CameraInfoRecord {
    uint8_t driver_data[32];
    int32_t camera_index;
    uint8_t driver_data_tail[4];
};
static_assert(sizeof(CameraInfoRecord) == 40, "the driver's camera record is 40 bytes");
static_assert(offsetof(CameraInfoRecord, camera_index) == 32, "CameraInfoRecord layout");

struct CameraInfoTable {
    CameraInfoRecord cameras[kValidCameraSlots];
    uint32_t count; // may exceed the 12 slots on a confused driver
    uint8_t reserved[4];
};
static_assert(sizeof(CameraInfoTable) == 488, "the driver fills 488 bytes");
static_assert(offsetof(CameraInfoTable, count) == 480, "CameraInfoTable layout");

// Sensor I2C bus owner of one camera slot: 0 the ISP, 1 the ARM side.
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

} // namespace zelisp

#endif
