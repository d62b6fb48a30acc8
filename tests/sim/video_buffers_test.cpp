// Capture buffers of the simulated node: what REQBUFS grants, the planes
// QUERYBUF describes, and plane memory shared by every mapping and export.
#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "sim_fixture.h"
#include "video_test_node.h"

namespace {

using zelisp_test::BufferRecord;
using zelisp_test::VideoNode;

class VideoBuffersTest : public zelisp_test::SimTest {};

TEST_F(VideoBuffersTest, RequestGrantsWithinTheLimitAndZeroFrees)
{
    zsim::CameraConfig config;
    config.max_buffers = 4;
    zsim::set_camera(0, config);
    VideoNode node("/dev/video0");
    uint32_t count = 6;
    ASSERT_EQ(node.RequestBuffers(&count), 0);
    EXPECT_EQ(count, 4u);
    BufferRecord record(3);
    EXPECT_EQ(node.Request(VIDIOC_QUERYBUF, &record.buf), 0);
    count = 0;
    ASSERT_EQ(node.RequestBuffers(&count), 0);
    EXPECT_EQ(node.Request(VIDIOC_QUERYBUF, &record.buf), EINVAL);

    // A driver that grants a count of its own choosing.
    zsim::Quirks quirks;
    quirks.grant_buffers = 10;
    zsim::set_quirks(0, quirks);
    count = 5;
    ASSERT_EQ(node.RequestBuffers(&count), 0);
    EXPECT_EQ(count, 10u);

    ASSERT_EQ(node.Stream(VIDIOC_STREAMON), 0);
    EXPECT_EQ(node.RequestBuffers(&count), EBUSY);
    EXPECT_EQ(zsim::requests(uint32_t(VIDIOC_REQBUFS))[0].detail, "count=6 granted=4");
}

TEST_F(VideoBuffersTest, QueryDescribesOnePlanePerEnabledViewInViewOrder)
{
    zsim::CameraConfig config;
    config.views[2] = {zsim::kYUYV, 640, 360};
    zsim::set_camera(1, config);
    VideoNode node("/dev/video1");
    int input = 5; // views 0 and 2
    ASSERT_EQ(node.Request(VIDIOC_S_INPUT, &input), 0);
    uint32_t count = 3;
    ASSERT_EQ(node.RequestBuffers(&count), 0);

    BufferRecord first(0), second(1);
    ASSERT_EQ(node.Request(VIDIOC_QUERYBUF, &first.buf), 0);
    ASSERT_EQ(node.Request(VIDIOC_QUERYBUF, &second.buf), 0);
    EXPECT_EQ(first.buf.length, 2u);
    EXPECT_EQ(first.plane[0].length % 4096 + first.plane[1].length % 4096, 0u);
    EXPECT_GE(first.plane[0].length, 1920u * 1080u * 3 / 2);
    EXPECT_GE(first.plane[1].length, 640u * 360u * 2);
    EXPECT_LT(first.plane[1].length, first.plane[0].length);
    // Offsets tell buffer and plane apart.
    EXPECT_NE(first.plane[0].m.mem_offset, first.plane[1].m.mem_offset);
    EXPECT_NE(first.plane[0].m.mem_offset, second.plane[0].m.mem_offset);

    BufferRecord too_few(0, 1);
    EXPECT_EQ(node.Request(VIDIOC_QUERYBUF, &too_few.buf), EINVAL);

    VideoNode mode2("/dev/video13");
    count = 3;
    ASSERT_EQ(mode2.RequestBuffers(&count), 0);
    BufferRecord single(2, 1);
    ASSERT_EQ(mode2.Request(VIDIOC_QUERYBUF, &single.buf), 0);
    EXPECT_EQ(single.buf.length, 1u);
    EXPECT_EQ(single.plane[0].length, first.plane[0].length);
}

TEST_F(VideoBuffersTest, MappingsAndExportsOfAPlaneShareItsBytes)
{
    VideoNode node("/dev/video0");
    uint32_t count = 3;
    ASSERT_EQ(node.RequestBuffers(&count), 0);
    BufferRecord record(1);
    ASSERT_EQ(node.Request(VIDIOC_QUERYBUF, &record.buf), 0);
    const v4l2_plane &plane = record.plane[2];
    auto map = [&](int fd, off_t offset) {
        return static_cast<uint8_t *>(mmap(nullptr, plane.length, PROT_READ | PROT_WRITE, MAP_SHARED, fd, offset));
    };
    uint8_t *one = map(node.fd(), plane.m.mem_offset);
    uint8_t *two = map(node.fd(), plane.m.mem_offset);
    ASSERT_NE(one, MAP_FAILED);
    ASSERT_NE(two, MAP_FAILED);
    v4l2_exportbuffer exp{};
    exp.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    exp.index = 1;
    exp.plane = 2;
    ASSERT_EQ(node.Request(VIDIOC_EXPBUF, &exp), 0);
    uint8_t *exported = map(exp.fd, 0);
    ASSERT_NE(exported, MAP_FAILED);
    EXPECT_EQ(zsim::live_descriptors(), 2u);
    EXPECT_EQ(zsim::live_mappings(), 3u);

    std::memcpy(one + 100, "plane", 6);
    EXPECT_STREQ(reinterpret_cast<char *>(two + 100), "plane");
    EXPECT_STREQ(reinterpret_cast<char *>(exported + 100), "plane");

    // Offsets and sizes that name no plane, and private mappings, are refused.
    EXPECT_EQ(map(node.fd(), plane.m.mem_offset + 4096 * 64), MAP_FAILED);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(mmap(nullptr, plane.length, PROT_READ, MAP_PRIVATE, node.fd(), plane.m.mem_offset), MAP_FAILED);
    zsim::fail_request(zsim::kMmap, 1, ENOMEM);
    EXPECT_EQ(map(node.fd(), plane.m.mem_offset), MAP_FAILED);
    EXPECT_EQ(errno, ENOMEM);

    EXPECT_EQ(zsim::requests(uint32_t(VIDIOC_EXPBUF))[0].detail, "index=1 plane=2 fd=" + std::to_string(exp.fd));
    auto maps = zsim::requests(zsim::kMmap);
    ASSERT_EQ(maps.size(), 6u);
    EXPECT_EQ(maps[2].path, "/dev/video0/buffer1/plane2");
    EXPECT_EQ(maps[5].error, ENOMEM);

    // The memory outlives the buffers being freed, as DMA memory does.
    count = 0;
    ASSERT_EQ(node.RequestBuffers(&count), 0);
    EXPECT_STREQ(reinterpret_cast<char *>(exported + 100), "plane");
    // Unmapping part of a mapping leaves the rest held, as the kernel does.
    ASSERT_EQ(munmap(one, 4096), 0);
    EXPECT_EQ(zsim::live_mappings(), 3u);
    ASSERT_EQ(munmap(one + 4096, plane.length - 4096), 0);
    EXPECT_EQ(zsim::live_mappings(), 2u);
    for (uint8_t *mapping : {two, exported})
        EXPECT_EQ(munmap(mapping, plane.length), 0);
    EXPECT_EQ(zsim::requests(zsim::kMunmap).size(), 4u);
    EXPECT_EQ(close(exp.fd), 0);
}

} // namespace

