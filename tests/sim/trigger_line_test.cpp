// A board wired to a trigger line: in external trigger mode its cameras
// take their frames on the line's pulses, host instants phase + k x period
// (plus the board's delay), and stamp them with the board's own clock; in
// internal mode, or with no line wired, they follow the board's own ticks.
// The tests turn each stamp back into the host's time with the board's
// known offset and drift and check where it falls.
#include <poll.h>
#include <sys/syscall.h>

#include <vector>

#include "driver/isp_requests.h"
#include "sim_fixture.h"
#include "video_test_node.h"

namespace {

using zelisp_test::BufferRecord;
using zelisp_test::VideoNode;

constexpr int64_t kSecond = 1000000000;
constexpr int64_t kStampResolution = 2000; // microsecond timestamps, rounding of the conversions

struct Frame {
    uint32_t sequence;
    int64_t stamp_ns; // the board's monotonic clock
};

class TriggerLineTest : public zelisp_test::SimTest {
protected:
    static void SetTrigger(uint32_t mode)
    {
        VideoNode misc("/dev/isp_misc");
        uint32_t record[5] = {mode, 0, 0, 0, 0};
        ASSERT_EQ(misc.Request(zelisp::IOC_SET_MIPI_TRIGGER_MODE, record), 0);
    }
    static void Start(const VideoNode &node) { ASSERT_EQ(zelisp_test::StreamAllQueued(node, 4), 0); }
    // The next `count` frames, each buffer queued again at once.
    static std::vector<Frame> Frames(const VideoNode &node, int count)
    {
        std::vector<Frame> frames;
        for (int i = 0; i < count; ++i) {
            pollfd ready{node.fd(), POLLIN, 0};
            if (poll(&ready, 1, 10000) != 1)
                break;
            BufferRecord record;
            if (node.Request(VIDIOC_DQBUF, &record.buf) != 0)
                break;
            frames.push_back({record.buf.sequence, int64_t(record.buf.timestamp.tv_sec) * kSecond +
                                                       record.buf.timestamp.tv_usec * 1000});
            BufferRecord again(record.buf.index);
            node.Request(VIDIOC_QBUF, &again.buf);
        }
        return frames;
    }
    // The host's CLOCK_MONOTONIC time at which the board's clock read `board`.
    static int64_t HostTime(int64_t board, const zsim::BoardClock &clock)
    {
        const int64_t start = zsim::board_start_ns();
        return start + int64_t(__int128(board - clock.offset_ns - start) * kSecond / (kSecond + clock.drift_ppb));
    }
    // How far `at` lies from the nearest instant first + k x period.
    static int64_t OffGrid(int64_t at, int64_t first, int64_t period)
    {
        const int64_t from = ((at - first) % period + period) % period;
        return from < period / 2 ? from : from - period;
    }
};

TEST_F(TriggerLineTest, ExternalTriggerTakesFramesOnTheLinesPulsesStampedByTheBoard)
{
    const zsim::BoardClock clock{3250000000, 30000};
    zsim::set_board_clock(clock);
    zsim::TriggerLine line;
    line.name = "rig";
    line.period_ns = kSecond / 120;
    line.phase_ns = 4321000;
    line.delay_ns = 250000;
    zsim::set_trigger_line(line);
    EXPECT_EQ(zsim::trigger_line().name, "rig");
    zsim::CameraConfig fast, slow;
    fast.fps = 120;
    slow.fps = 60; // ready again only at every other pulse
    zsim::set_camera(0, fast);
    zsim::set_camera(1, slow);
    SetTrigger(1);

    VideoNode a("/dev/video0"), b("/dev/video1");
    Start(a);
    Start(b);
    const std::vector<Frame> from_a = Frames(a, 12), from_b = Frames(b, 6);
    ASSERT_EQ(from_a.size(), 12u);
    ASSERT_EQ(from_b.size(), 6u);
    for (const auto *frames : {&from_a, &from_b})
        for (const Frame &frame : *frames)
            EXPECT_LE(std::abs(OffGrid(HostTime(frame.stamp_ns, clock), int64_t(line.phase_ns + line.delay_ns),
                                       int64_t(line.period_ns))),
                      kStampResolution)
                << "frame " << frame.sequence << " is off the line's pulses";
    // One pulse per frame for the camera as fast as the line, every other
    // pulse for the one at half its rate; the board's clock, running fast,
    // measures the periods a little longer.
    for (const auto &[frames, pulses] : {std::make_pair(&from_a, 1), std::make_pair(&from_b, 2)})
        for (size_t i = 1; i < frames->size(); ++i) {
            const Frame &before = (*frames)[i - 1], &after = (*frames)[i];
            const int64_t host_gap = HostTime(after.stamp_ns, clock) - HostTime(before.stamp_ns, clock);
            const int64_t expected = pulses * int64_t(line.period_ns) * int64_t(after.sequence - before.sequence);
            EXPECT_NEAR(double(host_gap), double(expected), double(kStampResolution));
        }
}

TEST_F(TriggerLineTest, BoardTicksPaceTheCamerasWhenTheLineIsNotInUse)
{
    const zsim::BoardClock clock{-500000000, -20000};
    zsim::set_board_clock(clock);
    zsim::TriggerLine line;
    line.name = "rig";
    line.period_ns = kSecond / 90; // a rate no camera here has
    zsim::set_trigger_line(line);
    zsim::CameraConfig config;
    config.fps = 100;
    zsim::set_camera(0, config);
    const int64_t period = kSecond / 100;

    // Internal trigger: the board's own ticks, on its monotonic clock.
    SetTrigger(0);
    {
        VideoNode node("/dev/video0");
        Start(node);
        for (const Frame &frame : Frames(node, 5))
            EXPECT_LE(std::abs(OffGrid(frame.stamp_ns, 0, period)), kStampResolution) << frame.sequence;
    }
    // External trigger without a line: the same ticks.
    zsim::set_trigger_line(zsim::TriggerLine{});
    EXPECT_TRUE(zsim::trigger_line().name.empty());
    SetTrigger(1);
    VideoNode node("/dev/video0");
    Start(node);
    const std::vector<Frame> frames = Frames(node, 5);
    ASSERT_EQ(frames.size(), 5u);
    for (const Frame &frame : frames)
        EXPECT_LE(std::abs(OffGrid(frame.stamp_ns, 0, period)), kStampResolution) << frame.sequence;
}

} // namespace
