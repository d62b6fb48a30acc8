/*
 * control_request.h - the one way a tuning control reaches the ISP camera
 * driver: a request on the camera's open video node, repeated while a signal
 * interrupts it, reported with the node path and the operation's label when
 * the driver refuses it.
 */
#ifndef ZELISP_CONTROLS_CONTROL_REQUEST_H
#define ZELISP_CONTROLS_CONTROL_REQUEST_H

#include <linux/videodev2.h>

#include <cstdint>

#include "camera/isp_video.h"

namespace zelisp {

// What a refused request prints: failure follows dev_path on stdout (it
// begins with a blank), label prefixes the perror line on stderr.
struct ControlText {
    const char *failure;
    const char *label;
};

// Sends request with record on the camera's node. 0, or -11 after the two
// report lines.
int ControlRequest(const IspVideo &camera, unsigned long request, void *record, const ControlText &text);

// Plain controls (VIDIOC_S_CTRL / VIDIOC_G_CTRL). The value goes to the
// driver unchanged; a read stores only when the driver answered.
int SetControl(const IspVideo &camera, uint32_t id, uint32_t value, const ControlText &text);
int GetControl(const IspVideo &camera, uint32_t id, uint32_t *value, const ControlText &text);

// One extended control in the user class: the ISP driver's private ids are
// only reachable this way. Not copyable: the outer record points at the
// inner one.
class ExtControlRequest {
public:
    // A 32-bit control: value is sent, or replaced by the driver on a read.
    ExtControlRequest(uint32_t id, int32_t value);
    // A payload control: size bytes at payload.
    ExtControlRequest(uint32_t id, void *payload, uint32_t size);
    ExtControlRequest(const ExtControlRequest &) = delete;
    ExtControlRequest &operator=(const ExtControlRequest &) = delete;

    v4l2_ext_controls *record() { return &controls_; }
    int32_t value() const { return control_.value; }

private:
    v4l2_ext_control control_{};
    v4l2_ext_controls controls_{};
};

} // namespace zelisp

#endif
