/*
 * platform_api.cpp - the exported /dev/isp_misc functions: the valid-camera
 * table, sensor bus ownership and the single-camera trigger modes. Each
 * checks its arguments and runs one platform operation.
 */
#include "platform/misc_node.h"

using namespace zelisp;

extern "C" {

ZELISP_API int isp_get_valid_camera_count(uint32_t *count)
{
    if (count == nullptr)
        return ISP_ERR_INVALID;
    // A table that cannot be read counts as no camera.
    uint32_t found = 0;
    const int result = isp_get_all_valid_camera_info(nullptr, &found);
    *count = found;
    return result;
}

ZELISP_API int isp_get_valid_camera_info(zelvideo::_camera_info_t *info, uint32_t camera_num, uint32_t *count)
{
    if (count == nullptr || (info == nullptr && camera_num > 0))
        return ISP_ERR_INVALID;
    return GetValidCameraInfo(info, camera_num, count);
}

ZELISP_API int isp_set_i2c_ctrl(uint32_t camera_index, uint32_t i2c_bus_ctrler)
{
    if (camera_index >= uint32_t(kValidCameraSlots) || i2c_bus_ctrler > kBusArm)
        return ISP_ERR_INVALID;
    return SetI2cCtrl(camera_index, i2c_bus_ctrler);
}

// Internal mode is repeated through signals. External mode is sent once:
// an interrupted request there is reported like a refusal, and the caller
// decides whether to arm the trigger line again.
ZELISP_API int isp_set_internal_trigger(unsigned long handle, uint32_t trigger_param1, uint32_t trigger_param2,
                                        uint32_t internal_param3)
{
    if (handle == 0 || trigger_param1 > ISP_TRIGGER_PARAM1_MAX || trigger_param2 > ISP_TRIGGER_PARAM2_MAX)
        return ISP_ERR_INVALID;
    return SetTrigger(InternalTriggerRecord(trigger_param1, trigger_param2, internal_param3),
                      Retry::WhileInterrupted);
}

ZELISP_API int isp_set_external_trigger(unsigned long handle, uint32_t trigger_param1, uint32_t trigger_param2,
                                        uint32_t external_param3)
{
    if (handle == 0 || trigger_param1 > ISP_TRIGGER_PARAM1_MAX || trigger_param2 > ISP_TRIGGER_PARAM2_MAX ||
        external_param3 > ISP_EXTERNAL_PARAM3_MAX)
        return ISP_ERR_INVALID;
    return SetTrigger(ExternalTriggerRecord(trigger_param1, trigger_param2, external_param3), Retry::Once);
}

} // extern "C"
