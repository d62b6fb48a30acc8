// The simulated camera driver's controls, reached with raw requests on the
// nodes as any V4L2 program reaches them.
#include <linux/videodev2.h>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "sim_fixture.h"

namespace {

constexpr uint32_t kCidMwb = 0x00981991;
constexpr uint32_t kCidMec = 0x00981992;
constexpr uint32_t kCidYdns = 0x00981993;
constexpr uint32_t kCidUvdns = 0x00981994;
constexpr unsigned long kGetAbnormalInfo = 0x800E56CC;

class ControlsTest : public zelisp_test::SimTest {
protected:
    void SetUp() override
    {
        SimTest::SetUp();
        fd_ = open("/dev/video0", O_RDWR);
        ASSERT_GE(fd_, 0);
    }
    void TearDown() override
    {
        for (int fd : {fd_, other_})
            if (fd >= 0)
                close(fd);
        SimTest::TearDown();
    }

    // errno of a request on fd, 0 on success.
    static int Request(int fd, unsigned long request, void *arg)
    {
        return ioctl(fd, request, arg) == 0 ? 0 : errno;
    }
    int Set(uint32_t id, int32_t value)
    {
        v4l2_control control = {id, value};
        return Request(fd_, VIDIOC_S_CTRL, &control);
    }
    int32_t Get(int fd, uint32_t id)
    {
        v4l2_control control = {id, -12345};
        EXPECT_EQ(Request(fd, VIDIOC_G_CTRL, &control), 0) << std::hex << id;
        return control.value;
    }
    // One-control extended request of the user class, as the library sends it.
    int Ext(unsigned long request, v4l2_ext_control *control, uint32_t *error_idx = nullptr)
    {
        v4l2_ext_controls controls{};
        controls.ctrl_class = V4L2_CTRL_CLASS_USER;
        controls.count = 1;
        controls.controls = control;
        const int err = Request(fd_, request, &controls);
        if (error_idx)
            *error_idx = controls.error_idx;
        return err;
    }

