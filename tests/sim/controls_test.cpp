// The simulated camera driver's controls, reached with raw requests as any
// V4L2 program reaches them, and listed by v4l2-ctl.
#include <linux/videodev2.h>

#include <memory>
#include <string>
#include <vector>

#include "driver/isp_requests.h"
#include "runner_command.h"
#include "sim_fixture.h"
#include "video_test_node.h"

namespace {


using zelisp_test::VideoNode;

class ControlsTest : public zelisp_test::SimTest {
protected:
    void SetUp() override
    {
        SimTest::SetUp();
        node_ = std::make_unique<VideoNode>("/dev/video0");
        ASSERT_GE(node_->fd(), 0);
    }
    void TearDown() override
    {
        node_.reset();
        SimTest::TearDown();
    }
    int Set(uint32_t id, int32_t value)
    {
        v4l2_control control = {id, value};
        return node_->Request(VIDIOC_S_CTRL, &control);
    }
    int32_t Get(const VideoNode &node, uint32_t id)
    {
        v4l2_control control = {id, -12345};
        EXPECT_EQ(node.Request(VIDIOC_G_CTRL, &control), 0) << std::hex << id;
        return control.value;
    }
    // One-control extended request of the user class, as the library sends it.
    int Ext(unsigned long request, v4l2_ext_control *control, uint32_t *error_idx = nullptr)
    {
        v4l2_ext_controls controls{};
        controls.ctrl_class = V4L2_CTRL_CLASS_USER;
        controls.count = 1;
        controls.controls = control;
        const int err = node_->Request(request, &controls);
        if (error_idx)
            *error_idx = controls.error_idx;
        return err;
    }
    std::vector<uint32_t> Walk(uint32_t flags)
    {
        std::vector<uint32_t> ids;
        v4l2_query_ext_ctrl query{};
        for (query.id = flags; node_->Request(VIDIOC_QUERY_EXT_CTRL, &query) == 0; query.id |= flags)
            ids.push_back(query.id);
        return ids;
    }

    std::unique_ptr<VideoNode> node_;
};

TEST_F(ControlsTest, ValuesKeepTheirRangesAndUnknownIdsAreRefused)
{
    for (uint32_t id : {V4L2_CID_BRIGHTNESS, V4L2_CID_CONTRAST, V4L2_CID_SATURATION, V4L2_CID_HUE}) {
        EXPECT_EQ(Get(*node_, id), 128);
        EXPECT_EQ(Set(id, 255), 0);
        EXPECT_EQ(Set(id, 256), ERANGE);
        EXPECT_EQ(Set(id, -1), ERANGE);
        EXPECT_EQ(Get(*node_, id), 255);
    }
    EXPECT_EQ(Set(V4L2_CID_SHARPNESS, 11), ERANGE);
    EXPECT_EQ(Set(V4L2_CID_AUTO_WHITE_BALANCE, 2), ERANGE);
    EXPECT_EQ(Set(V4L2_CID_EXPOSURE_AUTO, 255), 0); // any byte reaches the firmware
    EXPECT_EQ(Set(V4L2_CID_EXPOSURE_AUTO, 256), ERANGE);
    EXPECT_EQ(Set(V4L2_CID_GAMMA, -1), 0);          // every 32-bit word
    EXPECT_EQ(Get(*node_, V4L2_CID_GAMMA), -1);
    EXPECT_EQ(Set(0x00980999, 0), EINVAL);
    EXPECT_EQ(Set(zelisp::ISP_CID_MWB, 0), EINVAL);              // a payload, not a value
    EXPECT_EQ(Set(V4L2_CID_USER_CLASS, 0), EACCES);
    EXPECT_EQ(zsim::requests(uint32_t(VIDIOC_S_CTRL)).front().detail, "id=0x00980900 value=255");
}

TEST_F(ControlsTest, BothNodesOfACameraShareItsControlsAndCamerasAreIndependent)
{
    VideoNode mode2("/dev/video12");
    ASSERT_EQ(Set(V4L2_CID_HUE, 7), 0);
    EXPECT_EQ(Get(mode2, V4L2_CID_HUE), 7);
    int32_t value = 0;
    ASSERT_TRUE(zsim::control_value(1, V4L2_CID_HUE, &value));
    EXPECT_EQ(value, 128);
    // The test setter skips the range, to give the library odd driver values.
    EXPECT_TRUE(zsim::set_control_value(0, V4L2_CID_AUTO_WHITE_BALANCE, 2));
    EXPECT_EQ(Get(mode2, V4L2_CID_AUTO_WHITE_BALANCE), 2);
    zsim::reset();
    EXPECT_EQ(Get(*node_, V4L2_CID_HUE), 128);
}

TEST_F(ControlsTest, ExtendedRequestsCheckEverythingBeforeApplying)
{
    v4l2_ext_control control{};
    control.id = zelisp::ISP_CID_UVDNS;
    control.value = 11;
    uint32_t error_idx = 99;
    EXPECT_EQ(Ext(VIDIOC_S_EXT_CTRLS, &control, &error_idx), ERANGE);
    EXPECT_EQ(error_idx, 1u); // a set refused by its checks changed nothing
    control.value = 3;
    EXPECT_EQ(Ext(VIDIOC_TRY_EXT_CTRLS, &control), 0);
    EXPECT_EQ(Ext(VIDIOC_G_EXT_CTRLS, &control), 0);
    EXPECT_EQ(control.value, 5); // tried, not stored
    control.id = V4L2_CID_EXPOSURE_AUTO; // camera class, asked in the user class
    EXPECT_EQ(Ext(VIDIOC_G_EXT_CTRLS, &control, &error_idx), EINVAL);
    EXPECT_EQ(error_idx, 0u);
}

TEST_F(ControlsTest, ManualPayloadsAreKeptWholeAndReadBack)
{
    uint8_t payload[36];
    for (int i = 0; i < 36; ++i)
        payload[i] = uint8_t(0xA0 + i);
    v4l2_ext_control control{};
    control.id = zelisp::ISP_CID_MWB;
    control.size = 35;
    control.ptr = payload;
    EXPECT_EQ(Ext(VIDIOC_S_EXT_CTRLS, &control), EFAULT);
    control.size = 36;
    ASSERT_EQ(Ext(VIDIOC_S_EXT_CTRLS, &control), 0);
    EXPECT_EQ(zsim::manual_payload(0, zelisp::ISP_CID_MWB), std::vector<uint8_t>(payload, payload + 36));
    EXPECT_EQ(zsim::requests(uint32_t(VIDIOC_S_EXT_CTRLS)).back().detail,
              "ctrl_class=0x00980000 count=1 id=0x00981991 size=36 payload="
              "a0a1a2a3a4a5a6a7a8a9aaabacadaeafb0b1b2b3b4b5b6b7b8b9babbbcbdbebfc0c1c2c3");

    uint8_t read_back[36] = {};
    control.ptr = read_back;
    control.size = 8;
    EXPECT_EQ(Ext(VIDIOC_G_EXT_CTRLS, &control), ENOSPC);
    ASSERT_EQ(control.size, 36u); // tells the caller what it needs
    ASSERT_EQ(Ext(VIDIOC_G_EXT_CTRLS, &control), 0);
    EXPECT_EQ(memcmp(read_back, payload, 36), 0);

    const uint8_t info[14] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 0xFF};
    zsim::set_abnormal_info(0, info);
    uint8_t buffer[15];
    memset(buffer, 0xEE, sizeof buffer);
    ASSERT_EQ(node_->Request(zelisp::VIDIOC_ISP_GET_ABNORMAL_INFO, buffer), 0);
    EXPECT_EQ(memcmp(buffer, info, 14), 0);
    EXPECT_EQ(buffer[14], 0xEE);
}

