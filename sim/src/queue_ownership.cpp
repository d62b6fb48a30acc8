/*
 * queue_ownership.cpp - which open file may use a node's buffer queue.
 *
 * With the kernel's buffer framework the file that allocates buffers owns
 * the queue until it frees them or is closed; another file of the same
 * node may read formats and controls, but its buffer and stream requests
 * fail with EBUSY. A duplicated descriptor is the same open file.
 */
#include <algorithm>
#include <cerrno>
#include <iterator>

#include "client_requests.h"

namespace zsim::detail {
namespace {

const uint32_t kQueueRequests[] = {
    VIDIOC_REQBUFS, VIDIOC_CREATE_BUFS, VIDIOC_PREPARE_BUF, VIDIOC_QBUF,
    VIDIOC_DQBUF,   VIDIOC_EXPBUF,      VIDIOC_STREAMON,    VIDIOC_STREAMOFF,
};

} // namespace

int check_queue_owner(State &s, int node, const std::shared_ptr<OpenFile> &file, uint32_t request, const void *)
{
    if (node >= kVideoNodes ||
        std::find(std::begin(kQueueRequests), std::end(kQueueRequests), request) == std::end(kQueueRequests))
        return 0;
    std::shared_ptr<OpenFile> owner = s.nodes[node].queue_owner.lock();
    return owner && owner != file ? EBUSY : 0;
}

void note_queue_owner(State &s, int node, const std::shared_ptr<OpenFile> &file, uint32_t request, const void *arg)
{
    if (node >= kVideoNodes || request != uint32_t(VIDIOC_REQBUFS) || !arg)
        return;
    const auto *req = static_cast<const v4l2_requestbuffers *>(arg);
    if (req->count)
        s.nodes[node].queue_owner = file;
    else
        s.nodes[node].queue_owner.reset();
}

} // namespace zsim::detail
