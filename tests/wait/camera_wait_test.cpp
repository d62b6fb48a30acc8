// The multi-camera wait against the simulated camera nodes: argument and
// camera refusals, polling with a zero timeout, a frame arriving part-way
// through a wait, a camera listed twice, and descriptors past FD_SETSIZE.
// Frames are scripted, so readiness never depends on the frame clock.
#include <sys/time.h>

#include <chrono>
#include <climits>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "camera/isp_video.h" // a camera object that was never opened
#include "sim_fixture.h"

namespace {

using zelisp_test::OutputCapture;

class CameraWaitTest : public zelisp_test::SimTest {
protected:
    void TearDown() override
    {
        for (unsigned long camera : cameras_)
            isp_close_video(camera);
        SimTest::TearDown();
    }
    // Opens camera c and starts it with scripted frames only.
    unsigned long Streaming(int c)
    {
        zsim::set_frame_mode(c, zsim::FrameMode::Scripted);
        const unsigned long camera = isp_open_video(uint32_t(c), 1);
        EXPECT_NE(camera, 0u);
        cameras_.push_back(camera);
        EXPECT_EQ(isp_init_video(camera, 1, 3), 0);
        EXPECT_EQ(isp_start_capture(camera), 0);
        return camera;
    }
    // Pushes one frame on node c and waits (generously) until it is ready.
    static void FrameReady(int c, unsigned long camera)
    {
        zsim::push_frame(c, zsim::ScriptedFrame{1, 100000});
        int ready = 0;
        timeval limit = {5, 0};
        ASSERT_EQ(isp_camera_wait_for_data(&camera, &ready, 1, &limit), 1);
    }

    std::vector<unsigned long> cameras_;
};

TEST_F(CameraWaitTest, BadArgumentsAreRefusedSilently)
{
    const unsigned long nine[9] = {1, 1, 1, 1, 1, 1, 1, 1, 1};
    const unsigned long second_null[3] = {1, 0, 1};
    int ready[9] = {7, 7, 7, 7, 7, 7, 7, 7, 7};
    OutputCapture output;
    EXPECT_EQ(isp_camera_wait_for_data(nine, ready, 9, nullptr), -15);
    EXPECT_EQ(isp_camera_wait_for_data(nullptr, ready, 1, nullptr), -15);
    EXPECT_EQ(isp_camera_wait_for_data(nine, nullptr, 1, nullptr), -15);
    EXPECT_EQ(isp_camera_wait_for_data(second_null, ready, 3, nullptr), -15);
    output.Stop();
    EXPECT_EQ(output.out(), "");
    for (int entry : ready)
        EXPECT_EQ(entry, 7);
}

TEST_F(CameraWaitTest, NeverOpenedCameraIsNamedByItsPosition)
{
    zelisp::IspVideo never_opened;
    for (int c : {0, 1, 3})
        cameras_.push_back(isp_open_video(uint32_t(c), 1));
    const unsigned long handles[4] = {cameras_[0], cameras_[1], reinterpret_cast<unsigned long>(&never_opened),
                                      cameras_[2]};
    int ready[4] = {7, 7, 7, 7};
    OutputCapture output;
    EXPECT_EQ(isp_camera_wait_for_data(handles, ready, 4, nullptr), -15);
    output.Stop();
    EXPECT_EQ(output.out(), "camera 2not opened\n");
    EXPECT_EQ(ready[0], 0);
    EXPECT_EQ(ready[1], 0);
    EXPECT_EQ(ready[2], 7);
    EXPECT_EQ(ready[3], 7);
}

TEST_F(CameraWaitTest, ZeroTimeoutPollsOnce)
{
    const unsigned long cameras[2] = {Streaming(0), Streaming(1)};
    int ready[2] = {7, 7};
    timeval limit = {0, 0};
    EXPECT_EQ(isp_camera_wait_for_data(cameras, ready, 2, &limit), -13);
    EXPECT_EQ(ready[0], 0);
    EXPECT_EQ(ready[1], 0);

    FrameReady(1, cameras[1]);
    limit = {0, 0};
    EXPECT_EQ(isp_camera_wait_for_data(cameras, ready, 2, &limit), 1);
    EXPECT_EQ(ready[0], 0);
    EXPECT_EQ(ready[1], 1);
    EXPECT_EQ(limit.tv_sec, 0);
    EXPECT_EQ(limit.tv_usec, 0);
}

TEST_F(CameraWaitTest, FrameArrivingMidWaitLeavesTheRestOfTheTimeout)
{
    const unsigned long cameras[2] = {Streaming(0), Streaming(1)};
    // The frame comes from another thread, before or while the wait sleeps;
    // either way the wait ends on it with part of its minute left.
    std::thread hardware([] { zsim::push_frame(1, zsim::ScriptedFrame{1, 100000}); });
    int ready[2] = {7, 7};
    timeval limit = {60, 0};
    const int result = isp_camera_wait_for_data(cameras, ready, 2, &limit);
    hardware.join();
    EXPECT_EQ(result, 1);
    EXPECT_EQ(ready[0], 0);
    EXPECT_EQ(ready[1], 1);
    const long left_us = limit.tv_sec * 1000000L + limit.tv_usec;
    EXPECT_GT(left_us, 0);
    EXPECT_LE(left_us, 60000000L);
    EXPECT_LT(limit.tv_usec, 1000000L);
}

// The limit is read as Linux select reads it: whole seconds carried out of
// tv_usec, negative refused, and no limit too long to add up. The time left
// is written back normalised, never more than was given.
TEST_F(CameraWaitTest, LimitIsReadAndWrittenBackAsSelectDoes)
{
    const unsigned long camera = Streaming(0);
    FrameReady(0, camera);
    struct Case {
        timeval given;
        long min_seconds_left; // generous: the wait returns at once
        long max_seconds_left;
    };
    const Case cases[] = {
        {{0, 1200000}, 0, 1}, // 1.2 s
        {{10000000000000L, 0}, 10000000000000L - 3600, 10000000000000L},
        {{0, LONG_MAX}, LONG_MAX / 1000000 - 3600, LONG_MAX / 1000000},
        {{LONG_MAX, LONG_MAX}, LONG_MAX - 3600, LONG_MAX}, // saturated, not wrapped
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::to_string(c.given.tv_sec) + " s " + std::to_string(c.given.tv_usec) + " us");
        int ready = 7;
        timeval limit = c.given;
        EXPECT_EQ(isp_camera_wait_for_data(&camera, &ready, 1, &limit), 1);
        EXPECT_EQ(ready, 1);
        EXPECT_GE(limit.tv_sec, c.min_seconds_left);
        EXPECT_LE(limit.tv_sec, c.max_seconds_left);
        EXPECT_GE(limit.tv_usec, 0);
        EXPECT_LT(limit.tv_usec, 1000000);
    }
    int ready = 7;
    timeval first = {0, 1200000};
    ASSERT_EQ(isp_camera_wait_for_data(&camera, &ready, 1, &first), 1);
    EXPECT_LE(first.tv_sec * 1000000L + first.tv_usec, 1200000L);
    for (timeval refused : {timeval{-1, 0}, timeval{0, -1}, timeval{5, -999999}}) {
        timeval limit = refused;
        EXPECT_EQ(isp_camera_wait_for_data(&camera, &ready, 1, &limit), ISP_ERR_SELECT);
        EXPECT_EQ(limit.tv_sec, refused.tv_sec);
        EXPECT_EQ(limit.tv_usec, refused.tv_usec);
    }
}