TEST_F(ControlsTest, EnumerationWalksPlainControlsThenPayloadsAndMenus)
{
    const std::vector<uint32_t> plain = {V4L2_CID_USER_CLASS,  V4L2_CID_BRIGHTNESS,    V4L2_CID_CONTRAST,
                                         V4L2_CID_SATURATION,  V4L2_CID_HUE,           V4L2_CID_AUTO_WHITE_BALANCE,
                                         V4L2_CID_GAMMA,       V4L2_CID_SHARPNESS,     zelisp::ISP_CID_YDNS,
                                         zelisp::ISP_CID_UVDNS, V4L2_CID_CAMERA_CLASS,  V4L2_CID_EXPOSURE_AUTO};
    EXPECT_EQ(Walk(V4L2_CTRL_FLAG_NEXT_CTRL), plain);
    EXPECT_EQ(Walk(V4L2_CTRL_FLAG_NEXT_COMPOUND), (std::vector<uint32_t>{zelisp::ISP_CID_MWB, zelisp::ISP_CID_MEC}));
    std::vector<uint32_t> legacy;
    v4l2_queryctrl query{};
    for (query.id = V4L2_CTRL_FLAG_NEXT_CTRL; node_->Request(VIDIOC_QUERYCTRL, &query) == 0;
         query.id |= V4L2_CTRL_FLAG_NEXT_CTRL)
        legacy.push_back(query.id);
    EXPECT_EQ(legacy, plain);

    v4l2_querymenu item{};
    item.id = V4L2_CID_EXPOSURE_AUTO;
    item.index = 1;
    ASSERT_EQ(node_->Request(VIDIOC_QUERYMENU, &item), 0);
    EXPECT_STREQ(reinterpret_cast<char *>(item.name), "Manual Mode");
    item.index = 4; // a firmware mode without a name
    EXPECT_EQ(node_->Request(VIDIOC_QUERYMENU, &item), EINVAL);
}

TEST(ControlListingTest, V4l2CtlListsTheControlsOfASimulatedCamera)
{
    if (access("/usr/bin/v4l2-ctl", X_OK) != 0)
        GTEST_SKIP() << "v4l2-ctl is not installed (Debian package v4l-utils, see scripts/setup.sh)";
    const std::string runner = zelisp_test::RunnerPath();
    if (runner.empty())
        GTEST_SKIP() << "zelisp-sim-run is not built next to the simulator library";
    std::string output;
    ASSERT_EQ(zelisp_test::RunCommand(runner + " -- v4l2-ctl -d /dev/video0 --list-ctrls", &output), 0) << output;
    for (const char *line : {"User Controls", "brightness 0x00980900 (int)    : min=0 max=255 step=1 default=128",
                             "white_balance_automatic 0x0098090c (bool)   : default=1 value=1",
                             "gamma 0x00980910 (int)    : min=-2147483648 max=2147483647 step=1 default=100",
                             "sharpness 0x0098091b (int)    : min=0 max=10 step=1 default=5 value=5",
                             "luma_denoise 0x00981993 (int)    : min=0 max=10 step=1 default=5 value=5",
                             "manual_white_balance 0x00981991 (u8)     : min=0 max=255 step=1 default=0 dims=[36]",
                             "Camera Controls", "auto_exposure 0x009a0901 (menu)   : min=0 max=255 default=0 value=0 (Auto Mode)"})
        EXPECT_NE(output.find(line), std::string::npos) << line << "\nin:\n" << output;
}

} // namespace
