/* Opening and closing camera nodes, the native descriptor and the library frame. */
#include <fcntl.h>

#include <cerrno>

#include "camera_fixture.h"

namespace zelisp_test {
namespace {

using OpenClose = CameraTest;

TEST_F(OpenClose, BadIndexOrModeIsRefusedWithoutProbing)
{
    OutputCapture output;
    EXPECT_EQ(isp_open_video(12, 1), 0u);
    EXPECT_EQ(isp_open_video(0xFFFFFFFFu, 1), 0u);
    EXPECT_EQ(isp_open_video(0, 0), 0u);
    EXPECT_EQ(isp_open_video(0, 3), 0u);
    output.Stop();
    EXPECT_EQ(output.out(), "");
    EXPECT_TRUE(zsim::request_log().empty());
}

TEST_F(OpenClose, ModeChoosesTheNodeAndOpensItNonBlocking)
{
    zsim::set_camera(11, zsim::CameraConfig());
    unsigned long mode2 = Open(11, 2);
    unsigned long mode1 = Open(1, 1);
    EXPECT_STREQ(Video(mode2).dev_path, "/dev/video23");
    EXPECT_EQ(Video(mode2).mode, 2u);
    EXPECT_STREQ(Video(mode1).dev_path, "/dev/video1");
    EXPECT_EQ(Video(mode1).state, uint32_t(zelisp::VIDEO_OPENED));

    int64_t fd = -1;
    ASSERT_EQ(isp_camera_get_native_fd(mode2, &fd), ISP_OK);
    EXPECT_EQ(fd, Video(mode2).fd);
    EXPECT_NE(fcntl(int(fd), F_GETFL) & O_NONBLOCK, 0);
    auto opens = zsim::requests(zsim::kOpen);
    ASSERT_EQ(opens.size(), 2u);
    EXPECT_EQ(opens[0].path, "/dev/video23");
    EXPECT_EQ(opens[1].path, "/dev/video1");
}

TEST_F(OpenClose, NodeThatCannotBeUsedGivesNoHandleAndSaysWhy)
{
    zsim::set_node_kind("/dev/video1", zsim::NodeKind::RegularFile);
    zsim::set_node_kind("/dev/video2", zsim::NodeKind::Directory);
    zsim::set_open_errno("/dev/video3", EACCES);
    OutputCapture output;
    EXPECT_EQ(isp_open_video(5, 1), 0u);
    EXPECT_EQ(isp_open_video(1, 1), 0u);
    EXPECT_EQ(isp_open_video(2, 1), 0u);
    EXPECT_EQ(isp_open_video(3, 1), 0u);
    output.Stop();
    EXPECT_EQ(output.out(), "video device /dev/video5 not exist\n"
                            "video device /dev/video1 not char dev\n"
                            "video device /dev/video2 not char dev\n"
                            "video device /dev/video3 open failed\n");
}

TEST_F(OpenClose, CloseReleasesEverythingEvenWhenTheNodeCloseFails)
{
    unsigned long handle = Inited();
    zsim::set_close_errno("/dev/video0", EIO);
    OutputCapture output;
    EXPECT_EQ(Close(handle), ISP_OK);
    output.Stop();
    EXPECT_EQ(output.out(), "video device /dev/video0 close failed\n");
    EXPECT_EQ(zsim::requests(VIDIOC_STREAMOFF).size(), 0u);
}

TEST_F(OpenClose, ObjectThatWasNeverOpenedRefusesFdAndClose)
{
    auto *video = new zelisp::IspVideo;
    unsigned long handle = reinterpret_cast<unsigned long>(video);
    int64_t fd = 77;
    OutputCapture output;
    EXPECT_EQ(isp_camera_get_native_fd(handle, &fd), ISP_ERR_STATE);
    EXPECT_EQ(isp_close_video(handle), ISP_OK); // Close refused, object destroyed anyway
    output.Stop();
    EXPECT_EQ(fd, 77);
    EXPECT_EQ(output.out(), "GetVideoFd: bad state, video not opened\nClose: bad state 0\n");
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
    EXPECT_STREQ(isp_get_result_text(1), "unknown result code");
    for (int code = 0; code >= -17; --code)
        EXPECT_NE(isp_get_result_text(code), nullptr);
}

} // namespace
} // namespace zelisp_test
