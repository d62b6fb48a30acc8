/*
 * controls_api.cpp - the exported tuning functions: thin fronts that check
 * the handle, the value's range and the output pointers, then call one
 * control operation of the camera. Controls act on the open node whatever
 * the camera's state.
 */
#include <cstdint>

#include "camera/isp_video.h"
#include "controls/camera_controls.h"

using zelisp::Picture;
using zelisp::VideoFromHandle;

namespace {

int SetPictureFront(unsigned long handle, Picture control, uint32_t value)
{
    if (handle == 0 || value > zelisp::PictureMaximum(control))
        return ISP_ERR_INVALID;
    return zelisp::SetPicture(*VideoFromHandle(handle), control, value);
}

int GetPictureFront(unsigned long handle, Picture control, uint32_t *value)
{
    if (handle == 0 || value == nullptr)
        return ISP_ERR_INVALID;
    return zelisp::GetPicture(*VideoFromHandle(handle), control, value);
}

} // namespace

extern "C" {

// Each picture control is a pair of fronts that differ only in the control
// they name: isp_camera_set_brightness / isp_camera_get_brightness, and the
// same for contrast, saturation, hue, gamma and sharpness.
#define ZELISP_PICTURE_FRONTS(name, control)                                      \
    ZELISP_API int isp_camera_set_##name(unsigned long handle, uint32_t value)    \
    {                                                                             \
        return SetPictureFront(handle, Picture::control, value);                  \
    }                                                                             \
    ZELISP_API int isp_camera_get_##name(unsigned long handle, uint32_t *value)   \
    {                                                                             \
        return GetPictureFront(handle, Picture::control, value);                  \
    }

ZELISP_PICTURE_FRONTS(brightness, Brightness)
ZELISP_PICTURE_FRONTS(contrast, Contrast)
ZELISP_PICTURE_FRONTS(saturation, Saturation)
ZELISP_PICTURE_FRONTS(hue, Hue)
ZELISP_PICTURE_FRONTS(gamma, Gamma)
ZELISP_PICTURE_FRONTS(sharpness, Sharpness)

#undef ZELISP_PICTURE_FRONTS

ZELISP_API int isp_camera_set_denoise(unsigned long handle, uint32_t luma, uint32_t chroma)
{
    if (handle == 0 || luma > zelisp::kMaxDenoiseStrength || chroma > zelisp::kMaxDenoiseStrength)
        return ISP_ERR_INVALID;
    return zelisp::SetDenoise(*VideoFromHandle(handle), luma, chroma);
}

ZELISP_API int isp_camera_get_denoise(unsigned long handle, uint32_t *luma, uint32_t *chroma)
{
    if (handle == 0 || luma == nullptr || chroma == nullptr)
        return ISP_ERR_INVALID;
    return zelisp::GetDenoise(*VideoFromHandle(handle), luma, chroma);
}

ZELISP_API int isp_camera_set_awb(unsigned long handle, uint8_t value)
{
    if (handle == 0)
        return ISP_ERR_INVALID;
    return zelisp::SetAWB(*VideoFromHandle(handle), value);
}

ZELISP_API int isp_camera_get_awb(unsigned long handle, uint8_t *value)
{
    if (handle == 0 || value == nullptr)
        return ISP_ERR_INVALID;
    return zelisp::GetAWB(*VideoFromHandle(handle), value);
}

ZELISP_API int isp_camera_set_aec(unsigned long handle, uint8_t value)
{
    if (handle == 0)
        return ISP_ERR_INVALID;
    return zelisp::SetAEC(*VideoFromHandle(handle), value);
}

ZELISP_API int isp_camera_get_aec(unsigned long handle, uint8_t *value)
{
    if (handle == 0 || value == nullptr)
        return ISP_ERR_INVALID;
    return zelisp::GetAEC(*VideoFromHandle(handle), value);
}

ZELISP_API int isp_camera_set_mwb(unsigned long handle, uint32_t gain1, uint32_t gain2, uint32_t gain3)
{
    if (handle == 0)
        return ISP_ERR_INVALID;
    return zelisp::SetMWB(*VideoFromHandle(handle), gain1, gain2, gain3);
}

ZELISP_API int isp_camera_set_mec(unsigned long handle, const zelvideo::_mec_param_t *param)
{
    if (handle == 0 || param == nullptr)
        return ISP_ERR_INVALID;
    // The caller's record is read once, here; the request is built from the copy.
    const zelvideo::_mec_param_t copy = *param;
    return zelisp::SetMEC(*VideoFromHandle(handle), copy);
}

ZELISP_API int isp_camera_get_abnormal_info(unsigned long handle, void *info)
{
    if (handle == 0 || info == nullptr)
        return ISP_ERR_INVALID;
    return zelisp::GetAbnormalInfo(*VideoFromHandle(handle), info);
}

} // extern "C"
