// camera_table.cpp - the valid-camera table: its count, then its records.
#include "camera_table.h"

#include <algorithm>

#include "zelisp.h"

namespace {

constexpr uint32_t kTableRecords = 12;

} // namespace

bool CameraTable::lists(int camera) const
{
    return std::find(cameras.begin(), cameras.end(), camera) != cameras.end();
}

CameraTable read_camera_table()
{
    CameraTable table;
    uint32_t count = 0;
    table.result = isp_get_valid_camera_count(&count);
    if (table.result != ISP_OK) {
        table.failed_call = "isp_get_valid_camera_count";
        return table;
    }
    zelvideo::_camera_info_t records[kTableRecords] = {};
    const uint32_t wanted = std::min(count, kTableRecords);
    uint32_t filled = 0;
    if (wanted > 0 && (table.result = isp_get_valid_camera_info(records, wanted, &filled)) != ISP_OK) {
        table.failed_call = "isp_get_valid_camera_info";
        return table;
    }
    for (uint32_t i = 0; i < wanted; ++i)
        table.cameras.push_back(records[i].camera_index);
    return table;
}
