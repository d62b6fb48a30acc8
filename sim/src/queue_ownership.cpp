/*
 * queue_ownership.cpp - which open file, and which process of the board,
 * may use a node's buffer queue.
 *
 * With the kernel's buffer framework the file that allocates buffers owns
 * the queue until it frees them or is closed; another file of the same
 * node may read formats and controls, but its buffer and stream requests
 * fail with EBUSY. A duplicated descriptor is the same open file. Across
 * the board's processes the same holds per process (board_state.h): a
 * process owns a node's queue exactly while it has buffers allocated on
 * it, and while it does, no other process may change the camera's set-up
 * (formats, input, rate, resize), which its buffers and frames depend on.
 */
#include <algorithm>
#include <cerrno>
#include <iterator>

#include "board_state.h"
#include "client_requests.h"
#include "driver/isp_requests.h"

namespace zsim::detail {
namespace {

const uint32_t kQueueRequests[] = {
    VIDIOC_REQBUFS, VIDIOC_CREATE_BUFS, VIDIOC_PREPARE_BUF, VIDIOC_QBUF,
    VIDIOC_DQBUF,   VIDIOC_EXPBUF,      VIDIOC_STREAMON,    VIDIOC_STREAMOFF,
};

const uint32_t kSetupRequests[] = {
    VIDIOC_S_FMT, VIDIOC_S_INPUT, VIDIOC_S_PARM, uint32_t(zelisp::VIDIOC_ISP_SET_RESIZE),
};

template <size_t N>
bool listed(const uint32_t (&requests)[N], uint32_t request)
{
    return std::find(std::begin(requests), std::end(requests), request) != std::end(requests);
}

// Another process's claim on the node's queue: a process with buffers on
// the node holds the claim itself, which spares the frame path the board.
int check_other_process(State &s, int node, uint32_t request, const void *arg)
{
    if (!s.nodes[node].buffers.empty())
        return 0;
    const auto *req = static_cast<const v4l2_requestbuffers *>(arg);
    if (request == uint32_t(VIDIOC_REQBUFS) && req && req->count) {
        bool claimed;
        return claim_queue(node, &claimed);
    }
    return queue_owned_elsewhere(node) ? EBUSY : 0;
}

} // namespace

bool changes_setup(uint32_t request) { return listed(kSetupRequests, request); }

int check_queue_owner(State &s, int node, const std::shared_ptr<OpenFile> &file, uint32_t request, const void *arg)
{
    if (node >= kVideoNodes)
        return 0;
    if (changes_setup(request) && camera_streamed_elsewhere(camera_of_node(node)))
        return EBUSY;
    if (!listed(kQueueRequests, request))
        return 0;
    std::shared_ptr<OpenFile> owner = s.nodes[node].queue_owner.lock();
    if (owner && owner != file)
        return EBUSY;
    return check_other_process(s, node, request, arg);
}

void settle_queue_claim(State &s, int node)
{
    if (node < kVideoNodes && s.nodes[node].buffers.empty())
        release_queue_claim(node);
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
