// controls.cpp - the values behind the simulated ISP camera driver's
// controls: one set per camera, shared by its two nodes as on the board
// (both nodes drive the same ISP channel) and by every process of the
// board, so a value set by one program shows at once to the others and in
// the frames of the one that streams. Plain and extended control requests,
// the private manual white-balance / exposure payloads, and the
// abnormal-information block.
#include <linux/videodev2.h>

#include <cerrno>
#include <cstring>

#include "board_state.h"
#include "control_table.h"
#include "sim_internal.h"

namespace zsim::detail {

namespace {

// The kernel's cap on the controls of one extended request (V4L2_CID_MAX_CTRLS).
constexpr uint32_t kMaxExtControls = 1024;

using CameraControls = SharedControls;

// Call with the board's lock held.
CameraControls *camera_controls(int camera)
{
    return camera >= 0 && camera < kBoardCameras ? &board().cameras[camera].controls : nullptr;
}

uint8_t *payload_of(CameraControls *camera, uint32_t id)
{
    if (id == kCidManualWhiteBalance)
        return camera->white_balance;
    if (id == kCidManualExposure)
        return camera->exposure;
    return nullptr;
}

bool in_range(const ControlDef &control, int32_t value)
{
    return value >= control.minimum && value <= control.maximum;
}

// ---------------------------------------------------------- VIDIOC_G/S_CTRL

int get_control(CameraControls *camera, v4l2_control *request)
{
    size_t slot;
    const ControlDef *control = find_control(request->id, &slot);
    if (!control || has_payload(*control))
        return EINVAL;
    if (is_class_control(*control))
        return EACCES; // class controls are write-only
    request->value = camera->values[slot];
    return 0;
}

int set_control(CameraControls *camera, const v4l2_control &request)
{
    size_t slot;
    const ControlDef *control = find_control(request.id, &slot);
    if (!control || has_payload(*control))
        return EINVAL;
    if (is_class_control(*control))
        return EACCES; // and read-only
    if (!in_range(*control, request.value))
        return ERANGE;
    camera->values[slot] = request.value;
    return 0;
}

std::string control_detail(const v4l2_control &request)
{
    return "id=" + hex_id(request.id) + " value=" + std::to_string(request.value);
}

// ------------------------------------------------------- extended controls

enum class ExtKind { Get, Set, Try };

// Checks one control of an extended request; the whole request is checked
// before anything is applied, as the control framework does.
int check_ext(ExtKind kind, uint32_t which, v4l2_ext_control *control)
{
    const ControlDef *def = find_control(control->id);
    if (!def)
        return EINVAL;
    if (which != V4L2_CTRL_WHICH_CUR_VAL && which != V4L2_CTRL_WHICH_DEF_VAL &&
        control_class_of(control->id) != which)
        return EINVAL;
    if (is_class_control(*def))
        return EACCES;
    if (has_payload(*def)) {
        if (control->size < kManualPayloadSize) {
            if (kind != ExtKind::Get)
                return EFAULT;
            control->size = kManualPayloadSize; // tells the caller what it needs
            return ENOSPC;
        }
        return control->ptr ? 0 : EFAULT;
    }
    if (kind != ExtKind::Get && !in_range(*def, control->value))
        return ERANGE;
    return 0;
}

// Applies one checked control: reads it for Get, stores it for Set.
void apply_ext(ExtKind kind, uint32_t which, CameraControls *camera, v4l2_ext_control *control)
{
    size_t slot;
    const ControlDef *def = find_control(control->id, &slot);
    uint8_t *payload = payload_of(camera, control->id);
    if (payload) {
        control->size = kManualPayloadSize;
        if (kind == ExtKind::Get && which == V4L2_CTRL_WHICH_DEF_VAL)
            memset(control->ptr, 0, kManualPayloadSize);
        else if (kind == ExtKind::Get)
            memcpy(control->ptr, payload, kManualPayloadSize);
        else if (kind == ExtKind::Set)
            memcpy(payload, control->ptr, kManualPayloadSize);
        return;
    }
    if (kind == ExtKind::Get)
        control->value = which == V4L2_CTRL_WHICH_DEF_VAL ? int32_t(def->default_value) : camera->values[slot];
    else if (kind == ExtKind::Set)
        camera->values[slot] = control->value;
}

int ext_controls(ExtKind kind, CameraControls *camera, v4l2_ext_controls *request)
{
    const uint32_t which = request->which;
    if (which == V4L2_CTRL_WHICH_DEF_VAL && kind != ExtKind::Get)
        return EINVAL;
    if (request->count == 0) {
        // An empty request only asks whether the driver knows the class.
        if (which == V4L2_CTRL_WHICH_CUR_VAL || which == V4L2_CTRL_WHICH_DEF_VAL)
            return 0;
        for (const ControlDef &control : kControls)
            if (control_class_of(control.id) == which)
                return 0;
        return EINVAL;
    }
    if (request->count > kMaxExtControls)
        return EINVAL;
    if (!request->controls)
        return EFAULT;
    for (uint32_t i = 0; i < request->count; ++i) {
        int err = check_ext(kind, which, &request->controls[i]);
        if (err) {
            // A set that fails its checks changed nothing: error_idx = count.
            // So does a read of a write-only control: the framework finds
            // it only after it has validated the whole request.
            bool whole = kind == ExtKind::Set || (kind == ExtKind::Get && err == EACCES);
            request->error_idx = whole ? request->count : i;
            return err;
        }
    }
    for (uint32_t i = 0; i < request->count; ++i)
        apply_ext(kind, which, camera, &request->controls[i]);
    return 0;
}

std::string ext_detail(const v4l2_ext_controls &request)
{
    std::string detail = "ctrl_class=" + hex_id(request.which) + " count=" + std::to_string(request.count);
    if (!request.controls || request.count > kMaxExtControls)
        return detail;
    for (uint32_t i = 0; i < request.count; ++i) {
        const v4l2_ext_control &control = request.controls[i];
        detail += " id=" + hex_id(control.id) + " size=" + std::to_string(control.size);
        const ControlDef *def = find_control(control.id);
        if (!def || !has_payload(*def))
            detail += " value=" + std::to_string(control.value);
        else if (control.ptr && control.size >= kManualPayloadSize)
            detail += " payload=" + hex_bytes(static_cast<const uint8_t *>(control.ptr), kManualPayloadSize);
    }
    return detail;
}

ExtKind ext_kind(uint32_t request)
{
    if (request == uint32_t(VIDIOC_G_EXT_CTRLS))
        return ExtKind::Get;
    return request == uint32_t(VIDIOC_S_EXT_CTRLS) ? ExtKind::Set : ExtKind::Try;
}

bool is_value_request(uint32_t request)
{
    return request == uint32_t(VIDIOC_G_CTRL) || request == uint32_t(VIDIOC_S_CTRL) ||
           request == uint32_t(VIDIOC_G_EXT_CTRLS) || request == uint32_t(VIDIOC_S_EXT_CTRLS) ||
           request == uint32_t(VIDIOC_TRY_EXT_CTRLS) || request == kGetAbnormalInfo;
}

// Runs one value request with g_lock held; the detail describes the
// request as sent for sets and the driver's answer for reads.
int value_request(CameraControls *camera, uint32_t request, void *arg, LogNote *note)
{
    if (request == kGetAbnormalInfo) {
        memcpy(arg, camera->abnormal, kAbnormalInfoSize);
        note->detail = "info=" + hex_bytes(camera->abnormal, kAbnormalInfoSize);
        return 0;
    }
    if (request == uint32_t(VIDIOC_G_CTRL) || request == uint32_t(VIDIOC_S_CTRL)) {
        auto *control = static_cast<v4l2_control *>(arg);
        int err = request == uint32_t(VIDIOC_G_CTRL) ? get_control(camera, control) : set_control(camera, *control);
        note->detail = control_detail(*control);
        return err;
    }
    auto *controls = static_cast<v4l2_ext_controls *>(arg);
    const ExtKind kind = ext_kind(request);
    if (kind != ExtKind::Get)
        note->detail = ext_detail(*controls);
    int err = ext_controls(kind, camera, controls);
    if (kind == ExtKind::Get)
        note->detail = ext_detail(*controls);
    return err;
}

} // namespace

bool handle_control_request(int camera, uint32_t request, void *arg, int *error, LogNote *note)
{
    if (handle_control_query(request, arg, error, note))
        return true;
    if (!is_value_request(request))
        return false;
    if (!arg) {
        *error = EFAULT;
        return true;
    }
    bool changed = false;
    {
        BoardLock hold;
        CameraControls *controls = camera_controls(camera);
        *error = controls ? value_request(controls, request, arg, note) : ENODEV;
        changed = !*error && (request == uint32_t(VIDIOC_S_CTRL) || request == uint32_t(VIDIOC_S_EXT_CTRLS));
    }
    if (changed) {
        note_controls_changed(camera);
        schedule_image_update(camera);
    }
    return true;
}

void set_control_defaults(SharedControls *camera)
{
    memset(camera, 0, sizeof *camera);
    for (size_t i = 0; i < kControlCount; ++i)
        camera->values[i] = int32_t(kControls[i].default_value);
}

void reset_controls()
{
    {
        BoardLock hold;
        for (int camera = 0; camera < kBoardCameras; ++camera)
            set_control_defaults(camera_controls(camera));
    }
    for (int camera = 0; camera < kBoardCameras; ++camera)
        note_controls_changed(camera);
}

} // namespace zsim::detail

