/* Opening and closing camera nodes, the native descriptor and the library frame. */
#include <fcntl.h>

#include <cerrno>

#include "camera_fixture.h"

namespace zelisp_test {
namespace {

using OpenClose = CameraTest;

TEST_F(OpenClose, ModeChoosesTheNodeAndBadArgumentsProbeNothing)
{
    Call refused = Captured([] {
        return int(isp_open_video(12, 1) | isp_open_video(0xFFFFFFFFu, 1) | isp_open_video(0, 0) |
                   isp_open_video(0, 3));
    });
    EXPECT_EQ(refused.result, 0);
    EXPECT_EQ(refused.out, "");
    EXPECT_TRUE(zsim::request_log().empty());

    zsim::set_camera(11, zsim::CameraConfig());
    unsigned long mode2 = Open(11, 2);
    unsigned long mode1 = Open(1, 1);
    EXPECT_STREQ(Video(mode2).dev_path, "/dev/video23");
    EXPECT_EQ(Video(mode2).mode, 2u);
    EXPECT_STREQ(Video(mode1).dev_path, "/dev/video1");
    int64_t fd = -1;
    ASSERT_EQ(isp_camera_get_native_fd(mode2, &fd), ISP_OK);
    EXPECT_EQ(fd, Video(mode2).fd);
    EXPECT_NE(fcntl(int(fd), F_GETFL) & O_NONBLOCK, 0);
    // No crash on a null output: refused like every other pointer.
    EXPECT_EQ(Captured([&] { return isp_camera_get_native_fd(mode1, nullptr); }).out, "");
    EXPECT_EQ(isp_camera_get_native_fd(mode1, nullptr), ISP_ERR_INVALID);
}

TEST_F(OpenClose, NodeThatCannotBeUsedGivesNoHandleAndSaysWhy)
{
    zsim::set_node_kind("/dev/video1", zsim::NodeKind::RegularFile);
    zsim::set_node_kind("/dev/video2", zsim::NodeKind::Directory);
    zsim::set_open_errno("/dev/video3", EACCES);
    Call call = Captured([] {
        return int(isp_open_video(5, 1) | isp_open_video(1, 1) | isp_open_video(2, 1) | isp_open_video(3, 1));
    });
    EXPECT_EQ(call.result, 0);
    EXPECT_EQ(call.out, "video device /dev/video5 not exist\n"
                        "video device /dev/video1 not char dev\n"
                        "video device /dev/video2 not char dev\n"
                        "video device /dev/video3 open failed\n");
}

TEST_F(OpenClose, CloseReleasesEverythingEvenWhenTheNodeCloseFails)
{
    unsigned long handle = Inited();
    zsim::set_close_errno("/dev/video0", EIO);
    Call call = Captured([&] { return Close(handle); });
    EXPECT_EQ(call.result, ISP_OK);
    EXPECT_EQ(call.out, "video device /dev/video0 close failed\n");
}

TEST_F(OpenClose, ObjectThatWasNeverOpenedRefusesFdAndClose)
{
    unsigned long handle = reinterpret_cast<unsigned long>(new zelisp::IspVideo);
    int64_t fd = 77;
    Call call = Captured([&] {
        EXPECT_EQ(isp_camera_get_native_fd(handle, &fd), ISP_ERR_STATE);
        return isp_close_video(handle); // Close refused, the object is destroyed anyway
    });
    EXPECT_EQ(call.result, ISP_OK);
    EXPECT_EQ(fd, 77);
    EXPECT_EQ(call.out, "GetVideoFd: bad state, video not opened\nClose: bad state 0\n");
    EXPECT_EQ(isp_close_video(0), ISP_ERR_INVALID);
    EXPECT_EQ(isp_camera_get_native_fd(0, &fd), ISP_ERR_INVALID);
}

TEST_F(OpenClose, InterruptedRequestsAreIssuedAgain)
{
    zsim::interrupt_request(VIDIOC_REQBUFS, 3);
    zsim::interrupt_request(VIDIOC_S_FMT, 2, "", true);
    unsigned long handle = Inited();
    EXPECT_EQ(Video(handle).state, uint32_t(zelisp::VIDEO_INITED));
    EXPECT_EQ(zsim::requests(VIDIOC_REQBUFS).size(), 4u);
    EXPECT_EQ(zsim::requests(VIDIOC_S_FMT).size(), 9u);
}

TEST_F(OpenClose, VersionAndResultTextsAreConstant)
{
    EXPECT_STREQ(isp_get_sdk_version(), "zelisp:v1.3.0");
    EXPECT_EQ(isp_get_sdk_version(), isp_get_sdk_version());
    EXPECT_STREQ(isp_get_result_text(ISP_ERR_TIMEOUT), "no frame arrived within the time limit");
    EXPECT_STREQ(isp_get_result_text(-3), "unknown result code");
}

} // namespace
} // namespace zelisp_test
