// misc_device.cpp - the simulated ISP platform driver behind /dev/isp_misc:
// the valid-camera table, sensor I2C bus ownership and the MIPI trigger
// mode. Its request numbers encode 4 bytes, but the driver reads and writes
// whole records (488, 8 and 20 bytes), as the board's driver does. The bus
// owners and the trigger mode are the board's, the same in every process.
#include <atomic>
#include <cerrno>
#include <cstring>

#include "board_state.h"
#include "driver/isp_requests.h"
#include "sim_internal.h"

namespace zsim::detail {

namespace {

constexpr uint32_t kGetValidCameraInfo = uint32_t(zelisp::GET_VAILED_CAMERA_INFO);
constexpr uint32_t kSetI2cCtrl = uint32_t(zelisp::IOC_SET_I2C_CTRL);
constexpr uint32_t kSetMipiTriggerMode = uint32_t(zelisp::IOC_SET_MIPI_TRIGGER_MODE);

constexpr int kSlots = 12;
constexpr size_t kRecordSize = 40;
constexpr size_t kIndexOffset = 32;
constexpr size_t kTableSize = 488;
constexpr size_t kCountOffset = 480;
constexpr size_t kI2cRecordSize = 8;
constexpr size_t kTriggerRecordSize = 20;

// Trigger parameter ranges the ISP firmware accepts.
constexpr uint32_t kMaxTriggerParam1 = 2;
constexpr uint32_t kMaxTriggerParam2 = 7;
constexpr uint32_t kMaxExternalParam3 = 2;

// The valid count describes this process's configuration; the hardware
// thread reads the board's trigger mode at every frame without a lock.
std::atomic<int> g_valid_count{-1}; // -1: report the present cameras

uint32_t load_u32(const uint8_t *bytes)
{
    uint32_t value;
    memcpy(&value, bytes, sizeof value);
    return value;
}

void store_u32(uint8_t *bytes, uint32_t value) { memcpy(bytes, &value, sizeof value); }

// The record the driver keeps for a detected sensor: the camera number at
// bytes 32..35 and, around it, the driver's own data, here a pattern derived
// from the camera number so that every byte of a copy can be checked.
void fill_record(uint8_t *record, int camera)
{
    for (size_t i = 0; i < kRecordSize; ++i)
        record[i] = uint8_t((0xC0 + i) ^ (camera * 0x15));
    store_u32(record + kIndexOffset, uint32_t(camera));
}

// The present cameras in ascending order, as the core configures them.
int present_cameras(int cameras[kSlots])
{
    int count = 0;
    for (int camera = 0; camera < kSlots; ++camera)
        if (camera_present(camera))
            cameras[count++] = camera;
    return count;
}

int reported_count(int present)
{
    const int count = g_valid_count.load();
    return count < 0 ? present : count;
}

int get_valid_camera_info(uint8_t *table, LogNote *note)
{
    note->raw.assign(table, table + kTableSize);
    note->raw_set = true;
    int cameras[kSlots];
    const int present = present_cameras(cameras);
    const int count = reported_count(present);
    memset(table, 0, kTableSize);
    std::string listed;
    for (int slot = 0; slot < present; ++slot) {
        fill_record(table + slot * kRecordSize, cameras[slot]);
        listed += (slot ? "," : "") + std::to_string(cameras[slot]);
    }
    store_u32(table + kCountOffset, uint32_t(count));
    note->detail = "count=" + std::to_string(count) + " cameras=" + listed;
    return 0;
}

int set_i2c_ctrl(const uint8_t *record, LogNote *note)
{
    note->raw.assign(record, record + kI2cRecordSize);
    note->raw_set = true;
    const uint32_t camera = load_u32(record);
    const uint32_t owner = load_u32(record + 4);
    note->detail = "camera_index=" + std::to_string(camera) + " i2c_bus_ctrler=" + std::to_string(owner);
    // 0: the ISP drives the sensor's bus, 1: the ARM side does.
    if (camera >= kSlots || owner > 1)
        return EINVAL;
    BoardLock hold;
    board().cameras[camera].bus_owner = int32_t(owner);
    return 0;
}

int set_trigger_mode(const uint8_t *record, LogNote *note)
{
    note->raw.assign(record, record + kTriggerRecordSize);
    note->raw_set = true;
    const uint32_t mode = load_u32(record);
    const uint32_t param1 = load_u32(record + 4);
    const uint32_t internal_param3 = load_u32(record + 8);
    const uint32_t param2 = load_u32(record + 12);
    const uint32_t external_param3 = load_u32(record + 16);
    note->detail = "trigger_mode=" + std::to_string(mode) + " trigger_param1=" + std::to_string(param1) +
                   " internal_param3=" + std::to_string(internal_param3) + " trigger_param2=" +
                   std::to_string(param2) + " external_param3=" + std::to_string(external_param3);
    if (mode > 1 || param1 > kMaxTriggerParam1 || param2 > kMaxTriggerParam2)
        return EINVAL;
    if (mode == 1 && external_param3 > kMaxExternalParam3)
        return EINVAL;
    set_trigger_mode(mode == 0 ? TriggerMode::Internal : TriggerMode::External);
    return 0;
}

} // namespace

bool handle_misc_request(uint32_t request, void *arg, int *error, LogNote *note)
{
    if (request != kGetValidCameraInfo && request != kSetI2cCtrl && request != kSetMipiTriggerMode)
        return false;
    auto *record = static_cast<uint8_t *>(arg);
    if (!record)
        *error = EFAULT;
    else if (request == kGetValidCameraInfo)
        *error = get_valid_camera_info(record, note);
    else if (request == kSetI2cCtrl)
        *error = set_i2c_ctrl(record, note);
    else
        *error = set_trigger_mode(record, note);
    return true;
}

void reset_misc()
{
    g_valid_count.store(-1);
    set_trigger_mode(TriggerMode::None);
    BoardLock hold;
    for (SharedCamera &camera : board().cameras)
        camera.bus_owner = -1;
}

} // namespace zsim::detail

namespace zsim {

using namespace detail;

void set_valid_camera_count(int count)
{
    g_valid_count.store(count < 0 ? -1 : count);
}

std::vector<uint8_t> camera_info_record(int slot)
{
    if (slot < 0 || slot >= kSlots)
        return {};
    std::vector<uint8_t> record(kRecordSize, 0);
    int cameras[kSlots];
    if (slot < present_cameras(cameras))
        fill_record(record.data(), cameras[slot]);
    return record;
}

TriggerMode trigger_mode() { return TriggerMode(board().trigger_mode.load(std::memory_order_relaxed)); }

void set_trigger_mode(TriggerMode mode) { board().trigger_mode.store(int32_t(mode)); }

int sensor_bus_owner(int camera)
{
    if (camera < 0 || camera >= kSlots)
        return -1;
    BoardLock hold;
    return board().cameras[camera].bus_owner;
}

} // namespace zsim
