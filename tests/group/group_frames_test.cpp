// Frame sets: one frame per member in member order, given back the same way;
// and the trigger mode that makes a set come from one sensor instant.
#include <gmock/gmock.h>
#include <linux/videodev2.h>

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "driver/isp_requests.h"
#include "group_fixture.h"

namespace zelisp_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class GroupFrameSets : public GroupTest {
protected:
    // Members that deliver only the frames a test pushes.
    unsigned long MakeScriptedGroup(const std::vector<int> &members)
    {
        for (int camera : members)
            zsim::set_frame_mode(camera, zsim::FrameMode::Scripted);
        const unsigned long group = MakeGroup(members);
        BringUp(group, kCapturing);
        zsim::clear_log();
        return group;
    }

    static void Push(int node, uint32_t sequence, uint64_t timestamp_us)
    {
        zsim::ScriptedFrame frame;
        frame.sequence = sequence;
        frame.timestamp_us = timestamp_us;
        frame.reserved = sequence * 10;
        zsim::push_frame(node, frame);
    }
};

std::vector<uint32_t> Words(const std::vector<uint8_t> &raw)
{
    std::vector<uint32_t> words(raw.size() / 4);
    memcpy(words.data(), raw.data(), words.size() * 4);
    return words;
}

TEST_F(GroupFrameSets, SetHoldsOneFramePerMemberInMemberOrder)
{
    const unsigned long group = MakeScriptedGroup({2, 0, 1});
    Push(2, 5, 1000000);
    Push(0, 7, 2000000);
    Push(1, 9, 3000000);
    zelvideo::_isp_buf_t frames[4];
    memset(&frames[3], 0xee, sizeof frames[3]);
    ASSERT_EQ(zelvideo::isp_group_get_sync_frame(group, frames, 4, 2000), 0);
    EXPECT_THAT(PathsOf(VIDIOC_DQBUF), ElementsAre("/dev/video2", "/dev/video0", "/dev/video1"));
    const uint32_t sequences[3] = {5, 7, 9};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(frames[i].views[0].sequence, sequences[i]);
        EXPECT_EQ(frames[i].views[0].timestamp, 1000000u * (i + 1));
        EXPECT_EQ(frames[i].views[0].driver_data, sequences[i] * 10);
    }
    EXPECT_EQ(frames[3].index, 0xeeeeeeeeu); // only camera_count records are used

    ASSERT_EQ(zelvideo::isp_group_put_frame(group, frames, 4), 0);
    const std::vector<zsim::LogEntry> queued = zsim::requests(VIDIOC_QBUF);
    ASSERT_EQ(queued.size(), 3u);
    const char *paths[3] = {"/dev/video2", "/dev/video0", "/dev/video1"};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(queued[i].path, paths[i]);
        v4l2_buffer sent;
        ASSERT_GE(queued[i].raw.size(), sizeof sent);
        memcpy(&sent, queued[i].raw.data(), sizeof sent);
        EXPECT_EQ(sent.index, frames[i].index);
    }
}

TEST_F(GroupFrameSets, ArrayShorterThanTheGroupIsRefusedBeforeAnyFrameMoves)
{
    const unsigned long group = MakeScriptedGroup({0, 1, 2});
    zelvideo::_isp_buf_t frames[2];
    OutputCapture output;
    EXPECT_EQ(zelvideo::isp_group_get_sync_frame(group, frames, 2, 10), ISP_ERR_MISSING);
    EXPECT_EQ(zelvideo::isp_group_put_frame(group, frames, 2), ISP_ERR_MISSING);
    EXPECT_EQ(zelvideo::isp_group_get_sync_frame(group, nullptr, 3, 10), ISP_ERR_INVALID);
    output.Stop();
    EXPECT_EQ(output.out(), "buffers sum less than camera_count!\nbuffers sum less than camera_count!\n");
    EXPECT_THAT(zsim::request_log(), IsEmpty());
}

