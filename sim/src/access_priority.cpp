/*
 * access_priority.cpp - VIDIOC_G_PRIORITY and VIDIOC_S_PRIORITY, and the
 * check the kernel's V4L2 core makes before every request that changes the
 * device: while one open file of a node holds a higher priority (a
 * recording application, say), the node's other files may look but not
 * change formats, inputs, rates, buffers, streams or controls.
 *
 * Every file starts at the default priority; the node's priority is the
 * highest among its open files.
 */
#include <algorithm>
#include <cerrno>
#include <iterator>

#include "client_requests.h"
#include "driver/isp_requests.h"

namespace zsim::detail {
namespace {

constexpr uint32_t kResizeRequest = uint32_t(zelisp::VIDIOC_ISP_SET_RESIZE);

const uint32_t kChangingRequests[] = {
    VIDIOC_S_FMT,      VIDIOC_S_INPUT,      VIDIOC_S_PARM,   VIDIOC_REQBUFS,    VIDIOC_CREATE_BUFS,
    VIDIOC_STREAMON,   VIDIOC_STREAMOFF,    VIDIOC_S_CTRL,   VIDIOC_S_EXT_CTRLS, VIDIOC_S_PRIORITY,
    VIDIOC_S_SELECTION, kResizeRequest,
};

uint32_t node_priority(const State &s, int node)
{
    uint32_t highest = V4L2_PRIORITY_UNSET;
    for (const auto &[fd, file] : s.descriptors)
        if (file->node == node)
            highest = std::max(highest, file->priority);
    return highest;
}

} // namespace

int check_priority(const State &s, int node, const OpenFile &file, uint32_t request)
{
    if (std::find(std::begin(kChangingRequests), std::end(kChangingRequests), request) ==
        std::end(kChangingRequests))
        return 0;
    return file.priority < node_priority(s, node) ? EBUSY : 0;
}

int get_priority(const State &s, int node, uint32_t *priority, LogNote *note)
{
    *priority = node_priority(s, node);
    note->detail = "priority=" + std::to_string(*priority);
    return 0;
}

int set_priority(const State &, int, OpenFile &file, const uint32_t *priority, LogNote *note)
{
    note->detail = "priority=" + std::to_string(*priority);
    if (*priority < V4L2_PRIORITY_BACKGROUND || *priority > V4L2_PRIORITY_RECORD)
        return EINVAL;
    file.priority = *priority;
    return 0;
}

} // namespace zsim::detail
