/*
 * camera_discovery.cpp - the platform driver's valid-camera table: which
 * camera slots have a working sensor. Every call reads the driver's current
 * table afresh; groups keep a copy of their own.
 */
#include <cstring>

#include "library/messages.h"
#include "platform/misc_node.h"
#include "platform/misc_session.h"

namespace zelisp {

namespace {

// Reads the table through a descriptor of its own. The request is sent
// once: the platform driver fills the table in one go and an interrupted
// read is reported like any other failure. 0, -9 or -11.
int ReadValidCameraTable(CameraInfoTable *table)
{
    MiscSession node;
    if (!node.opened()) {
        EmitSystemError("open error\n");
        return ISP_ERR_OPEN;
    }
    if (DriverRequest(node.fd(), GET_VAILED_CAMERA_INFO, table, Retry::Once) != 0) {
        EmitLine(ISP_MESSAGE_FAILURE, Console::Stdio, nullptr, "ioctl GET_VAILED_CAMERA_INFO failed! ");
        return ISP_ERR_REQUEST;
    }
    return ISP_OK;
}

// The table has twelve slots. A driver that reports more cannot have
// delivered them, so the count is held to what the table can carry; every
// later copy is bounded by it.
uint32_t RecordCount(const CameraInfoTable &table)
{
    constexpr uint32_t kSlots = kValidCameraSlots;
    return table.count < kSlots ? table.count : kSlots;
}

void CopyRecords(zelvideo::_camera_info_t *destination, const CameraInfoTable &table, uint32_t records)
{
    if (records == 0)
        return;
    memcpy(destination, table.cameras, records * sizeof(zelvideo::_camera_info_t));
}

} // namespace

int isp_get_all_valid_camera_info(zelvideo::_camera_info_t *destination, uint32_t *count)
{
    CameraInfoTable table{};
    const int result = ReadValidCameraTable(&table);
    if (result != ISP_OK)
        return result;
    *count = RecordCount(table);
    if (destination != nullptr)
        CopyRecords(destination, table, *count);
    return ISP_OK;
}

int GetValidCameraInfo(zelvideo::_camera_info_t *info, uint32_t camera_num, uint32_t *count)
{
    CameraInfoTable table{};
    const int result = ReadValidCameraTable(&table);
    if (result != ISP_OK)
        return result;
    // The count is stored first so that a caller who asked for too many
    // still learns how many there are.
    *count = RecordCount(table);
    if (*count < camera_num) {
        EmitLine(ISP_MESSAGE_FAILURE, Console::Stdio, nullptr, "invailed camera_num! ");
        return ISP_ERR_INVALID;
    }
    CopyRecords(info, table, camera_num);
    return ISP_OK;
}

} // namespace zelisp
