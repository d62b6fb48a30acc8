/*
 * camera_controls.h - the tuning operations of one camera: picture controls,
 * denoise, automatic and manual exposure and white balance, abnormal
 * information. They act on the camera's open node in any state and check
 * nothing: the exported fronts have checked the arguments.
 */
#ifndef ZELISP_CONTROLS_CAMERA_CONTROLS_H
#define ZELISP_CONTROLS_CAMERA_CONTROLS_H

#include <cstdint>

#include "camera/isp_video.h"

namespace zelisp {

// The six standard picture controls, in the order of the picture table.
enum class Picture { Brightness, Contrast, Saturation, Hue, Gamma, Sharpness };

// Largest value the ISP takes for the control; the setter refuses more.
uint32_t PictureMaximum(Picture control);
// SetBrightness, GetBrightness, ... SetSharpness, GetSharpness.
int SetPicture(const IspVideo &camera, Picture control, uint32_t value);
int GetPicture(const IspVideo &camera, Picture control, uint32_t *value);

// Strongest denoise the ISP takes, for luma and chroma alike.
constexpr uint32_t kMaxDenoiseStrength = 10;
int SetDenoise(const IspVideo &camera, uint32_t luma, uint32_t chroma);
int GetDenoise(const IspVideo &camera, uint32_t *luma, uint32_t *chroma);

int SetAWB(const IspVideo &camera, uint8_t value);
int GetAWB(const IspVideo &camera, uint8_t *value);
int SetAEC(const IspVideo &camera, uint8_t value);
int GetAEC(const IspVideo &camera, uint8_t *value);

int SetMWB(const IspVideo &camera, uint32_t gain1, uint32_t gain2, uint32_t gain3);
int SetMEC(const IspVideo &camera, const zelvideo::_mec_param_t &param);

int GetAbnormalInfo(const IspVideo &camera, void *info);

} // namespace zelisp

#endif
