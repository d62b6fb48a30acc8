// The hardware thread's frame clock and blocking dequeues. Bounds are
// generous and every wait has a deadline: the tests run in parallel on a
// loaded machine, so they check what the clock computes (sequence numbers,
// period-aligned timestamps, drop counts), never how fast it runs.
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <time.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <thread>

#include "driver/isp_requests.h"
#include "sim_fixture.h"
#include "video_test_node.h"

namespace {

using zelisp_test::BufferRecord;
using zelisp_test::VideoNode;

constexpr int kWaitMs = 5000;

uint64_t NowUs()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return uint64_t(now.tv_sec) * 1000000u + uint64_t(now.tv_nsec) / 1000u;
}

uint64_t TimestampUs(const v4l2_buffer &buf) { return uint64_t(buf.timestamp.tv_sec) * 1000000u + buf.timestamp.tv_usec; }

class StreamFreeRunningTest : public zelisp_test::SimTest {
protected:
    static void Start(const VideoNode &node, uint32_t buffers, bool queue)
    {
        uint32_t count = buffers;
        ASSERT_EQ(node.RequestBuffers(&count), 0);
        for (uint32_t i = 0; queue && i < buffers; ++i)
            ASSERT_EQ(Queue(node, i), 0);
        ASSERT_EQ(node.Stream(VIDIOC_STREAMON), 0);
    }
    static int Queue(const VideoNode &node, uint32_t index)
    {
        BufferRecord record(index);
        return node.Request(VIDIOC_QBUF, &record.buf);
    }
    // Waits (with a deadline) for the next frame and dequeues it.
    static int Next(const VideoNode &node, BufferRecord *out)
    {
        pollfd p{node.fd(), POLLIN, 0};
        if (poll(&p, 1, kWaitMs) != 1)
            return ETIMEDOUT;
        return node.Request(VIDIOC_DQBUF, &out->buf);
    }
};

