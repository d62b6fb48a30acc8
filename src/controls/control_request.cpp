/*
 * control_request.cpp - the control request procedure shared by every
 * picture, denoise and 3A control, and the V4L2 records it carries.
 */
#include "controls/control_request.h"

#include "driver/driver_request.h"

namespace zelisp {

int ControlRequest(const IspVideo &camera, unsigned long request, void *record, const ControlText &text)
{
    return ReportedRequest(camera.fd, camera.dev_path, request, record, text.label, "%s", text.failure);
}

static v4l2_control ControlRecord(uint32_t id, uint32_t value)
{
    v4l2_control record{};
    record.id = id;
    record.value = static_cast<int32_t>(value);
    return record;
}

int SetControl(const IspVideo &camera, uint32_t id, uint32_t value, const ControlText &text)
{
    v4l2_control record = ControlRecord(id, value);
    return ControlRequest(camera, VIDIOC_S_CTRL, &record, text);
}

int GetControl(const IspVideo &camera, uint32_t id, uint32_t *value, const ControlText &text)
{
    v4l2_control record = ControlRecord(id, 0);
    const int result = ControlRequest(camera, VIDIOC_G_CTRL, &record, text);
    if (result == ISP_OK)
        *value = static_cast<uint32_t>(record.value);
    return result;
}

ExtControlRequest::ExtControlRequest(uint32_t id, int32_t value)
{
    control_.id = id;
    control_.size = sizeof(control_.value);
    control_.value = value;
    controls_.ctrl_class = V4L2_CTRL_CLASS_USER;
    controls_.count = 1;
    controls_.controls = &control_;
}

ExtControlRequest::ExtControlRequest(uint32_t id, void *payload, uint32_t size)
{
    control_.id = id;
    control_.size = size;
    control_.ptr = payload;
    controls_.ctrl_class = V4L2_CTRL_CLASS_USER;
    controls_.count = 1;
    controls_.controls = &control_;
}

} // namespace zelisp
