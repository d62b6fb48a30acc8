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

ZELISP_API int isp_camera_set_brightness(unsigned long handle, uint32_t value)
{
    return SetPictureFront(handle, Picture::Brightness, value);
}
ZELISP_API int isp_camera_get_brightness(unsigned long handle, uint32_t *value)
{
    return GetPictureFront(handle, Picture::Brightness, value);
}
ZELISP_API int isp_camera_set_contrast(unsigned long handle, uint32_t value)
{
    return SetPictureFront(handle, Picture::Contrast, value);
}
ZELISP_API int isp_camera_get_contrast(unsigned long handle, uint32_t *value)
{
    return GetPictureFront(handle, Picture::Contrast, value);
}
ZELISP_API int isp_camera_set_saturation(unsigned long handle, uint32_t value)
{
    return SetPictureFront(handle, Picture::Saturation, value);
}
ZELISP_API int isp_camera_get_saturation(unsigned long handle, uint32_t *value)
{
    return GetPictureFront(handle, Picture::Saturation, value);
}
ZELISP_API int isp_camera_set_hue(unsigned long handle, uint32_t value)
{
    return SetPictureFront(handle, Picture::Hue, value);
}
ZELISP_API int isp_camera_get_hue(unsigned long handle, uint32_t *value)
{
    return GetPictureFront(handle, Picture::Hue, value);
}
ZELISP_API int isp_camera_set_gamma(unsigned long handle, uint32_t value)
{
    return SetPictureFront(handle, Picture::Gamma, value);
}
ZELISP_API int isp_camera_get_gamma(unsigned long handle, uint32_t *value)
{
    return GetPictureFront(handle, Picture::Gamma, value);
}
ZELISP_API int isp_camera_set_sharpness(unsigned long handle, uint32_t value)
{
    return SetPictureFront(handle, Picture::Sharpness, value);
}
ZELISP_API int isp_camera_get_sharpness(unsigned long handle, uint32_t *value)
{
    return GetPictureFront(handle, Picture::Sharpness, value);
}

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
