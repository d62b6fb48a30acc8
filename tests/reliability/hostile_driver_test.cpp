/*
 * hostile_driver_test.cpp - a driver whose replies are wrong: more buffers
 * than the table holds, dequeued indices outside it, plane counts and
 * lengths that disagree with the setup, a valid-camera count above the
 * table's 12 slots, descriptors beyond select()'s FD_SETSIZE.
 *
 * The library must neither write outside its tables nor crash, and must
 * give back everything at close. These tests mean most under
 * AddressSanitizer (scripts/sanitize-test.sh), where an access one byte out
 * of bounds stops the run.
 */
#include <sys/resource.h>
#include <sys/select.h>

#include <cstdio>
#include <cstring>
#include <vector>

#include "reliability.h"
#include "sim_fixture.h"

namespace zelisp_reliability {
namespace {

class HostileDriver : public zelisp_test::SimTest {
protected:
    void SetUp() override
    {
        SimTest::SetUp();
        ResetScripted();
    }

    void TearDown() override
    {
        printf("hostile replies tried: %d\n", replies_);
        RecordProperty("hostile_replies", replies_);
        SimTest::TearDown();
    }

    // Capturing camera 0 with `combination`, `buffers` buffers, after the
    // quirks were set on its node.
    unsigned long CapturingCamera(uint32_t combination, int buffers, const zsim::Quirks &quirks, int mode = 1)
    {
        zsim::set_quirks(mode == 2 ? 12 : 0, quirks);
        unsigned long camera = isp_open_video(0, mode);
        EXPECT_NE(camera, 0u);
        EXPECT_EQ(isp_init_video(camera, combination, buffers), ISP_OK);
        EXPECT_EQ(isp_start_capture(camera), ISP_OK);
        return camera;
    }

