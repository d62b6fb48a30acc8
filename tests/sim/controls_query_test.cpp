// How the simulated camera driver describes its controls: the enumeration
// a V4L2 client walks, and v4l2-ctl listing them.
#include <linux/videodev2.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <vector>

#include "sim_fixture.h"

namespace {

class ControlQueryTest : public zelisp_test::SimTest {
protected:
    void SetUp() override
    {
        SimTest::SetUp();
        fd_ = open("/dev/video3", O_RDWR);
        ASSERT_GE(fd_, 0);
    }
    void TearDown() override
    {
        close(fd_);
        SimTest::TearDown();
    }
    // The ids QUERY_EXT_CTRL hands out when walked with these flags.
    std::vector<uint32_t> Walk(uint32_t flags)
    {
        std::vector<uint32_t> ids;
        v4l2_query_ext_ctrl query{};
        query.id = flags;
        while (ioctl(fd_, VIDIOC_QUERY_EXT_CTRL, &query) == 0) {
            ids.push_back(query.id);
            query.id |= flags;
        }
        EXPECT_EQ(errno, EINVAL);
        return ids;
    }
    int fd_ = -1;
};

TEST_F(ControlQueryTest, NextCtrlWalksPlainControlsAndNextCompoundThePayloads)
{
    const std::vector<uint32_t> plain = {V4L2_CID_USER_CLASS,   V4L2_CID_BRIGHTNESS, V4L2_CID_CONTRAST,
                                         V4L2_CID_SATURATION,   V4L2_CID_HUE,        V4L2_CID_AUTO_WHITE_BALANCE,
                                         V4L2_CID_GAMMA,        V4L2_CID_SHARPNESS,  0x00981993,
                                         0x00981994,            V4L2_CID_CAMERA_CLASS, V4L2_CID_EXPOSURE_AUTO};
    EXPECT_EQ(Walk(V4L2_CTRL_FLAG_NEXT_CTRL), plain);
    EXPECT_EQ(Walk(V4L2_CTRL_FLAG_NEXT_COMPOUND), (std::vector<uint32_t>{0x00981991, 0x00981992}));
    EXPECT_EQ(Walk(V4L2_CTRL_FLAG_NEXT_CTRL | V4L2_CTRL_FLAG_NEXT_COMPOUND).size(), plain.size() + 2);

    // The legacy request walks the same plain controls.
    std::vector<uint32_t> legacy;
    v4l2_queryctrl query{};
    query.id = V4L2_CTRL_FLAG_NEXT_CTRL;
    while (ioctl(fd_, VIDIOC_QUERYCTRL, &query) == 0) {
        legacy.push_back(query.id);
        query.id |= V4L2_CTRL_FLAG_NEXT_CTRL;
    }
    EXPECT_EQ(legacy, plain);
}

TEST_F(ControlQueryTest, QueriesDescribeRangesPayloadsAndMenus)
{
    v4l2_queryctrl gamma{};
    gamma.id = V4L2_CID_GAMMA;
    ASSERT_EQ(ioctl(fd_, VIDIOC_QUERYCTRL, &gamma), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(gamma.name)), "Gamma");
    EXPECT_EQ(gamma.minimum, INT32_MIN);
    EXPECT_EQ(gamma.maximum, INT32_MAX);
    EXPECT_EQ(gamma.default_value, 100);

    v4l2_query_ext_ctrl mwb{};
    mwb.id = 0x00981991;
    ASSERT_EQ(ioctl(fd_, VIDIOC_QUERY_EXT_CTRL, &mwb), 0);
    EXPECT_EQ(mwb.type, uint32_t(V4L2_CTRL_TYPE_U8));
    EXPECT_EQ(mwb.flags, uint32_t(V4L2_CTRL_FLAG_HAS_PAYLOAD));
    EXPECT_EQ(mwb.elems, 36u);
    EXPECT_EQ(mwb.nr_of_dims, 1u);
    EXPECT_EQ(mwb.dims[0], 36u);

    v4l2_query_ext_ctrl unknown{};
    unknown.id = 0x00980999;
    EXPECT_EQ(ioctl(fd_, VIDIOC_QUERY_EXT_CTRL, &unknown), -1);
    EXPECT_EQ(errno, EINVAL);

    v4l2_querymenu item{};
    item.id = V4L2_CID_EXPOSURE_AUTO;
    item.index = 1;
    ASSERT_EQ(ioctl(fd_, VIDIOC_QUERYMENU, &item), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(item.name)), "Manual Mode");
    item.index = 4; // a firmware mode without a name
    EXPECT_EQ(ioctl(fd_, VIDIOC_QUERYMENU, &item), -1);
    EXPECT_EQ(errno, EINVAL);
}

// The runner sits next to the simulator library in the build tree.
std::string RunnerPath()
{
    Dl_info info{};
    if (!dladdr(reinterpret_cast<void *>(&zsim::reset), &info) || !info.dli_fname)
        return "";
    std::string path = info.dli_fname;
    path = path.substr(0, path.rfind('/') + 1) + "zelisp-sim-run";
    return access(path.c_str(), X_OK) == 0 ? path : "";
}

TEST(ControlListingTest, V4l2CtlListsTheControlsOfASimulatedCamera)
{
    if (access("/usr/bin/v4l2-ctl", X_OK) != 0)
        GTEST_SKIP() << "v4l2-ctl is not installed (Debian package v4l-utils)";
    const std::string runner = RunnerPath();
    if (runner.empty())
        GTEST_SKIP() << "zelisp-sim-run is not built next to the simulator library";
    FILE *pipe = popen((runner + " -- v4l2-ctl -d /dev/video0 --list-ctrls 2>&1").c_str(), "r");
    ASSERT_NE(pipe, nullptr);
    std::string output;
    char chunk[512];
    while (fgets(chunk, sizeof chunk, pipe))
        output += chunk;
    EXPECT_EQ(pclose(pipe), 0) << output;
    for (const char *line : {"brightness 0x00980900 (int)    : min=0 max=255 step=1 default=128 value=128",
                             "white_balance_automatic 0x0098090c (bool)   : default=1 value=1",
                             "gamma 0x00980910 (int)    : min=-2147483648 max=2147483647 step=1 default=100",
                             "sharpness 0x0098091b (int)    : min=0 max=10 step=1 default=5 value=5",
                             "luma_denoise 0x00981993 (int)    : min=0 max=10 step=1 default=5 value=5",
                             "manual_white_balance 0x00981991 (u8)", "auto_exposure 0x009a0901 (menu)",
                             "User Controls", "Camera Controls"})
        EXPECT_NE(output.find(line), std::string::npos) << line << "\nin:\n" << output;
}

} // namespace
