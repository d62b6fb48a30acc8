/*
 * client_requests.cpp - routes the requests of standard V4L2 clients
 * (client_requests.h) to the file of their concept.
 */
#include <cerrno>

#include "client_requests.h"

namespace zsim::detail {

bool handle_client_request(State &s, int node, OpenFile &file, uint32_t request, void *arg, int *error,
                           LogNote *note)
{
    switch (request) {
    case uint32_t(VIDIOC_ENUM_FMT):
    case uint32_t(VIDIOC_TRY_FMT):
    case uint32_t(VIDIOC_ENUM_FRAMESIZES):
    case uint32_t(VIDIOC_ENUM_FRAMEINTERVALS):
    case uint32_t(VIDIOC_G_PARM):
    case uint32_t(VIDIOC_S_PARM):
    case uint32_t(VIDIOC_G_PRIORITY):
    case uint32_t(VIDIOC_S_PRIORITY):
    case uint32_t(VIDIOC_SUBSCRIBE_EVENT):
    case uint32_t(VIDIOC_UNSUBSCRIBE_EVENT):
    case uint32_t(VIDIOC_DQEVENT):
        break;
    case uint32_t(VIDIOC_S_FMT):
        // The ISP's per-view form goes to the ISP driver's own handler.
        if (!arg || is_view_request(*static_cast<const v4l2_format *>(arg)))
            return false;
        break;
    default:
        return false;
    }
    if (!arg) {
        *error = EFAULT;
        return true;
    }
    switch (request) {
    case uint32_t(VIDIOC_ENUM_FMT):
        *error = enum_format(static_cast<v4l2_fmtdesc *>(arg), note);
        break;
    case uint32_t(VIDIOC_TRY_FMT):
        *error = try_format(s, node, static_cast<v4l2_format *>(arg), note);
        break;
    case uint32_t(VIDIOC_S_FMT):
        *error = set_standard_format(s, node, static_cast<v4l2_format *>(arg), note);
        break;
    case uint32_t(VIDIOC_ENUM_FRAMESIZES):
        *error = enum_frame_sizes(s, node, static_cast<v4l2_frmsizeenum *>(arg), note);
        break;
    case uint32_t(VIDIOC_ENUM_FRAMEINTERVALS):
        *error = enum_frame_intervals(s, node, static_cast<v4l2_frmivalenum *>(arg), note);
        break;
    case uint32_t(VIDIOC_G_PARM):
        *error = get_stream_parameters(s, node, static_cast<v4l2_streamparm *>(arg), note);
        break;
    case uint32_t(VIDIOC_S_PARM):
        *error = set_stream_parameters(s, node, static_cast<v4l2_streamparm *>(arg), note);
        break;
    case uint32_t(VIDIOC_G_PRIORITY):
        *error = get_priority(s, node, static_cast<uint32_t *>(arg), note);
        break;
    case uint32_t(VIDIOC_S_PRIORITY):
        *error = set_priority(s, node, file, static_cast<const uint32_t *>(arg), note);
        break;
    case uint32_t(VIDIOC_SUBSCRIBE_EVENT):
        *error = subscribe_event(s, node, file, static_cast<const v4l2_event_subscription *>(arg), note);
        break;
    case uint32_t(VIDIOC_UNSUBSCRIBE_EVENT):
        *error = unsubscribe_event(file, static_cast<const v4l2_event_subscription *>(arg), note);
        break;
    case uint32_t(VIDIOC_DQEVENT):
        *error = dequeue_event(file, static_cast<v4l2_event *>(arg), note);
        break;
    default:
        break;
    }
    return true;
}

} // namespace zsim::detail
