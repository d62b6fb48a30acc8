// Faults a flaky camera has, as V4L2 test drivers inject them: a buffer
// handed back with V4L2_BUF_FLAG_ERROR, frames lost at random at a set
// rate, and a camera unplugged while it streams; each as a client sees it
// on the node, and with what the library makes of it.
#include <poll.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "sim_fixture.h"
#include "video_test_node.h"
#include "zelisp.h"

namespace {

using zelisp_test::BufferRecord;
using zelisp_test::Captured;
using zelisp_test::VideoNode;

constexpr int kWaitMs = 10000;

class FaultInjectionTest : public zelisp_test::SimTest {
protected:
    // Camera 0 through the library: view 0 only, three buffers, streaming.
    unsigned long StartLibraryCamera()
    {
        const unsigned long handle = isp_open_video(0, 1);
        EXPECT_NE(handle, 0u);
        zelisp_test::Quiet quiet;
        EXPECT_EQ(isp_init_video(handle, 1, 3), ISP_OK);
        EXPECT_EQ(isp_start_capture(handle), ISP_OK);
        return handle;
    }
    // A scripted frame of camera 0, a frame period after the last.
    static void Push(uint32_t sequence, bool error = false)
    {
        zsim::ScriptedFrame frame;
        frame.sequence = sequence;
        frame.timestamp_us = 1000000 + uint64_t(sequence) * 33333;
        frame.error = error;
        zsim::push_frame(0, frame);
    }
};

TEST_F(FaultInjectionTest, ABufferHandedBackWithTheErrorFlag)
{
    zsim::set_frame_mode(0, zsim::FrameMode::Scripted);
    VideoNode node("/dev/video0");
    ASSERT_EQ(zelisp_test::StreamAllQueued(node, 2), 0);
    Push(1, true);
    Push(2);
    BufferRecord bad, good;
    ASSERT_EQ(node.Request(VIDIOC_DQBUF, &bad.buf), 0);
    ASSERT_EQ(node.Request(VIDIOC_DQBUF, &good.buf), 0);
    EXPECT_EQ(bad.buf.sequence, 1u);
    EXPECT_NE(bad.buf.flags & V4L2_BUF_FLAG_ERROR, 0u);
    EXPECT_EQ(good.buf.flags & V4L2_BUF_FLAG_ERROR, 0u) << "the flag is the frame's, not the buffer's";
}

TEST_F(FaultInjectionTest, TheLibraryHandsOverAFrameTheDriverFlaggedInError)
{
    zsim::set_frame_mode(0, zsim::FrameMode::Scripted);
    const unsigned long handle = StartLibraryCamera();
    Push(1, true);
    zelvideo::_isp_buf_t frame{};
    const zelisp_test::Call got = Captured([&] { return isp_get_frame_buf(handle, &frame, kWaitMs); });
    // The library does not look at the flag: the frame comes as any other.
    EXPECT_EQ(got.result, ISP_OK);
    EXPECT_EQ(got.out, "");
    EXPECT_EQ(frame.views[0].sequence, 1u);
    EXPECT_EQ(isp_put_frame_buf(handle, &frame), ISP_OK);
    zelisp_test::Quiet quiet;
    EXPECT_EQ(isp_close_video(handle), ISP_OK);
}

TEST_F(FaultInjectionTest, EveryNthFreeRunningFrameComesBackInError)
{
    zsim::CameraConfig config;
    config.fps = 100;
    config.error_every = 3;
    zsim::set_camera(0, config);
    VideoNode node("/dev/video0");
    ASSERT_EQ(zelisp_test::StreamAllQueued(node, 8), 0);
    for (int i = 0; i < 9; ++i) {
        pollfd ready{node.fd(), POLLIN, 0};
        ASSERT_EQ(poll(&ready, 1, kWaitMs), 1);
        BufferRecord frame;
        ASSERT_EQ(node.Request(VIDIOC_DQBUF, &frame.buf), 0);
        EXPECT_EQ((frame.buf.flags & V4L2_BUF_FLAG_ERROR) != 0, frame.buf.sequence % 3 == 2) << frame.buf.sequence;
        ASSERT_EQ(node.Request(VIDIOC_QBUF, &frame.buf), 0);
    }
}

TEST_F(FaultInjectionTest, FramesAreLostAtRandomAtTheConfiguredRate)
{
    zsim::CameraConfig config;
    config.fps = 100;
    config.max_buffers = 32;
    config.drop_percent = 30;
    zsim::set_camera(0, config);
    VideoNode node("/dev/video0");
    // Thirty-two buffers queued and none given back: the first thirty
    // frames never find the queue empty, however slow this reader, so every
    // gap in their sequence numbers is a frame lost at random.
    ASSERT_EQ(zelisp_test::StreamAllQueued(node, 32), 0);
    std::vector<uint32_t> sequences;
    while (sequences.size() < 30) {
        pollfd ready{node.fd(), POLLIN, 0};
        ASSERT_EQ(poll(&ready, 1, kWaitMs), 1);
        BufferRecord frame;
        ASSERT_EQ(node.Request(VIDIOC_DQBUF, &frame.buf), 0);
        sequences.push_back(frame.buf.sequence);
    }
    const uint32_t periods = sequences.back() + 1;
    const double lost = 1.0 - double(sequences.size()) / periods;
    EXPECT_GT(lost, 0.15);
    EXPECT_LT(lost, 0.45);
    EXPECT_GE(zsim::counters(0).dropped, periods - sequences.size());
}

TEST_F(FaultInjectionTest, AnUnpluggedCameraIsGoneForEveryRequestButClose)
{
    zsim::set_frame_mode(0, zsim::FrameMode::Scripted);
    VideoNode node("/dev/video0"), other("/dev/video1");
    uint32_t count = 2;
    ASSERT_EQ(node.RequestBuffers(&count), 0);
    BufferRecord record(0);
    ASSERT_EQ(node.Request(VIDIOC_QBUF, &record.buf), 0);
    ASSERT_EQ(node.Stream(VIDIOC_STREAMON), 0);
    zsim::disconnect_camera(0);

    // The nodes vanish from /dev.
    struct stat st;
    EXPECT_EQ(stat("/dev/video0", &st), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(stat("/dev/video12", &st), -1);
    EXPECT_EQ(open("/dev/video0", O_RDWR), -1);
    EXPECT_EQ(errno, ENOENT);
    // What is left open answers ENODEV, and its waits end with an error.
    v4l2_capability caps{};
    EXPECT_EQ(node.Request(VIDIOC_QUERYCAP, &caps), ENODEV);
    BufferRecord frame;
    EXPECT_EQ(node.Request(VIDIOC_DQBUF, &frame.buf), ENODEV);
    char byte;
    EXPECT_EQ(read(node.fd(), &byte, 1), -1);
    EXPECT_EQ(errno, ENODEV);
    pollfd wait{node.fd(), POLLIN | POLLPRI, 0};
    EXPECT_EQ(poll(&wait, 1, kWaitMs), 1);
    EXPECT_EQ(wait.revents & (POLLERR | POLLHUP | POLLPRI), POLLERR | POLLHUP | POLLPRI);
    timespec now{0, 0};
    wait.revents = 0;
    EXPECT_EQ(ppoll(&wait, 1, &now, nullptr), 1);
    EXPECT_NE(wait.revents & POLLERR, 0);
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(node.fd(), &readable);
    timeval limit{10, 0};
    EXPECT_EQ(select(node.fd() + 1, &readable, nullptr, nullptr, &limit), 1);
    EXPECT_TRUE(FD_ISSET(node.fd(), &readable));
    // Another camera goes on.
    EXPECT_EQ(other.Request(VIDIOC_QUERYCAP, &caps), 0);
    // Plugged back by the board's reset.
    zsim::reset();
    EXPECT_EQ(stat("/dev/video0", &st), 0);
}

TEST_F(FaultInjectionTest, TheLibrarySeesAnUnpluggedCameraFailItsRequests)
{
    zsim::set_frame_mode(0, zsim::FrameMode::Scripted);
    const unsigned long handle = StartLibraryCamera();
    zsim::disconnect_camera(0);
    zelvideo::_isp_buf_t frame{};
    const zelisp_test::Call got = Captured([&] { return isp_get_frame_buf(handle, &frame, kWaitMs); });
    EXPECT_EQ(got.result, ISP_ERR_REQUEST);
    EXPECT_EQ(got.out, "/dev/video0 get frame failed\n");
    EXPECT_EQ(got.err, "");
    const zelisp_test::Call stopped = Captured([&] { return isp_stop_capture(handle); });
    EXPECT_EQ(stopped.result, ISP_ERR_REQUEST);
    EXPECT_EQ(stopped.out, "/dev/video0stream off failed\n");
    EXPECT_EQ(stopped.err, "");
    const zelisp_test::Call closed = Captured([&] { return isp_close_video(handle); });
    EXPECT_EQ(closed.result, ISP_OK) << "closing works, as on a removed device";
}

TEST_F(FaultInjectionTest, ACameraSetToUnplugAfterSomeFramesGivesJustThose)
{
    zsim::CameraConfig config;
    config.fps = 100;
    config.disconnect_after = 5;
    zsim::set_camera(0, config);
    VideoNode node("/dev/video0");
    ASSERT_EQ(zelisp_test::StreamAllQueued(node, 8), 0);
    // Frames still waiting when the camera goes are lost with it, so a slow
    // reader gets fewer than five.
    int delivered = 0, err = 0;
    while (delivered < 10) {
        pollfd ready{node.fd(), POLLIN, 0};
        ASSERT_EQ(poll(&ready, 1, kWaitMs), 1);
        BufferRecord frame;
        if ((err = node.Request(VIDIOC_DQBUF, &frame.buf)) != 0)
            break;
        EXPECT_LT(frame.buf.sequence, 5u);
        ++delivered;
    }
    EXPECT_LE(delivered, 5);
    EXPECT_EQ(err, ENODEV);
    EXPECT_EQ(zsim::counters(0).produced, 5u);
}

} // namespace