    int replies_ = 0;
};

TEST_F(HostileDriver, GrantOfMoreThanEightBuffersFillsOnlyTheTable)
{
    for (int granted : {9, 12, 16, 64}) {
        for (int mode : {1, 2}) {
            SCOPED_TRACE("granted " + std::to_string(granted) + ", mode " + std::to_string(mode));
            ResetScripted();
            zsim::Quirks quirks;
            quirks.grant_buffers = granted;
            unsigned long camera = CapturingCamera(7, 8, quirks, mode);
            ++replies_;
            ASSERT_EQ(Camera(camera).buffer_count, zelisp::kMaxBuffers);
            // Only the table's buffers were queued, so only they come back.
            const int node = mode == 2 ? 12 : 0;
            for (uint32_t sequence = 1; sequence <= 20; ++sequence) {
                zsim::push_frame(node, NextFrame(sequence));
                zelvideo::_isp_buf_t frame{};
                ASSERT_EQ(isp_get_frame_buf(camera, &frame, 1000), ISP_OK);
                EXPECT_LT(frame.index, uint32_t(zelisp::kMaxBuffers));
                EXPECT_EQ(frame.views[0].sequence, sequence);
                ASSERT_EQ(isp_put_frame_buf(camera, &frame), ISP_OK);
            }
            EXPECT_EQ(isp_close_video(camera), ISP_OK);
            EXPECT_EQ(zsim::live_mappings(), 0u);
            EXPECT_EQ(zsim::live_descriptors(), 0u);
        }
    }
}

TEST_F(HostileDriver, DequeuedIndexOutsideTheTableIsRefused)
{
    // 3 equals the buffer count; 5 is inside the 8-entry table but was never
    // granted; the rest lie beyond the table.
    for (int index : {3, 5, 8, 9, 255, 0x7fffffff}) {
        SCOPED_TRACE("index " + std::to_string(index));
        ResetScripted();
        zsim::Quirks quirks;
        quirks.dequeue_index = index;
        unsigned long camera = CapturingCamera(7, 3, quirks);
        zsim::push_frame(0, NextFrame(1));
        zelvideo::_isp_buf_t frame;
        memset(&frame, 0xA5, sizeof frame);
        zelvideo::_isp_buf_t untouched = frame;
        {
            zelisp_test::OutputCapture output;
            EXPECT_EQ(isp_get_frame_buf(camera, &frame, 1000), ISP_ERR_REQUEST);
            output.Stop();
            EXPECT_EQ(output.out(), "/dev/video0 get frame failed\n");
        }
        ++replies_;
        EXPECT_EQ(memcmp(&frame, &untouched, sizeof frame), 0) << "refused frame written to the caller";
        // A frame the library could not place leaves no trace in its history.
        EXPECT_EQ(Camera(camera).last_sequence, 0u);
        EXPECT_EQ(Camera(camera).last_timestamp_us, 0u);
        EXPECT_EQ(isp_put_frame_buf_by_index(camera, index), ISP_ERR_INVALID);
        EXPECT_EQ(isp_close_video(camera), ISP_OK);
        EXPECT_EQ(zsim::live_mappings(), 0u);
        EXPECT_EQ(zsim::live_descriptors(), 0u);
    }
}

TEST_F(HostileDriver, ExtraPlanesInQueryAndDequeueAreIgnored)
{
    for (uint32_t combination : {1u, 3u, 4u, 6u}) {
        for (int extra : {1, 2}) {
            SCOPED_TRACE("combination " + std::to_string(combination) + ", extra " + std::to_string(extra));
            ResetScripted();
            zsim::Quirks quirks;
            quirks.extra_planes = extra;
            unsigned long camera = CapturingCamera(combination, 4, quirks);
            ++replies_;
            const int planes = Camera(camera).plane_count;
            ASSERT_EQ(planes, __builtin_popcount(combination));
            for (uint32_t sequence = 1; sequence <= 6; ++sequence) {
                zsim::push_frame(0, NextFrame(sequence));
                zelvideo::_isp_buf_t frame{};
                ASSERT_EQ(isp_get_frame_buf(camera, &frame, 1000), ISP_OK);
                // Views that are not enabled stay as the table had them.
                for (int view = 0; view < 3; ++view) {
                    bool enabled = (combination >> view) & 1;
                    EXPECT_EQ(frame.views[view].sequence, enabled ? sequence : 0u) << "view " << view;
                }
                ASSERT_EQ(isp_put_frame_buf(camera, &frame), ISP_OK);
            }
            EXPECT_EQ(isp_close_video(camera), ISP_OK);
            EXPECT_EQ(zsim::live_mappings(), 0u);
            EXPECT_EQ(zsim::live_descriptors(), 0u);
        }
    }
}

TEST_F(HostileDriver, PlaneLengthsThatDisagreeWithTheSetupLoseNoMapping)
{
    // The dequeue reports lengths unlike those the planes were mapped with:
    // larger, smaller, zero-ish and absurd. Whatever it says, close must
    // give back exactly the mappings that setup made.
    const uint32_t lengths[][3] = {
        {1, 1, 1}, {4096, 4096, 4096}, {0xFFFFFFFFu, 0x80000000u, 0x10000000u}, {64u << 20, 1, 12345}};
    for (const auto &reported : lengths) {
        SCOPED_TRACE("reported " + std::to_string(reported[0]));
        ResetScripted();
        unsigned long camera = CapturingCamera(7, 3, zsim::Quirks{});
        for (uint32_t sequence = 1; sequence <= 3; ++sequence) {
            zsim::ScriptedFrame frame = NextFrame(sequence);
            memcpy(frame.plane_length, reported, sizeof frame.plane_length);
            zsim::push_frame(0, frame);
            zelvideo::_isp_buf_t got{};
            ASSERT_EQ(isp_get_frame_buf(camera, &got, 1000), ISP_OK);
            ++replies_;
            // The frame's length is the driver's word about this frame.
            EXPECT_EQ(got.views[1].length, reported[1]);
            if (sequence < 3) {
                ASSERT_EQ(isp_put_frame_buf(camera, &got), ISP_OK);
            }
        }
        EXPECT_EQ(isp_close_video(camera), ISP_OK);
        EXPECT_EQ(zsim::live_mappings(), 0u) << "close unmapped by the reported lengths, not the mapped ones";
        EXPECT_EQ(zsim::live_descriptors(), 0u);
    }
}

TEST_F(HostileDriver, ValidCameraCountAboveTwelveIsHeldToTheTable)
{
    for (int reported : {13, 24, 1000, 0x7fffffff}) {
        SCOPED_TRACE("reported " + std::to_string(reported));
        ResetScripted();
        zsim::set_valid_camera_count(reported);
        ++replies_;
        uint32_t count = 0;
        EXPECT_EQ(isp_get_valid_camera_count(&count), ISP_OK);
        EXPECT_EQ(count, 12u);

        // Guard records on both sides of the caller's 12-record array.
        std::vector<zelvideo::_camera_info_t> records(14);
        memset(records.data(), 0x5A, records.size() * sizeof(records[0]));
        const zelvideo::_camera_info_t guard = records[0];
        {
            zelisp_test::OutputCapture output;
            EXPECT_EQ(isp_get_valid_camera_info(&records[1], 12, &count), ISP_OK);
            EXPECT_EQ(isp_get_valid_camera_info(&records[1], 13, &count), ISP_ERR_INVALID);
        }
        EXPECT_EQ(count, 12u);
        EXPECT_EQ(memcmp(&records[0], &guard, sizeof guard), 0);
        EXPECT_EQ(memcmp(&records[13], &guard, sizeof guard), 0);

        // A group copies the table into its own 12 slots and searches only those.
        unsigned long group = 0;
        const int members[] = {0, 1};
        ASSERT_EQ(isp_create_video_group(&group, 0, "many", members, 2), ISP_OK);
        EXPECT_EQ(Group(group).valid_camera_count, 12u);
        zelvideo::_camera_info_t info{};
        EXPECT_EQ(isp_group_get_video_info(group, 1, &info), ISP_OK);
        EXPECT_EQ(info.camera_index, 1);
        EXPECT_EQ(isp_destroy_video_group(group), ISP_OK);
    }
}

TEST_F(HostileDriver, DescriptorsBeyondFdSetsizeAreWaitedOnSafely)
{
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    if (limit.rlim_max != RLIM_INFINITY && limit.rlim_max < 4200)
        GTEST_SKIP() << "descriptor limit " << limit.rlim_max << " too low for descriptors past FD_SETSIZE";
    rlimit raised = limit;
    raised.rlim_cur = limit.rlim_max == RLIM_INFINITY ? 8192 : limit.rlim_max;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &raised), 0);