TEST_F(CameraWaitTest, CameraListedTwiceCountsOnce)
{
    const unsigned long camera = Streaming(0);
    FrameReady(0, camera);
    const unsigned long twice[2] = {camera, camera};
    int ready[2] = {7, 7};
    EXPECT_EQ(isp_camera_wait_for_data(twice, ready, 2, nullptr), 1);
    EXPECT_EQ(ready[0], 1);
    EXPECT_EQ(ready[1], 1);
}

TEST_F(CameraWaitTest, NoCameraWaitsOutTheWholeTimeout)
{
    int ready[1] = {7};
    const unsigned long none[1] = {0};
    timeval limit = {0, 50000};
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(isp_camera_wait_for_data(none, ready, 0, &limit), -13);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(50));
    EXPECT_EQ(limit.tv_sec, 0);
    EXPECT_EQ(limit.tv_usec, 0);
    EXPECT_EQ(ready[0], 7);
}

TEST_F(CameraWaitTest, DescriptorsPastFdSetsizeAreWaitedOnSafely)
{
    zsim::Quirks high{};
    high.descriptor_floor = 1024;
    zsim::set_quirks(0, high);
    const unsigned long camera = Streaming(0);
    int64_t fd = 0;
    ASSERT_EQ(isp_camera_get_native_fd(camera, &fd), 0);
    ASSERT_GE(fd, 1024);
    zsim::push_frame(0, zsim::ScriptedFrame{1, 100000});
    int ready = 7;
    timeval limit = {5, 0};
    EXPECT_EQ(isp_camera_wait_for_data(&camera, &ready, 1, &limit), 1);
    EXPECT_EQ(ready, 1);
}

} // namespace
