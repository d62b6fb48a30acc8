/*
 * frame_path.cpp - the readers of the frame-path comparison.
 */
#include "frame_path.h"

#include <linux/videodev2.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/select.h>

namespace zelisp_bench {

namespace {

constexpr int32_t kTimeoutMs = 1000;

// Waits for the node as an application without the library would, with
// select (the classic loop) or poll (what the library itself sends).
bool WaitReadable(int fd, bool use_poll)
{
    if (use_poll) {
        pollfd node = {fd, POLLIN, 0};
        return poll(&node, 1, kTimeoutMs) > 0;
    }
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(fd, &readable);
    timeval timeout{kTimeoutMs / 1000, 0};
    return select(fd + 1, &readable, nullptr, nullptr, &timeout) > 0;
}

// Wait for the node, take the filled buffer, give it straight back. Kept
// out of line so that callgrind can collect exactly this function.
__attribute__((noinline)) bool HandWrittenFrame(int fd, bool use_poll)
{
    if (!WaitReadable(fd, use_poll))
        return false;

    v4l2_plane planes[3] = {};
    v4l2_buffer buffer{};
    buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    buffer.memory = V4L2_MEMORY_MMAP;
    buffer.m.planes = planes;
    buffer.length = 3;
    if (ioctl(fd, VIDIOC_DQBUF, &buffer) < 0)
        return false;

    v4l2_plane queue_planes[3] = {};
    v4l2_buffer queue{};
    queue.index = buffer.index;
    queue.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    queue.memory = V4L2_MEMORY_MMAP;
    queue.m.planes = queue_planes;
    queue.length = 3;
    return ioctl(fd, VIDIOC_QBUF, &queue) == 0;
}

} // namespace

FramePath::FramePath()
{
    ResetSimulator();
    zsim::set_frame_mode(kCamera, zsim::FrameMode::Scripted);
    handle_ = StartCamera(kCamera, kCombination, kBuffers);
    int64_t fd = -1;
    int result = isp_camera_get_native_fd(handle_, &fd);
    if (result != 0)
        Fail("isp_camera_get_native_fd", result);
    fd_ = int(fd);
}

FramePath::~FramePath() { StopCamera(handle_); }

void FramePath::Script(int frames)
{
    for (int i = 0; i < frames; ++i)
        zsim::push_frame(kCamera, clock_.Next());
    zsim::clear_log();
}

bool FramePath::LibraryFrames(int frames)
{
    for (int i = 0; i < frames; ++i) {
        if (isp_get_frame_buf(handle_, &frame_, kTimeoutMs) != 0)
            return false;
        if (isp_put_frame_buf(handle_, &frame_) != 0)
            return false;
    }
    return true;
}

bool FramePath::SelectLoopFrames(int frames)
{
    for (int i = 0; i < frames; ++i)
        if (!HandWrittenFrame(fd_, false))
            return false;
    return true;
}

bool FramePath::PollLoopFrames(int frames)
{
    for (int i = 0; i < frames; ++i)
        if (!HandWrittenFrame(fd_, true))
            return false;
    return true;
}

} // namespace zelisp_bench
