/*
 * control_events.cpp - control events, as the kernel's control framework
 * sends them: VIDIOC_SUBSCRIBE_EVENT, VIDIOC_UNSUBSCRIBE_EVENT and
 * VIDIOC_DQEVENT for V4L2_EVENT_CTRL.
 *
 * A subscriber hears of every value change of its control made through
 * either node of the camera (the two nodes share one set of controls), the
 * setter itself only if it asked for feedback. As in the kernel, one event
 * per control waits at most: a newer change updates the waiting event and
 * adds its change bits. A waiting event is an exceptional condition of the
 * descriptor for select and poll (POLLPRI), as with the kernel's drivers;
 * the descriptor's readability still means a filled buffer.
 */
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <set>

#include "client_requests.h"
#include "control_table.h"

namespace zsim::detail {
namespace {

bool has_value(const ControlDef &control) { return has_int_value(control) && !is_class_control(control); }

void fill_control_event(const ControlDef &control, int32_t value, uint32_t changes, v4l2_event *event)
{
    event->type = V4L2_EVENT_CTRL;
    event->id = control.id;
    event->u.ctrl.changes = changes;
    event->u.ctrl.type = control.type;
    if (has_value(control))
        event->u.ctrl.value = value;
    event->u.ctrl.flags = control.flags;
    event->u.ctrl.minimum = int32_t(control.minimum);
    event->u.ctrl.maximum = int32_t(control.maximum);
    event->u.ctrl.step = int32_t(control.step);
    event->u.ctrl.default_value = int32_t(control.default_value);
}

void post_event(OpenFile &file, const v4l2_event &event)
{
    for (v4l2_event &waiting : file.events) {
        if (waiting.type == event.type && waiting.id == event.id) {
            uint32_t changes = waiting.u.ctrl.changes | event.u.ctrl.changes;
            waiting.u = event.u;
            waiting.u.ctrl.changes = changes;
            return;
        }
    }
    file.events.push_back(event);
}

const v4l2_event_subscription *subscription(const OpenFile &file, uint32_t type, uint32_t id)
{
    for (const v4l2_event_subscription &sub : file.subscriptions)
        if (sub.type == type && sub.id == id)
            return &sub;
    return nullptr;
}

std::string event_detail(const v4l2_event_subscription &sub)
{
    return "type=" + std::to_string(sub.type) + " id=" + hex_id(sub.id) + " flags=" + std::to_string(sub.flags);
}

} // namespace

int subscribe_event(State &, int node, OpenFile &file, const v4l2_event_subscription *sub, LogNote *note)
{
    note->detail = event_detail(*sub);
    if (sub->type != V4L2_EVENT_CTRL)
        return EINVAL;
    const ControlDef *control = find_control(sub->id);
    if (!control)
        return EINVAL;
    if (subscription(file, sub->type, sub->id))
        return 0;
    file.subscriptions.push_back(*sub);
    if ((sub->flags & V4L2_EVENT_SUB_FL_SEND_INITIAL) && !is_class_control(*control)) {
        int32_t value = 0;
        control_value(camera_of_node(node), control->id, &value);
        v4l2_event event{};
        uint32_t changes = V4L2_EVENT_CTRL_CH_FLAGS | (has_payload(*control) ? 0 : V4L2_EVENT_CTRL_CH_VALUE);
        fill_control_event(*control, value, changes, &event);
        post_event(file, event);
    }
    return 0;
}

int unsubscribe_event(OpenFile &file, const v4l2_event_subscription *sub, LogNote *note)
{
    note->detail = event_detail(*sub);
    auto drop = [&](uint32_t type, uint32_t id) {
        return sub->type == V4L2_EVENT_ALL || (type == sub->type && id == sub->id);
    };
    file.subscriptions.erase(std::remove_if(file.subscriptions.begin(), file.subscriptions.end(),
                                            [&](const v4l2_event_subscription &s) { return drop(s.type, s.id); }),
                             file.subscriptions.end());
    file.events.erase(std::remove_if(file.events.begin(), file.events.end(),
                                     [&](const v4l2_event &e) { return drop(e.type, e.id); }),
                      file.events.end());
    return 0;
}

int dequeue_event(OpenFile &file, v4l2_event *event, LogNote *note)
{
    if (file.events.empty())
        return ENOENT;
    *event = file.events.front();
    file.events.pop_front();
    event->pending = uint32_t(file.events.size());
    event->sequence = file.event_sequence++;
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    event->timestamp = now;
    std::memset(event->reserved, 0, sizeof event->reserved);
    note->detail = "type=" + std::to_string(event->type) + " id=" + hex_id(event->id) +
                   " pending=" + std::to_string(event->pending);
    return 0;
}

bool events_pending(int fd)
{
    State &s = state();
    CoreLock held;
    std::shared_ptr<OpenFile> file = find_descriptor(s, fd);
    return file && !file->events.empty();
}

std::vector<ControlSnapshot> control_snapshot(int camera, uint32_t request, const void *arg)
{
    std::vector<ControlSnapshot> values;
    auto add = [&](uint32_t id) {
        int32_t value;
        if (control_value(camera, id, &value))
            values.push_back(ControlSnapshot{id, value});
    };
    if (!arg)
        return values;
    if (request == uint32_t(VIDIOC_S_CTRL)) {
        add(static_cast<const v4l2_control *>(arg)->id);
    } else if (request == uint32_t(VIDIOC_S_EXT_CTRLS)) {
        const auto *ext = static_cast<const v4l2_ext_controls *>(arg);
        if (ext->controls && ext->count <= 1024)
            for (uint32_t i = 0; i < ext->count; ++i)
                add(ext->controls[i].id);
    }
    return values;
}

void notify_control_changes(State &s, int camera, const OpenFile &setter, const std::vector<ControlSnapshot> &before)
{
    std::set<OpenFile *> files;
    for (const auto &[fd, file] : s.descriptors)
        if (file->node >= 0 && file->node < kVideoNodes && camera_of_node(file->node) == camera &&
            !file->subscriptions.empty())
            files.insert(file.get());
    if (files.empty())
        return;
    for (const ControlSnapshot &old : before) {
        int32_t now;
        const ControlDef *control = find_control(old.id);
        if (!control || !control_value(camera, old.id, &now) || now == old.value)
            continue;
        v4l2_event event{};
        fill_control_event(*control, now, V4L2_EVENT_CTRL_CH_VALUE, &event);
        for (OpenFile *file : files) {
            const v4l2_event_subscription *sub = subscription(*file, V4L2_EVENT_CTRL, old.id);
            if (sub && (file != &setter || (sub->flags & V4L2_EVENT_SUB_FL_ALLOW_FEEDBACK)))
                post_event(*file, event);
        }
    }
}

} // namespace zsim::detail
