/*
 * camera_probe.h - what list and info ask the camera's node directly,
 * through the descriptor isp_camera_get_native_fd hands out, because the
 * library has no call for it: the supported view combination, the frame
 * rate and the controls' ranges. Every request the tool makes of a node
 * itself is made here.
 */
#ifndef ZELISP_CAM_CAMERA_PROBE_H
#define ZELISP_CAM_CAMERA_PROBE_H

#include <cstdint>
#include <string>

namespace zcam {

// The view combination the ISP supports (bit k: view k), which its driver
// gives as the `index` of VIDIOC_ENUMINPUT; the library only prints it while
// setting the stream up. False with errno set when the node refuses.
bool supported_combination(unsigned long handle, uint32_t *combination);

// "30 fps" from the driver's frame-interval request (VIDIOC_G_PARM), or,
// for a driver without one, "29.97 fps (measured)" from the capture times
// of a few frames of the smallest stream, or "unknown (...)" with why.
std::string frame_rate_text(unsigned long handle);

// "0..255, default 128" from VIDIOC_QUERYCTRL; "" when the driver does not
// describe the control (id 0: no V4L2 control of its own).
std::string control_range_text(unsigned long handle, uint32_t control_id);

} // namespace zcam

#endif
