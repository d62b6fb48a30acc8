/*
 * video_test_node.h - raw access to a simulated video node for the
 * simulator's own tests: the V4L2 records built the way a client builds
 * them, and requests that report the errno instead of -1.
 */
#ifndef ZELISP_TESTS_SIM_VIDEO_TEST_NODE_H
#define ZELISP_TESTS_SIM_VIDEO_TEST_NODE_H

#include <cerrno>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace zelisp_test {

// 0 on success, else the errno the driver answered with.
inline int Request(int fd, unsigned long request, void *arg)
{
    return ioctl(fd, request, arg) == 0 ? 0 : errno;
}

// One open descriptor of a node, closed at the end of the scope.
class VideoNode {
public:
    explicit VideoNode(const std::string &path, int flags = O_RDWR | O_NONBLOCK) : fd_(open(path.c_str(), flags)) {}
    ~VideoNode()
    {
        if (fd_ >= 0)
            close(fd_);
    }
    VideoNode(const VideoNode &) = delete;
    VideoNode &operator=(const VideoNode &) = delete;
    int fd() const { return fd_; }

    int Request(unsigned long request, void *arg) const { return zelisp_test::Request(fd_, request, arg); }
    int RequestBuffers(uint32_t *count) const
    {
        v4l2_requestbuffers req{};
        req.count = *count;
        req.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
        req.memory = V4L2_MEMORY_MMAP;
        int err = Request(VIDIOC_REQBUFS, &req);
        *count = req.count;
        return err;
    }
    int Stream(unsigned long request) const
    {
        int type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
        return Request(request, &type);
    }
    v4l2_format Format() const
    {
        v4l2_format format{};
        format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
        Request(VIDIOC_G_FMT, &format);
        return format;
    }

private:
    int fd_;
};

// A buffer record for QUERYBUF/QBUF/DQBUF with room for three planes.
struct BufferRecord {
    explicit BufferRecord(uint32_t index = 0, uint32_t planes = 3)
    {
        buf.index = index;
        buf.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
        buf.memory = V4L2_MEMORY_MMAP;
        buf.m.planes = plane;
        buf.length = planes;
    }
    BufferRecord(const BufferRecord &) = delete; // buf points into the record
    v4l2_buffer buf{};
    v4l2_plane plane[3]{};
};

// Gives the node `count` buffers, queues them all and starts streaming; 0
// or the errno of the first request that failed.
inline int StreamAllQueued(const VideoNode &node, uint32_t count)
{
    if (int err = node.RequestBuffers(&count))
        return err;
    for (uint32_t i = 0; i < count; ++i) {
        BufferRecord record(i);
        if (int err = node.Request(VIDIOC_QBUF, &record.buf))
            return err;
    }
    return node.Stream(VIDIOC_STREAMON);
}

} // namespace zelisp_test

#endif