TEST_F(GroupFrameSets, FailureAtALaterMemberLeavesEarlierFramesWithTheCaller)
{
    const unsigned long group = MakeScriptedGroup({0, 1});
    Push(0, 4, 500000);
    zelvideo::_isp_buf_t frames[2];
    memset(&frames[1], 0xee, sizeof frames[1]);
    EXPECT_EQ(zelvideo::isp_group_get_sync_frame(group, frames, 2, 50), ISP_ERR_TIMEOUT);
    EXPECT_EQ(frames[0].views[0].sequence, 4u);
    EXPECT_EQ(frames[1].index, 0xeeeeeeeeu);

    // The member's own handle gives the one frame back.
    unsigned long first = 0;
    ASSERT_EQ(isp_group_get_camera_handle(group, 0, &first), 0);
    EXPECT_EQ(isp_put_frame_buf(first, &frames[0]), 0);
    EXPECT_THAT(PathsOf(VIDIOC_QBUF), ElementsAre("/dev/video0"));
}

TEST_F(GroupFrameSets, FrameReturnStopsAtTheFirstRefusedFrame)
{
    const unsigned long group = MakeScriptedGroup({0, 1, 2});
    for (int node = 0; node < 3; ++node)
        Push(node, 1, 100000);
    zelvideo::_isp_buf_t frames[3];
    ASSERT_EQ(zelvideo::isp_group_get_sync_frame(group, frames, 3, 2000), 0);
    frames[1].index = 7; // a buffer the driver does not have
    zsim::clear_log();
    OutputCapture output;
    EXPECT_EQ(zelvideo::isp_group_put_frame(group, frames, 3), ISP_ERR_REQUEST);
    output.Stop();
    EXPECT_EQ(output.out(), "/dev/video1 put frame failed\n");
    EXPECT_THAT(PathsOf(VIDIOC_QBUF), ElementsAre("/dev/video0", "/dev/video1"));
}

using GroupTriggers = GroupTest;

TEST_F(GroupTriggers, SentOnceOnTheKeptDescriptorWithParametersUnchecked)
{
    const unsigned long group = MakeGroup({0});
    zsim::clear_log();
    EXPECT_EQ(isp_group_set_internal_trigger(group, 2, 7, 0xFFFFFFFF), 0);
    EXPECT_EQ(zsim::trigger_mode(), zsim::TriggerMode::Internal);
    EXPECT_EQ(isp_group_set_external_trigger(group, 1, 3, 2), 0);
    EXPECT_EQ(zsim::trigger_mode(), zsim::TriggerMode::External);
    // Out of the driver's ranges: sent as given, refused, still 0.
    OutputCapture output;
    EXPECT_EQ(isp_group_set_internal_trigger(group, 5, 9, 1), 0);
    output.Stop();
    EXPECT_EQ(output.out(), "ioctl IOC_SET_MIPI_TRIGGER_MODE failed! \n");

    const std::vector<zsim::LogEntry> sent = zsim::requests(zelisp::IOC_SET_MIPI_TRIGGER_MODE);
    ASSERT_EQ(sent.size(), 3u);
    EXPECT_EQ(sent[0].path, "/dev/isp_misc");
    EXPECT_THAT(Words(sent[0].raw), ElementsAre(0u, 2u, 0xFFFFFFFFu, 7u, 0u));
    EXPECT_THAT(Words(sent[1].raw), ElementsAre(1u, 1u, 0u, 3u, 2u));
    EXPECT_THAT(Words(sent[2].raw), ElementsAre(0u, 5u, 1u, 9u, 0u));
    EXPECT_EQ(sent[2].error, EINVAL);
    EXPECT_THAT(PathsOf(zsim::kOpen), IsEmpty());
    EXPECT_THAT(PathsOf(zsim::kClose), IsEmpty());
}