namespace zsim {

using namespace detail;

bool control_value(int camera, uint32_t id, int32_t *value)
{
    size_t slot;
    const ControlDef *control = find_control(id, &slot);
    if (!control || !has_int_value(*control) || !value)
        return false;
    BoardLock hold;
    CameraControls *controls = camera_controls(camera);
    if (!controls)
        return false;
    *value = controls->values[slot];
    return true;
}

// Stores the value without the range check, so that a test can give the
// driver a value its requests would refuse (an AWB of 2, say).
bool set_control_value(int camera, uint32_t id, int32_t value)
{
    size_t slot;
    const ControlDef *control = find_control(id, &slot);
    if (!control || !has_int_value(*control))
        return false;
    BoardLock hold;
    CameraControls *controls = camera_controls(camera);
    if (!controls)
        return false;
    controls->values[slot] = value;
    note_controls_changed(camera);
    return true;
}

std::vector<uint8_t> manual_payload(int camera, uint32_t id)
{
    BoardLock hold;
    CameraControls *controls = camera_controls(camera);
    const uint8_t *payload = controls ? payload_of(controls, id) : nullptr;
    if (!payload)
        return std::vector<uint8_t>(kManualPayloadSize, 0);
    return std::vector<uint8_t>(payload, payload + kManualPayloadSize);
}

void set_abnormal_info(int camera, const uint8_t info[14])
{
    BoardLock hold;
    CameraControls *controls = camera_controls(camera);
    if (controls && info)
        memcpy(controls->abnormal, info, kAbnormalInfoSize);
}

} // namespace zsim
