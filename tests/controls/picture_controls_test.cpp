// Picture controls against the simulated camera driver: the range each
// setter enforces, the exact record the driver receives, the repeat after
// an interruption, and controls in every camera state.
#include <linux/videodev2.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "sim_fixture.h"

namespace {

class PictureControlsTest : public zelisp_test::SimTest {
protected:
    void SetUp() override
    {
        SimTest::SetUp();
        camera_ = isp_open_video(0, 1);
        ASSERT_NE(camera_, 0u);
        zsim::clear_log();
    }
    void TearDown() override
    {
        if (camera_ != 0)
            isp_close_video(camera_);
        SimTest::TearDown();
    }

    // The v4l2_control records of one request number, as the driver got them.
    static std::vector<v4l2_control> Sent(unsigned long request)
    {
        std::vector<v4l2_control> sent;
        for (const zsim::LogEntry &entry : zsim::requests(uint32_t(request))) {
            v4l2_control record{};
            EXPECT_EQ(entry.raw.size(), sizeof(record));
            memcpy(&record, entry.raw.data(), sizeof(record));
            sent.push_back(record);
        }
        return sent;
    }

    unsigned long camera_ = 0;
};

struct Picture {
    int (*set)(unsigned long, uint32_t);
    int (*get)(unsigned long, uint32_t *);
    uint32_t id;
    uint32_t maximum;
};

const Picture kRanged[] = {
    {isp_camera_set_brightness, isp_camera_get_brightness, V4L2_CID_BRIGHTNESS, 255},
    {isp_camera_set_contrast, isp_camera_get_contrast, V4L2_CID_CONTRAST, 255},
    {isp_camera_set_saturation, isp_camera_get_saturation, V4L2_CID_SATURATION, 255},
    {isp_camera_set_hue, isp_camera_get_hue, V4L2_CID_HUE, 255},
    {isp_camera_set_sharpness, isp_camera_get_sharpness, V4L2_CID_SHARPNESS, 10},
};

TEST_F(PictureControlsTest, SettersSendTheirTopValueAndRefuseAnythingAboveUnsent)
{
    for (const Picture &control : kRanged) {
        SCOPED_TRACE(control.id);
        zsim::clear_log();
        EXPECT_EQ(control.set(camera_, control.maximum), 0);
        EXPECT_EQ(control.set(camera_, control.maximum + 1), -15);
        EXPECT_EQ(control.set(camera_, uint32_t(-1)), -15); // -1 reaches the library as 0xFFFFFFFF
        const std::vector<v4l2_control> sent = Sent(VIDIOC_S_CTRL);
        ASSERT_EQ(sent.size(), 1u);
        EXPECT_EQ(sent[0].id, control.id);
        EXPECT_EQ(uint32_t(sent[0].value), control.maximum);

        uint32_t value = 0;
        EXPECT_EQ(control.get(camera_, &value), 0);
        EXPECT_EQ(value, control.maximum);
        EXPECT_EQ(Sent(VIDIOC_G_CTRL).at(0).id, control.id);
    }
}

TEST_F(PictureControlsTest, GammaSendsEveryWordUnchanged)
{
    EXPECT_EQ(isp_camera_set_gamma(camera_, 0), 0);
    EXPECT_EQ(isp_camera_set_gamma(camera_, 0xFFFFFFFF), 0);
    const std::vector<v4l2_control> sent = Sent(VIDIOC_S_CTRL);
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0].id, uint32_t(V4L2_CID_GAMMA));
    EXPECT_EQ(uint32_t(sent[0].value), 0u);
    EXPECT_EQ(uint32_t(sent[1].value), 0xFFFFFFFFu);
    uint32_t value = 0;
    EXPECT_EQ(isp_camera_get_gamma(camera_, &value), 0);
    EXPECT_EQ(value, 0xFFFFFFFFu);
}

TEST_F(PictureControlsTest, InterruptedRequestIsRepeatedSilently)
{
    zsim::interrupt_request(uint32_t(VIDIOC_S_CTRL), 2);
    zelisp_test::OutputCapture output;
    EXPECT_EQ(isp_camera_set_hue(camera_, 40), 0);
    output.Stop();
    EXPECT_EQ(output.out(), "");
    EXPECT_EQ(output.err(), "");
    int32_t hue = 0;
    ASSERT_TRUE(zsim::control_value(0, V4L2_CID_HUE, &hue));
    EXPECT_EQ(hue, 40);
    const std::vector<zsim::LogEntry> tries = zsim::requests(uint32_t(VIDIOC_S_CTRL));
    ASSERT_EQ(tries.size(), 3u);
    EXPECT_EQ(tries[0].error, EINTR);
    EXPECT_EQ(tries[1].error, EINTR);
    EXPECT_EQ(tries[2].error, 0);
}

TEST_F(PictureControlsTest, ControlsWorkInEveryCameraState)
{
    uint32_t value = 0;
    EXPECT_EQ(isp_camera_set_brightness(camera_, 1), 0); // opened
    ASSERT_EQ(isp_init_video(camera_, 1, 3), 0);
    EXPECT_EQ(isp_camera_set_brightness(camera_, 2), 0); // set up
    ASSERT_EQ(isp_start_capture(camera_), 0);
    EXPECT_EQ(isp_camera_set_brightness(camera_, 3), 0); // capturing
    EXPECT_EQ(isp_camera_get_brightness(camera_, &value), 0);
    EXPECT_EQ(value, 3u);
    ASSERT_EQ(isp_stop_capture(camera_), 0);
    EXPECT_EQ(isp_camera_get_brightness(camera_, &value), 0);
    EXPECT_EQ(Sent(VIDIOC_S_CTRL).size(), 3u);
}

} // namespace
