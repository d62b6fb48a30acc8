/*
 * resize.cpp - the ISP's crop / scale / crop resize: validated and stored
 * when the application gives it, sent to the driver by the next Init.
 *
 * The ISP's resize unit works on even positions and sizes only (its chroma
 * is subsampled by two), so odd values are refused before anything else.
 */
#include <cstring>

#include "driver/isp_requests.h"
#include "isp_video.h"
#include "library/messages.h"

namespace zelisp {

namespace {

IspResizeRegs ResizeRegs(const zelvideo::_resize_param_t &record)
{
    const zelvideo::_resize_crop_t &before = record.cropBefore;
    const zelvideo::_resize_crop_t &after = record.cropAfter;
    // No scaling (0 x 0) is told to the driver as scaling to the first crop.
    bool no_scale = record.scale.width == 0 && record.scale.height == 0;
    IspResizeRegs regs;
    regs.crop_before_top = before.y;
    regs.crop_before_bottom = uint16_t(before.y + before.height);
    regs.crop_before_left = before.x;
    regs.crop_before_right = uint16_t(before.x + before.width);
    regs.crop_after_top = after.y;
    regs.crop_after_bottom = uint16_t(after.y + after.height);
    regs.crop_after_left = after.x;
    regs.crop_after_right = uint16_t(after.x + after.width);
    regs.scaled_width = no_scale ? before.width : record.scale.width;
    regs.scaled_height = no_scale ? before.height : record.scale.height;
    regs.reserved = 0;
    return regs;
}

bool AnyOdd(const zelvideo::_resize_crop_t &crop)
{
    return ((crop.x | crop.y | crop.width | crop.height) & 1) != 0;
}

} // namespace

int IspVideo::StoreResize(const zelvideo::_resize_param_t &record)
{
    if (record.sel > 2)
        return ISP_ERR_INVALID;
    PrintLine(ISP_MESSAGE_PROGRESS, dev_path, "cropBefore [%d,%d], scale [%d,%d], cropAfter[%d,%d]",
              record.cropBefore.width, record.cropBefore.height, record.scale.width, record.scale.height,
              record.cropAfter.width, record.cropAfter.height);
    if (AnyOdd(record.cropBefore)) {
        EmitSystemError("Invailed cropBefore param: odd number!\n", dev_path);
        return ISP_ERR_INVALID;
    }
    if (((record.scale.width | record.scale.height) & 1) != 0) {
        EmitSystemError("Invailed scale param: odd number!\n", dev_path);
        return ISP_ERR_INVALID;
    }
    if (AnyOdd(record.cropAfter)) {
        EmitSystemError("Invailed cropAfter param: odd number!\n", dev_path);
        return ISP_ERR_INVALID;
    }
    std::memcpy(&resize_param, &record, sizeof(resize_param));
    return ISP_OK;
}

int IspVideo::ApplyResize(zelvideo::_resize_param_t record, int32_t bound_width, int32_t bound_height)
{
    IspResizeRegs regs = ResizeRegs(record);
    // Only the first crop can be checked here; the second crop and the
    // scaled size are the driver's to judge.
    int32_t right = int32_t(record.cropBefore.x) + int32_t(record.cropBefore.width);
    if (right > bound_width) {
        PrintLine(ISP_MESSAGE_FAILURE, dev_path, "invalid corp_before width param: %d", right);
        return ISP_ERR_MISSING;
    }
    int32_t bottom = int32_t(record.cropBefore.y) + int32_t(record.cropBefore.height);
    if (bottom > bound_height) {
        PrintLine(ISP_MESSAGE_FAILURE, dev_path, "invalid corp_before height param: %d", bottom);
        return ISP_ERR_MISSING;
    }
    if (Request(VIDIOC_ISP_SET_RESIZE, &regs) < 0) {
        EmitSystemError("Resize resolution", dev_path);
        return ISP_ERR_REQUEST;
    }
    return ISP_OK;
}

} // namespace zelisp
