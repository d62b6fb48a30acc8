/* Streaming and the frame loop, on scripted frames. */
#include <sys/resource.h>

#include <cerrno>
#include <chrono>
#include <iostream>
#include <sstream>
#include <thread>

#include "camera_fixture.h"

namespace zelisp_test {
namespace {

constexpr int kWaitMs = 5000; // generous: returns as soon as the frame is there

using Frames = CameraTest;

std::vector<uint32_t> QueuedIndices()
{
    std::vector<uint32_t> indices;
    for (const v4l2_buffer &buffer : Sent<v4l2_buffer>(VIDIOC_QBUF))
        indices.push_back(buffer.index);
    return indices;
}

TEST_F(Frames, StartQueuesEveryBufferAndFailuresKeepTheState)
{
    unsigned long queue_fails = Inited(7, 4, 0);
    unsigned long on_fails = Inited(7, 3, 1);
    unsigned long off_fails = Inited(7, 3, 2);
    ASSERT_EQ(isp_start_capture(off_fails), ISP_OK);
    zsim::fail_request(VIDIOC_QBUF, 3, EIO, "/dev/video0");
    zsim::fail_request(VIDIOC_STREAMON, 1, EIO, "/dev/video1");
    zsim::fail_request(VIDIOC_STREAMOFF, 1, EIO, "/dev/video2");
    zsim::clear_log();
    Call call = Captured([&] {
        EXPECT_EQ(isp_start_capture(queue_fails), ISP_ERR_REQUEST);
        EXPECT_EQ(isp_start_capture(on_fails), ISP_ERR_REQUEST);
        EXPECT_EQ(isp_start_capture(off_fails), ISP_ERR_STATE);
        EXPECT_EQ(isp_put_frame_buf_by_index(on_fails, 0), ISP_ERR_STATE);
        return isp_stop_capture(off_fails);
    });
    EXPECT_EQ(call.result, ISP_ERR_REQUEST);
    EXPECT_EQ(call.out, "/dev/video0 queue buffer 2 failed\n"
                        "/dev/video1 stream on failed\n"
                        "StartCapture: bad state 4\n"
                        "PutFrame: bad state 2\n"
                        "/dev/video2stream off failed\n");
    EXPECT_EQ(QueuedIndices(), (std::vector<uint32_t>{0, 1, 2, 0, 1, 2}));
    EXPECT_EQ(Video(on_fails).state, uint32_t(zelisp::VIDEO_INITED));
    EXPECT_EQ(Video(off_fails).state, uint32_t(zelisp::VIDEO_CAPTURING));
    zsim::clear_faults();
    ASSERT_EQ(isp_stop_capture(off_fails), ISP_OK);
    EXPECT_EQ(Captured([&] { return isp_stop_capture(off_fails); }).out, "StopCapture: bad state 2\n");
}

TEST_F(Frames, TimeLimitZeroPositiveAndNegative)
{
    unsigned long handle = Capturing();
    zelvideo::_isp_buf_t frame;
    EXPECT_EQ(isp_get_frame_buf(handle, &frame, 0), ISP_ERR_NOT_READY);
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(isp_get_frame_buf(handle, &frame, 100), ISP_ERR_TIMEOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(95));
    std::thread hardware([] { Push(1, 1000000); }); // before or during the wait: either way it ends it
    EXPECT_EQ(isp_get_frame_buf(handle, &frame, -1), ISP_OK);
    hardware.join();
    EXPECT_EQ(frame.views[0].sequence, 1u);
    EXPECT_EQ(isp_get_frame_buf(handle, nullptr, 0), ISP_ERR_INVALID);
}

TEST_F(Frames, FrameMustFollowTheLastAcceptedInSequenceAndTime)
{
    unsigned long handle = Capturing(1, 4);
    Push(7, 1000000); // first frame: accepted unconditionally
    Push(8, 1011999); // 11999 us later: refused
    Push(8, 1012000); // 12000 us later: accepted
    Push(8, 2000000); // same sequence: refused
    Push(9, 1000500); // earlier than the last accepted frame: refused
    Push(9, 2000000);
    std::vector<int> results;
    zelvideo::_isp_buf_t frame;
    Call call = Captured([&] {
        for (int i = 0; i < 6; ++i) {
            results.push_back(isp_get_frame_buf(handle, &frame, kWaitMs));
            if (results.back() == ISP_OK) {
                EXPECT_EQ(isp_put_frame_buf(handle, &frame), ISP_OK);
            }
        }
        return 0;
    });
    EXPECT_EQ(results, (std::vector<int>{0, ISP_ERR_REQUEST, 0, ISP_ERR_REQUEST, ISP_ERR_REQUEST, 0}));
    EXPECT_EQ(call.out, "/dev/video0ERROR: buf_ts = 1011999seq = 8mlast = 1000000last seq = 7\n"
                        "/dev/video0 ERROR: frame sequencecur seq = 8last seq = 8\n"
                        "/dev/video0ERROR: buf_ts = 1000500seq = 9mlast = 1012000last seq = 8\n");
    EXPECT_EQ(frame.views[0].sequence, 9u);
    EXPECT_EQ(frame.views[0].timestamp, 2000000u);
    EXPECT_EQ(zsim::counters(0).delivered, 6u);
}

// Device lines go through std::cout, so an application that sends the
// stream elsewhere finds them there, byte for byte, and none on fd 1.
TEST_F(Frames, DeviceLinesFollowARedirectedStandardOutputStream)
{
    unsigned long handle = Capturing(1, 4);
    Push(4294967294u, 18000000000000000u);
    Push(4294967295u, 18000000000011999u);
    Push(4294967294u, 18000000000012000u);
    std::ostringstream redirected;
    std::streambuf *console = std::cout.rdbuf(redirected.rdbuf());
    zelvideo::_isp_buf_t frame;
    Call call = Captured([&] {
        EXPECT_EQ(isp_get_frame_buf(handle, &frame, kWaitMs), ISP_OK);
        EXPECT_EQ(isp_get_frame_buf(handle, &frame, kWaitMs), ISP_ERR_REQUEST);
        return isp_get_frame_buf(handle, &frame, kWaitMs);
    });
    std::cout.rdbuf(console);
    EXPECT_EQ(call.result, ISP_ERR_REQUEST);
    EXPECT_EQ(call.out, "");
    EXPECT_EQ(redirected.str(), "/dev/video0ERROR: buf_ts = 18000000000011999seq = 4294967295mlast = "
                                "18000000000000000last seq = 4294967294\n"
                                "/dev/video0 ERROR: frame sequencecur seq = 4294967294last seq = 4294967294\n");
}

TEST_F(Frames, HistorySurvivesStopAndStartAndSequenceZeroSkipsTheCheck)
{
    unsigned long handle = Capturing(1, 3);
    zelvideo::_isp_buf_t frame;
    Push(0, 5000000);
    Push(0, 5040000); // last_sequence is still 0: only the time is checked
    Push(5, 5080000);
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(isp_get_frame_buf(handle, &frame, kWaitMs), ISP_OK); // all held across the stop
    ASSERT_EQ(isp_stop_capture(handle), ISP_OK);
    ASSERT_EQ(isp_start_capture(handle), ISP_OK);
    Push(1, 9000000); // a driver that restarted its count
    Push(6, 9040000);
    Call call = Captured([&] {
        EXPECT_EQ(isp_get_frame_buf(handle, &frame, kWaitMs), ISP_ERR_REQUEST);
        return isp_get_frame_buf(handle, &frame, kWaitMs);
    });
    EXPECT_EQ(call.result, ISP_OK);
    EXPECT_EQ(call.out, "/dev/video0 ERROR: frame sequencecur seq = 1last seq = 5\n");
    EXPECT_EQ(frame.views[0].sequence, 6u);
}

TEST_F(Frames, PlanesFillTheEntriesOfTheirViews)
{
    unsigned long handle = Capturing(6, 3);
    zsim::ScriptedFrame scripted;
    scripted.sequence = 3;
    scripted.timestamp_us = 7000123;
    scripted.reserved = 0xC0FFEE;
    scripted.plane_length[0] = 1000;
    scripted.plane_length[1] = 2000;
    zsim::push_frame(0, scripted);
    zelvideo::_isp_buf_t frame;
    ASSERT_EQ(isp_get_frame_buf(handle, &frame, kWaitMs), ISP_OK);
    EXPECT_EQ(std::memcmp(&frame, &Video(handle).buffers[frame.index], sizeof(frame)), 0);
    EXPECT_EQ(frame.views[1].length, 1000u);
    EXPECT_EQ(frame.views[2].length, 2000u);
    for (int view : {1, 2}) {
        EXPECT_EQ(frame.views[view].sequence, 3u);
        EXPECT_EQ(frame.views[view].timestamp, 7000123u);
        EXPECT_EQ(frame.views[view].driver_data, 0xC0FFEEu);
    }
    EXPECT_EQ(frame.views[0].addr, nullptr);
    EXPECT_EQ(frame.views[0].sequence, 0u);
}

TEST_F(Frames, PutBackChecksOnlyWhatTheDriverCannot)
{
    unsigned long handle = Capturing(7, 4);
    zsim::clear_log();
    zelvideo::_isp_buf_t unknown = {}, queued = {};
    unknown.index = 4;
    queued.index = 1;
    Call call = Captured([&] {
        EXPECT_EQ(isp_put_frame_buf_by_index(handle, 4), ISP_ERR_INVALID);
        EXPECT_EQ(isp_put_frame_buf_by_index(handle, -1), ISP_ERR_INVALID);
        EXPECT_EQ(isp_put_frame_buf(handle, &unknown), ISP_ERR_REQUEST);
        EXPECT_EQ(isp_put_frame_buf(handle, &queued), ISP_ERR_REQUEST);
        return isp_put_frame_buf_by_index(handle, 2);
    });
    EXPECT_EQ(call.result, ISP_ERR_REQUEST);
    EXPECT_EQ(call.out, "/dev/video0 put frame failed\n/dev/video0 put frame failed\n/dev/video0 put frame failed\n");
    EXPECT_EQ(QueuedIndices(), (std::vector<uint32_t>{4, 1, 2}));
}

TEST_F(Frames, DequeueFailureIsReportedAndCloseWhileStreamingReleasesAll)
{
    unsigned long handle = Capturing(7, 4);
    Push(1, 1000000);
    Push(2, 1040000);
    zsim::fail_request(VIDIOC_DQBUF, 1, EIO);
    zelvideo::_isp_buf_t frame;
    Call call = Captured([&] { return isp_get_frame_buf(handle, &frame, kWaitMs); });
    EXPECT_EQ(call.result, ISP_ERR_REQUEST);
    EXPECT_EQ(call.out, "/dev/video0 get frame failed\n");
    ASSERT_EQ(isp_get_frame_buf(handle, &frame, kWaitMs), ISP_OK);
    zsim::Quirks quirks;
    quirks.dequeue_index = 9; // a buffer the table does not have
    zsim::set_quirks(0, quirks);
    EXPECT_EQ(Captured([&] { return isp_get_frame_buf(handle, &frame, kWaitMs); }).out,
              "/dev/video0 get frame failed\n");
    EXPECT_EQ(frame.views[0].sequence, 1u);
    EXPECT_EQ(Close(handle), ISP_OK); // holding a frame, streaming on
    EXPECT_TRUE(zsim::requests(VIDIOC_STREAMOFF).empty());
}

TEST_F(Frames, NodeAboveTheSelectLimitIsStillWaitedOn)
{
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_max < 2048)
        GTEST_SKIP() << "the descriptor limit is too low to place a node above 1024";
    rlimit raised = {2048, limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &raised), 0);
    zsim::Quirks quirks;
    quirks.descriptor_floor = 1024;
    zsim::set_quirks(0, quirks);
    unsigned long handle = Capturing(1, 3);
    EXPECT_GE(Video(handle).fd, 1024);
    zelvideo::_isp_buf_t frame;
    EXPECT_EQ(isp_get_frame_buf(handle, &frame, 20), ISP_ERR_TIMEOUT);
    Push(1, 1000000);
    EXPECT_EQ(isp_get_frame_buf(handle, &frame, kWaitMs), ISP_OK);
    ASSERT_EQ(Close(handle), ISP_OK);
    setrlimit(RLIMIT_NOFILE, &limit);
}

} // namespace
} // namespace zelisp_test