    int fd_ = -1;
    int other_ = -1;
};

TEST_F(ControlsTest, PlainControlsStartAtTheirDefaultsAndKeepTheirRanges)
{
    for (uint32_t id : {V4L2_CID_BRIGHTNESS, V4L2_CID_CONTRAST, V4L2_CID_SATURATION, V4L2_CID_HUE}) {
        EXPECT_EQ(Get(fd_, id), 128);
        EXPECT_EQ(Set(id, 255), 0);
        EXPECT_EQ(Set(id, 256), ERANGE);
        EXPECT_EQ(Set(id, -1), ERANGE);
        EXPECT_EQ(Set(id, 0), 0);
        EXPECT_EQ(Get(fd_, id), 0);
    }
    EXPECT_EQ(Set(V4L2_CID_SHARPNESS, 10), 0);
    EXPECT_EQ(Set(V4L2_CID_SHARPNESS, 11), ERANGE);
    EXPECT_EQ(Get(fd_, V4L2_CID_SHARPNESS), 10);
    EXPECT_EQ(Set(V4L2_CID_AUTO_WHITE_BALANCE, 2), ERANGE);
    EXPECT_EQ(Get(fd_, V4L2_CID_AUTO_WHITE_BALANCE), 1);
    EXPECT_EQ(Set(V4L2_CID_EXPOSURE_AUTO, 255), 0); // any byte reaches the firmware
    EXPECT_EQ(Set(V4L2_CID_EXPOSURE_AUTO, 256), ERANGE);
    // Gamma takes every 32-bit word.
    EXPECT_EQ(Set(V4L2_CID_GAMMA, -1), 0);
    EXPECT_EQ(uint32_t(Get(fd_, V4L2_CID_GAMMA)), 0xFFFFFFFFu);
}

TEST_F(ControlsTest, UnknownAndPayloadIdsAreRefusedByThePlainRequests)
{
    v4l2_control control = {0x00980999, 0};
    EXPECT_EQ(Request(fd_, VIDIOC_G_CTRL, &control), EINVAL);
    EXPECT_EQ(Request(fd_, VIDIOC_S_CTRL, &control), EINVAL);
    control.id = kCidMwb;
    EXPECT_EQ(Request(fd_, VIDIOC_G_CTRL, &control), EINVAL);
    control.id = V4L2_CID_USER_CLASS;
    EXPECT_EQ(Request(fd_, VIDIOC_G_CTRL, &control), EACCES);
    EXPECT_EQ(Request(fd_, VIDIOC_S_CTRL, nullptr), EFAULT);
}

TEST_F(ControlsTest, BothNodesOfACameraShareItsControlsAndCamerasAreIndependent)
{
    other_ = open("/dev/video12", O_RDWR); // camera 0, mode 2
    ASSERT_GE(other_, 0);
    ASSERT_EQ(Set(V4L2_CID_HUE, 7), 0);
    EXPECT_EQ(Get(other_, V4L2_CID_HUE), 7);
    int32_t value = 0;
    ASSERT_TRUE(zsim::control_value(0, V4L2_CID_HUE, &value));
    EXPECT_EQ(value, 7);
    ASSERT_TRUE(zsim::control_value(1, V4L2_CID_HUE, &value));
    EXPECT_EQ(value, 128);

    // The test setter bypasses the range, to give the library odd driver values.
    EXPECT_TRUE(zsim::set_control_value(0, V4L2_CID_AUTO_WHITE_BALANCE, 2));
    EXPECT_EQ(Get(fd_, V4L2_CID_AUTO_WHITE_BALANCE), 2);
    EXPECT_FALSE(zsim::set_control_value(0, kCidMwb, 1));
    EXPECT_FALSE(zsim::control_value(12, V4L2_CID_HUE, &value));

    zsim::reset();
    ASSERT_TRUE(zsim::control_value(0, V4L2_CID_HUE, &value));
    EXPECT_EQ(value, 128);
}

TEST_F(ControlsTest, LogShowsIdAndValue)
{
    zsim::clear_log();
    ASSERT_EQ(Set(V4L2_CID_BRIGHTNESS, 255), 0);
    ASSERT_EQ(Get(fd_, V4L2_CID_BRIGHTNESS), 255);
    const std::vector<zsim::LogEntry> log = zsim::request_log();
    ASSERT_EQ(log.size(), 2u);
    EXPECT_EQ(log[0].path, "/dev/video0");
    EXPECT_EQ(log[0].detail, "id=0x00980900 value=255");
    EXPECT_EQ(log[1].detail, "id=0x00980900 value=255");
    EXPECT_EQ(log[0].error, 0);
}

TEST_F(ControlsTest, DenoiseGoesThroughExtendedRequestsWithItsRange)
{
    v4l2_ext_control control{};
    control.id = kCidYdns;
    control.size = 4;
    control.value = 10;
    EXPECT_EQ(Ext(VIDIOC_S_EXT_CTRLS, &control), 0);
    control.id = kCidUvdns;
    control.value = 11;
    uint32_t error_idx = 99;
    EXPECT_EQ(Ext(VIDIOC_S_EXT_CTRLS, &control, &error_idx), ERANGE);
    EXPECT_EQ(error_idx, 1u); // a set refused by its checks changed nothing
    EXPECT_EQ(Ext(VIDIOC_TRY_EXT_CTRLS, &control, &error_idx), ERANGE);
    EXPECT_EQ(error_idx, 0u);
    control.value = 3;
    EXPECT_EQ(Ext(VIDIOC_TRY_EXT_CTRLS, &control), 0); // tried, not stored

    control.value = 0;
    EXPECT_EQ(Ext(VIDIOC_G_EXT_CTRLS, &control), 0);
    EXPECT_EQ(control.value, 5);
    control.id = kCidYdns;
    EXPECT_EQ(Ext(VIDIOC_G_EXT_CTRLS, &control), 0);
    EXPECT_EQ(control.value, 10);
    control.id = 0x00980999;
    EXPECT_EQ(Ext(VIDIOC_G_EXT_CTRLS, &control, &error_idx), EINVAL);
    EXPECT_EQ(error_idx, 0u);
    // Exposure auto lives in the camera class, not the user class.
    control.id = V4L2_CID_EXPOSURE_AUTO;
    EXPECT_EQ(Ext(VIDIOC_G_EXT_CTRLS, &control), EINVAL);
}

TEST_F(ControlsTest, ManualPayloadsAreKeptWholeAndReadBack)
{
    uint8_t payload[36];
    for (int i = 0; i < 36; ++i)
        payload[i] = uint8_t(0xA0 + i);
    v4l2_ext_control control{};
    control.id = kCidMwb;
    control.size = 35;
    control.ptr = payload;
    EXPECT_EQ(Ext(VIDIOC_S_EXT_CTRLS, &control), EFAULT);
    EXPECT_EQ(zsim::manual_payload(0, kCidMwb), std::vector<uint8_t>(36, 0));

    zsim::clear_log();
    control.size = 36;
    ASSERT_EQ(Ext(VIDIOC_S_EXT_CTRLS, &control), 0);
    EXPECT_EQ(zsim::manual_payload(0, kCidMwb), std::vector<uint8_t>(payload, payload + 36));
    EXPECT_EQ(zsim::manual_payload(0, kCidMec), std::vector<uint8_t>(36, 0));
    const std::vector<zsim::LogEntry> sent = zsim::requests(uint32_t(VIDIOC_S_EXT_CTRLS));
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].detail, "ctrl_class=0x00980000 count=1 id=0x00981991 size=36 payload="
                              "a0a1a2a3a4a5a6a7a8a9aaabacadaeafb0b1b2b3b4b5b6b7b8b9babbbcbdbebfc0c1c2c3");

    uint8_t read_back[36] = {};
    control.ptr = read_back;
    control.size = 8;
    EXPECT_EQ(Ext(VIDIOC_G_EXT_CTRLS, &control), ENOSPC);
    EXPECT_EQ(control.size, 36u); // tells the caller what it needs
    ASSERT_EQ(Ext(VIDIOC_G_EXT_CTRLS, &control), 0);
    EXPECT_EQ(memcmp(read_back, payload, 36), 0);
}

TEST_F(ControlsTest, AbnormalInfoHandsOverTheDriversFourteenBytes)
{
    const uint8_t info[14] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 0xFF};
    zsim::set_abnormal_info(0, info);
    uint8_t buffer[16];
    memset(buffer, 0xEE, sizeof buffer);
    ASSERT_EQ(Request(fd_, kGetAbnormalInfo, buffer), 0);
    EXPECT_EQ(memcmp(buffer, info, 14), 0);
    EXPECT_EQ(buffer[14], 0xEE); // nothing past the record
    EXPECT_EQ(zsim::requests(uint32_t(kGetAbnormalInfo)).back().detail, "info=0102030405060708090a0b0c0dff");

    other_ = open("/dev/video1", O_RDWR);
    ASSERT_GE(other_, 0);
    ASSERT_EQ(Request(other_, kGetAbnormalInfo, buffer), 0);
    EXPECT_EQ(std::vector<uint8_t>(buffer, buffer + 14), std::vector<uint8_t>(14, 0));
}

} // namespace