TEST_F(StreamFreeRunningTest, EveryPeriodCountsAndPeriodsWithoutBufferAreDropped)
{
    zsim::CameraConfig config;
    config.fps = 120;
    zsim::set_camera(0, config);
    VideoNode node("/dev/video0");
    Start(node, 3, false);
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
    while (zsim::counters(0).dropped < 6 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    zsim::Counters before = zsim::counters(0);
    ASSERT_GE(before.dropped, 6u);
    EXPECT_EQ(before.delivered, 0u);

    for (uint32_t i = 0; i < 3; ++i)
        ASSERT_EQ(Queue(node, i), 0);
    BufferRecord first, second;
    ASSERT_EQ(Next(node, &first), 0);
    ASSERT_EQ(Next(node, &second), 0);
    // Sequence numbers count the dropped periods too.
    EXPECT_GE(first.buf.sequence, before.dropped);
    EXPECT_GT(second.buf.sequence, first.buf.sequence);
    // Frame times sit on the period grid of the camera's rate.
    double periods = double(TimestampUs(second.buf) - TimestampUs(first.buf)) / (1e6 / 120);
    EXPECT_NEAR(periods, double(second.buf.sequence - first.buf.sequence), 0.01);
    EXPECT_LE(TimestampUs(second.buf), NowUs()); // on CLOCK_MONOTONIC

    zsim::Counters after = zsim::counters(0);
    EXPECT_EQ(after.delivered, 2u);
    EXPECT_GE(after.produced, after.delivered + after.dropped);
    EXPECT_GT(after.produced, second.buf.sequence);
}

TEST_F(StreamFreeRunningTest, SequenceContinuesAcrossStreamOnUnlessTheDriverRestartsIt)
{
    VideoNode node("/dev/video1");
    Start(node, 3, true);
    BufferRecord frame;
    ASSERT_EQ(Next(node, &frame), 0);
    EXPECT_EQ(frame.buf.sequence, 0u); // the first period fills the first queued buffer
    ASSERT_EQ(node.Stream(VIDIOC_STREAMOFF), 0);
    for (uint32_t i = 0; i < 3; ++i)
        ASSERT_EQ(Queue(node, i), 0);
    ASSERT_EQ(node.Stream(VIDIOC_STREAMON), 0);
    ASSERT_EQ(Next(node, &frame), 0);
    EXPECT_GT(frame.buf.sequence, 0u);

    zsim::Quirks quirks;
    quirks.restart_sequence_on_streamon = true;
    zsim::set_quirks(1, quirks);
    ASSERT_EQ(node.Stream(VIDIOC_STREAMOFF), 0);
    for (uint32_t i = 0; i < 3; ++i)
        ASSERT_EQ(Queue(node, i), 0);
    ASSERT_EQ(node.Stream(VIDIOC_STREAMON), 0);
    ASSERT_EQ(Next(node, &frame), 0);
    EXPECT_EQ(frame.buf.sequence, 0u);
}

TEST_F(StreamFreeRunningTest, TriggeredCamerasShareOneFrameClock)
{
    VideoNode misc("/dev/isp_misc");
    uint32_t internal[5] = {0, 2, 0, 7, 0};
    ASSERT_EQ(misc.Request(zelisp::IOC_SET_MIPI_TRIGGER_MODE, internal), 0);
    ASSERT_NE(zsim::trigger_mode(), zsim::TriggerMode::None);
    VideoNode a("/dev/video0"), b("/dev/video2");
    // Buffers first: allocating paints them, which must not delay b's start.
    for (const VideoNode *node : {&a, &b}) {
        uint32_t count = 3;
        ASSERT_EQ(node->RequestBuffers(&count), 0);
        for (uint32_t i = 0; i < count; ++i)
            ASSERT_EQ(Queue(*node, i), 0);
    }
    ASSERT_EQ(a.Stream(VIDIOC_STREAMON), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(5)); // a different phase without the trigger
    ASSERT_EQ(b.Stream(VIDIOC_STREAMON), 0);
    BufferRecord from_a, from_b;
    ASSERT_EQ(Next(a, &from_a), 0);
    ASSERT_EQ(Next(b, &from_b), 0);
    // Both streams end their frames on the same ticks, however late b
    // started on a loaded machine: whole periods apart (5 ms, a sixth of a
    // period, without the trigger), to the microsecond of the timestamps.
    const double periods = (double(TimestampUs(from_b.buf)) - double(TimestampUs(from_a.buf))) / (1e6 / 30);
    EXPECT_NEAR(periods, std::round(periods), 2.0 / (1e6 / 30));
}

void IgnoreSignal(int) {}

TEST_F(StreamFreeRunningTest, BlockingDequeueWaitsWithoutHoldingTheDriver)
{
    zsim::set_frame_mode(0, zsim::FrameMode::Scripted);
    VideoNode node("/dev/video0", O_RDWR); // a blocking descriptor
    Start(node, 3, true);
    std::atomic<int> result{-1};
    BufferRecord out;
    std::thread waiter([&] { result = node.Request(VIDIOC_DQBUF, &out.buf); });
    // Requests from other threads go on while one thread waits for a frame.
    int input = 0;
    for (int i = 0; i < 5; ++i)
        ASSERT_EQ(node.Request(VIDIOC_G_INPUT, &input), 0);
    EXPECT_EQ(result.load(), -1);
    zsim::ScriptedFrame frame;
    frame.sequence = 42;
    zsim::push_frame(0, frame);
    waiter.join();
    EXPECT_EQ(result.load(), 0);
    EXPECT_EQ(out.buf.sequence, 42u);

    // A signal interrupts the wait.
    struct sigaction action {};
    action.sa_handler = IgnoreSignal; // no SA_RESTART
    struct sigaction previous {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, &previous), 0);
    std::atomic<bool> started{false};
    std::thread interrupted([&] {
        started = true;
        result = node.Request(VIDIOC_DQBUF, &out.buf);
    });
    while (!started)
        std::this_thread::yield();
    for (int tries = 0; result.load() != EINTR && tries < kWaitMs / 20; ++tries) {
        pthread_kill(interrupted.native_handle(), SIGUSR1);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    interrupted.join();
    EXPECT_EQ(result.load(), EINTR);
    sigaction(SIGUSR1, &previous, nullptr);

    // The descriptor's mode is read at each dequeue.
    ASSERT_EQ(fcntl(node.fd(), F_SETFL, O_RDWR | O_NONBLOCK), 0);
    EXPECT_EQ(node.Request(VIDIOC_DQBUF, &out.buf), EAGAIN);
}

} // namespace