    for (int floor : {FD_SETSIZE, FD_SETSIZE + 1, 4096}) {
        SCOPED_TRACE("floor " + std::to_string(floor));
        ResetScripted();
        zsim::Quirks quirks;
        quirks.descriptor_floor = floor;
        unsigned long camera = CapturingCamera(7, 3, quirks);
        ++replies_;
        int64_t fd = 0;
        ASSERT_EQ(isp_camera_get_native_fd(camera, &fd), ISP_OK);
        EXPECT_GE(fd, floor);

        // Nothing ready: every wait ends by its time limit.
        zelvideo::_isp_buf_t frame{};
        EXPECT_EQ(isp_get_frame_buf(camera, &frame, 10), ISP_ERR_TIMEOUT);
        timeval none = {0, 0};
        int ready[2] = {-1, -1};
        const unsigned long cameras[] = {camera, camera};
        EXPECT_EQ(isp_camera_wait_for_data(cameras, ready, 2, &none), ISP_ERR_TIMEOUT);

        zsim::push_frame(0, NextFrame(1));
        timeval second = {1, 0};
        EXPECT_EQ(isp_camera_wait_for_data(cameras, ready, 2, &second), 1);
        EXPECT_EQ(ready[0], 1);
        EXPECT_EQ(ready[1], 1);
        ASSERT_EQ(isp_get_frame_buf(camera, &frame, 1000), ISP_OK);
        EXPECT_GE(frame.views[0].fd, floor);
        ASSERT_EQ(isp_put_frame_buf(camera, &frame), ISP_OK);
        EXPECT_EQ(isp_close_video(camera), ISP_OK);
        EXPECT_EQ(zsim::live_descriptors(), 0u);
    }
    setrlimit(RLIMIT_NOFILE, &limit);
}

TEST_F(HostileDriver, SequenceRestartedAtStreamOnIsRefusedUntilItPassesTheHistory)
{
    zsim::Quirks quirks;
    quirks.restart_sequence_on_streamon = true;
    zsim::set_frame_mode(0, zsim::FrameMode::FreeRunning);
    unsigned long camera = CapturingCamera(1, 3, quirks);
    zelvideo::_isp_buf_t frame{};
    // Take frames until the history is past 2, then restart the stream.
    uint32_t last = 0;
    while (last < 3) {
        int result = isp_get_frame_buf(camera, &frame, 2000);
        ASSERT_TRUE(result == ISP_OK || result == ISP_ERR_REQUEST) << result;
        if (result == ISP_OK) {
            last = frame.views[0].sequence;
            ASSERT_EQ(isp_put_frame_buf(camera, &frame), ISP_OK);
        }
    }
    ASSERT_EQ(isp_stop_capture(camera), ISP_OK);
    ASSERT_EQ(isp_start_capture(camera), ISP_OK);
    int refused = 0;
    for (;;) {
        zelisp_test::OutputCapture output;
        int result = isp_get_frame_buf(camera, &frame, 2000);
        output.Stop();
        ASSERT_TRUE(result == ISP_OK || result == ISP_ERR_REQUEST) << result;
        ++replies_;
        if (result == ISP_OK)
            break;
        ++refused;
    }
    EXPECT_GT(frame.views[0].sequence, last);
    EXPECT_GE(refused, 1);
    EXPECT_EQ(isp_close_video(camera), ISP_OK);
}

} // namespace
} // namespace zelisp_reliability
