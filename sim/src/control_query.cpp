// control_query.cpp - how the simulated camera driver describes its
// controls: VIDIOC_QUERYCTRL, VIDIOC_QUERY_EXT_CTRL and VIDIOC_QUERYMENU,
// answered from the control table the way the kernel's control framework
// answers them (so v4l2-ctl --list-ctrls walks them unchanged).
#include "control_table.h"

#include <linux/videodev2.h>

#include <cerrno>
#include <cstring>

namespace zsim::detail {

namespace {

constexpr uint32_t kNextFlags = V4L2_CTRL_FLAG_NEXT_CTRL | V4L2_CTRL_FLAG_NEXT_COMPOUND;

// The framework's enumeration rule: NEXT_CTRL alone walks the plain
// controls, NEXT_COMPOUND alone the payload controls, both flags all of them.
bool enumerated(const ControlDef &control, uint32_t next)
{
    if (next == kNextFlags)
        return true;
    return has_payload(control) == (next == V4L2_CTRL_FLAG_NEXT_COMPOUND);
}

const ControlDef *query_target(uint32_t requested)
{
    const uint32_t next = requested & kNextFlags;
    const uint32_t id = requested & ~kNextFlags;
    if (!next)
        return find_control(id);
    for (const ControlDef &control : kControls)
        if (control.id > id && enumerated(control, next))
            return &control;
    return nullptr;
}

void fill_ext(const ControlDef &control, v4l2_query_ext_ctrl *query)
{
    memset(query, 0, sizeof *query);
    query->id = control.id;
    query->type = control.type;
    strncpy(query->name, control.name, sizeof query->name - 1);
    query->minimum = control.minimum;
    query->maximum = control.maximum;
    query->step = control.step;
    query->default_value = control.default_value;
    query->flags = control.flags;
    query->elem_size = is_class_control(control) ? 0 : has_payload(control) ? 1 : 4;
    query->elems = control.elems;
    if (has_payload(control)) {
        query->nr_of_dims = 1;
        query->dims[0] = control.elems;
    }
}

// The legacy record has 32-bit ranges and none for payload controls.
void fill_legacy(const ControlDef &control, v4l2_queryctrl *query)
{
    memset(query, 0, sizeof *query);
    query->id = control.id;
    query->type = control.type;
    strncpy(reinterpret_cast<char *>(query->name), control.name, sizeof query->name - 1);
    query->flags = control.flags;
    if (has_payload(control))
        return;
    query->minimum = int32_t(control.minimum);
    query->maximum = int32_t(control.maximum);
    query->step = int32_t(control.step);
    query->default_value = int32_t(control.default_value);
}

int query_menu(v4l2_querymenu *menu)
{
    const ControlDef *control = find_control(menu->id);
    if (!control || control->type != V4L2_CTRL_TYPE_MENU || menu->index >= control->menu_count)
        return EINVAL;
    memset(menu->name, 0, sizeof menu->name);
    strncpy(reinterpret_cast<char *>(menu->name), control->menu[menu->index], sizeof menu->name - 1);
    menu->reserved = 0;
    return 0;
}

} // namespace

bool handle_control_query(uint32_t request, void *arg, int *error, LogNote *note)
{
    if (request != uint32_t(VIDIOC_QUERYCTRL) && request != uint32_t(VIDIOC_QUERY_EXT_CTRL) &&
        request != uint32_t(VIDIOC_QUERYMENU))
        return false;
    if (!arg) {
        *error = EFAULT;
        return true;
    }
    if (request == uint32_t(VIDIOC_QUERYMENU)) {
        auto *menu = static_cast<v4l2_querymenu *>(arg);
        note->detail = "id=" + hex_id(menu->id) + " index=" + std::to_string(menu->index);
        *error = query_menu(menu);
        return true;
    }
    // Both records begin with the id the caller asks about.
    uint32_t requested;
    memcpy(&requested, arg, sizeof requested);
    note->detail = "id=" + hex_id(requested);
    const ControlDef *control = query_target(requested);
    if (!control) {
        *error = EINVAL;
        return true;
    }
    if (request == uint32_t(VIDIOC_QUERY_EXT_CTRL))
        fill_ext(*control, static_cast<v4l2_query_ext_ctrl *>(arg));
    else
        fill_legacy(*control, static_cast<v4l2_queryctrl *>(arg));
    // A control asked for by its private-base number keeps that number.
    if (requested >= V4L2_CID_PRIVATE_BASE && !(requested & kNextFlags))
        memcpy(arg, &requested, sizeof requested);
    note->detail += " -> " + hex_id(control->id);
    *error = 0;
    return true;
}

} // namespace zsim::detail