TEST_F(GroupTriggers, RefusalIsPrintedNotReturnedInAnyGroupState)
{
    const unsigned long empty = MakeEmptyGroup();
    const unsigned long closed = MakeGroup({1});
    BringUp(closed, kOpened);
    ASSERT_EQ(isp_group_close_video(closed), 0);
    zsim::clear_log();
    OutputCapture output;
    zsim::interrupt_request(zelisp::IOC_SET_MIPI_TRIGGER_MODE, 1);
    EXPECT_EQ(isp_group_set_internal_trigger(empty, 0, 0, 0), 0);
    zsim::interrupt_request(zelisp::IOC_SET_MIPI_TRIGGER_MODE, 1);
    EXPECT_EQ(isp_group_set_external_trigger(closed, 0, 0, 0), 0);
    output.Stop();
    EXPECT_EQ(output.out(), "ioctl IOC_SET_MIPI_TRIGGER_MODE failed! \n");
    EXPECT_EQ(output.err(), "ioctl IOC_SET_MIPI_TRIGGER_MODE failed! \n: " + ErrorText(EINTR) + "\n");
    EXPECT_EQ(zsim::requests(zelisp::IOC_SET_MIPI_TRIGGER_MODE).size(), 2u); // neither is repeated after EINTR
    EXPECT_EQ(zsim::trigger_mode(), zsim::TriggerMode::None);
}

// Largest minus smallest capture time in a set of view-0 frames.
uint64_t Skew(const zelvideo::_isp_buf_t *frames, int count)
{
    const auto [low, high] = std::minmax_element(frames, frames + count, [](const auto &a, const auto &b) {
        return a.views[0].timestamp < b.views[0].timestamp;
    });
    return high->views[0].timestamp - low->views[0].timestamp;
}

// A frame set is one frame from each member in member order; the group
// compares no timestamps, so a set is exactly as tight as the sensors were:
// without skew when a trigger locks their clocks, each on its own clock
// otherwise. Scripted frames stand for both.
class GroupSkew : public GroupTest {
protected:
    static constexpr int kMembers = 4;
    static constexpr uint64_t kPeriodUs = 100000;

    unsigned long MakeCapturingGroup()
    {
        for (int camera = 0; camera < kMembers; ++camera)
            zsim::set_frame_mode(camera, zsim::FrameMode::Scripted);
        const unsigned long group = MakeGroup({0, 1, 2, 3});
        BringUp(group, kCapturing);
        return group;
    }

    // Scripts `sets` frame periods; member m's sensor ends each period
    // offset_us * m after the first one's.
    static void ScriptPeriods(int sets, uint64_t offset_us)
    {
        for (int set = 0; set < sets; ++set)
            for (int camera = 0; camera < kMembers; ++camera)
                zsim::push_frame(camera, zsim::ScriptedFrame{uint32_t(set + 1),
                                                             1000000 + set * kPeriodUs + camera * offset_us});
    }

    // Reads `sets` frame sets; the skew of each, in order.
    static std::vector<uint64_t> Skews(unsigned long group, int sets)
    {
        std::vector<uint64_t> skews;
        for (int set = 0; set < sets; ++set) {
            zelvideo::_isp_buf_t frames[kMembers];
            EXPECT_EQ(zelvideo::isp_group_get_sync_frame(group, frames, kMembers, 5000), 0);
            for (int member = 0; member < kMembers; ++member)
                EXPECT_EQ(frames[member].views[0].sequence, uint32_t(set + 1));
            skews.push_back(Skew(frames, kMembers));
            EXPECT_EQ(zelvideo::isp_group_put_frame(group, frames, kMembers), 0);
        }
        return skews;
    }
};

TEST_F(GroupSkew, LockedSensorsGiveSetsWithoutSkew)
{
    const unsigned long group = MakeCapturingGroup();
    ScriptPeriods(8, 0);
    EXPECT_EQ(Skews(group, 8), std::vector<uint64_t>(8, 0));
}

TEST_F(GroupSkew, FreeRunningSensorsGiveSetsAsSkewedAsTheirClocks)
{
    const unsigned long group = MakeCapturingGroup();
    ScriptPeriods(8, 7000); // the last sensor 21 ms behind the first
    EXPECT_EQ(Skews(group, 8), std::vector<uint64_t>(8, 21000));
}

} // namespace
} // namespace zelisp_test
