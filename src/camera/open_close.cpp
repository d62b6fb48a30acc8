/*
 * open_close.cpp - the camera's node lifetime: finding and opening
 * /dev/video<n>, and giving back everything the camera holds.
 */
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "isp_video.h"
#include "library/messages.h"

namespace zelisp {

namespace {

// Open and Close put "video device " before the node path.
int NodeFailure(const IspVideo &video, const char *what, int result)
{
    char text[64];
    snprintf(text, sizeof(text), "video device %s %s", video.dev_path, what);
    EmitLine(ISP_MESSAGE_FAILURE, Console::CppStream, video.dev_path, text);
    return result;
}

} // namespace

int IspVideo::Open(uint32_t camera_index, int32_t open_mode)
{
    if (!StateAllows("Open", StateBit(VIDEO_CLOSED)))
        return ISP_ERR_STATE;

    // Each camera has two nodes: the multi-view node in mode 1 and, twelve
    // numbers up, the single-plane node in mode 2. Groups pass their mode
    // through unchecked, so anything but 2 means mode 1.
    int node = int(camera_index);
    mode = 1;
    if (open_mode == 2) {
        node += kModeTwoNodeOffset;
        mode = 2;
    }
    snprintf(dev_path, sizeof(dev_path), "/dev/video%d", node);

    struct stat status;
    if (stat(dev_path, &status) != 0)
        return NodeFailure(*this, "not exist", ISP_ERR_NO_NODE);
    if (!S_ISCHR(status.st_mode))
        return NodeFailure(*this, "not char dev", ISP_ERR_INVALID);

    // Non-blocking: a dequeue never sleeps in the driver; waiting for a
    // frame is done with a readiness wait on the descriptor instead.
    fd = open(dev_path, O_RDWR | O_NONBLOCK);
    if (fd < 0)
        return NodeFailure(*this, "open failed", ISP_ERR_OPEN);

    state = VIDEO_OPENED;
    return ISP_OK;
}

int IspVideo::Close()
{
    if (!StateAllows("Close", StateBit(VIDEO_OPENED) | StateBit(VIDEO_INITED) | StateBit(VIDEO_CAPTURING)))
        return ISP_ERR_STATE;

    // Streaming is not switched off first: closing the node ends the stream
    // in the driver, and the mappings must go before the node does.
    if (state == VIDEO_INITED || state == VIDEO_CAPTURING)
        ReleaseBuffers();
    if (close(fd) != 0)
        return NodeFailure(*this, "close failed", ISP_ERR_CLOSE);

    // The number is no longer ours: the next open() anywhere in the process
    // may be handed it, so the camera must not offer it to the native
    // descriptor query or the multi-camera wait.
    fd = -1;
    buffer_count = 0;
    state = VIDEO_CLOSED;
    return ISP_OK;
}

} // namespace zelisp