namespace {

uint32_t Flags(const VideoNode &node, uint32_t index)
{
    BufferRecord record(index);
    EXPECT_EQ(node.Request(VIDIOC_QUERYBUF, &record.buf), 0);
    return record.buf.flags;
}

TEST_F(VideoBuffersTest, ABufferIsMarkedMappedWhileTheProgramMapsOrExportsIt)
{
    zsim::set_frame_mode(0, zsim::FrameMode::Scripted);
    VideoNode node("/dev/video0");
    int view_zero = 1;
    ASSERT_EQ(node.Request(VIDIOC_S_INPUT, &view_zero), 0);
    uint32_t count = 2;
    ASSERT_EQ(node.RequestBuffers(&count), 0);
    BufferRecord query(0);
    ASSERT_EQ(node.Request(VIDIOC_QUERYBUF, &query.buf), 0);
    EXPECT_EQ(query.buf.flags & V4L2_BUF_FLAG_MAPPED, 0u);
    const size_t length = query.plane[0].length;
    auto *mapped = static_cast<uint8_t *>(
        mmap(nullptr, length, PROT_READ, MAP_SHARED, node.fd(), query.plane[0].m.mem_offset));
    ASSERT_NE(mapped, MAP_FAILED);
    EXPECT_NE(Flags(node, 0) & V4L2_BUF_FLAG_MAPPED, 0u);
    EXPECT_EQ(Flags(node, 1) & V4L2_BUF_FLAG_MAPPED, 0u) << "the other buffer is not";
    // Queued and dequeued, it says so too.
    BufferRecord queued(0);
    ASSERT_EQ(node.Request(VIDIOC_QBUF, &queued.buf), 0);
    EXPECT_EQ(queued.buf.flags & (V4L2_BUF_FLAG_MAPPED | V4L2_BUF_FLAG_QUEUED),
              uint32_t(V4L2_BUF_FLAG_MAPPED | V4L2_BUF_FLAG_QUEUED));
    ASSERT_EQ(node.Stream(VIDIOC_STREAMON), 0);
    zsim::push_frame(0, zsim::ScriptedFrame{});
    BufferRecord dequeued;
    ASSERT_EQ(node.Request(VIDIOC_DQBUF, &dequeued.buf), 0);
    EXPECT_NE(dequeued.buf.flags & V4L2_BUF_FLAG_MAPPED, 0u);
    // Half unmapped is still mapped; all of it, not any more.
    ASSERT_EQ(munmap(mapped + 4096, length - 4096), 0);
    EXPECT_NE(Flags(node, 0) & V4L2_BUF_FLAG_MAPPED, 0u);
    ASSERT_EQ(munmap(mapped, 4096), 0);
    EXPECT_EQ(Flags(node, 0) & V4L2_BUF_FLAG_MAPPED, 0u);

    // An export is a use of the buffer's memory as long as it is open.
    v4l2_exportbuffer exported{};
    exported.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    exported.index = 1;
    ASSERT_EQ(node.Request(VIDIOC_EXPBUF, &exported), 0);
    EXPECT_NE(Flags(node, 1) & V4L2_BUF_FLAG_MAPPED, 0u);
    const int copy = dup(exported.fd);
    close(exported.fd);
    EXPECT_NE(Flags(node, 1) & V4L2_BUF_FLAG_MAPPED, 0u) << "a duplicate still holds it";
    close(copy);
    EXPECT_EQ(Flags(node, 1) & V4L2_BUF_FLAG_MAPPED, 0u);
}

TEST_F(VideoBuffersTest, ReadAndWriteFailAsOnADriverWithoutReadWriteIo)
{
    zsim::set_frame_mode(0, zsim::FrameMode::Scripted);
    VideoNode node("/dev/video0");
    uint32_t count = 1;
    ASSERT_EQ(node.RequestBuffers(&count), 0);
    BufferRecord record(0);
    ASSERT_EQ(node.Request(VIDIOC_QBUF, &record.buf), 0);
    ASSERT_EQ(node.Stream(VIDIOC_STREAMON), 0);
    zsim::ScriptedFrame frame;
    frame.sequence = 5;
    zsim::push_frame(0, frame);
    char bytes[64] = {};
    errno = 0;
    EXPECT_EQ(read(node.fd(), bytes, sizeof bytes), -1);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(write(node.fd(), bytes, sizeof bytes), -1);
    EXPECT_EQ(errno, EINVAL);
    // The attempt took nothing from the driver: the frame still waits.
    pollfd ready{node.fd(), POLLIN, 0};
    EXPECT_EQ(poll(&ready, 1, 0), 1);
    BufferRecord dequeued;
    ASSERT_EQ(node.Request(VIDIOC_DQBUF, &dequeued.buf), 0);
    EXPECT_EQ(dequeued.buf.sequence, 5u);

    v4l2_exportbuffer exported{};
    exported.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    ASSERT_EQ(node.Request(VIDIOC_EXPBUF, &exported), 0);
    errno = 0;
    EXPECT_EQ(read(exported.fd, bytes, sizeof bytes), -1) << "a DMA buffer has no read either";
    EXPECT_EQ(errno, EINVAL);
    close(exported.fd);
    // Other files read as ever.
    int pipe_ends[2];
    ASSERT_EQ(pipe(pipe_ends), 0);
    EXPECT_EQ(write(pipe_ends[1], "ok", 2), 2);
    EXPECT_EQ(read(pipe_ends[0], bytes, sizeof bytes), 2);
    close(pipe_ends[0]);
    close(pipe_ends[1]);
}

} // namespace
