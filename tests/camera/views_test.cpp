/* View formats as the driver reports them, and the per-view DMA-buf descriptors. */
#include <sys/mman.h>

#include <cerrno>

#include "camera_fixture.h"

namespace zelisp_test {
namespace {

using Views = CameraTest;

TEST_F(Views, FormatIsTheDriversWordForThatViewInEveryOpenState)
{
    zsim::CameraConfig config;
    config.views[1] = {zsim::kYUYV, 800, 600};
    zsim::set_camera(0, config);
    unsigned long handle = Open();
    zelvideo::_view_format_t format = {};
    ASSERT_EQ(isp_get_view_format(handle, 1, &format), ISP_OK);
    EXPECT_EQ(format.format, zsim::kYUYV);
    EXPECT_EQ(format.width, 800u);
    EXPECT_EQ(format.height, 600u);
    ASSERT_EQ(isp_init_video(handle, 5, 3), ISP_OK);
    ASSERT_EQ(isp_get_view_format(handle, 1, &format), ISP_OK); // not enabled, still reported
    EXPECT_EQ(format.width, 800u);
    ASSERT_EQ(isp_start_capture(handle), ISP_OK);
    ASSERT_EQ(isp_get_view_format(handle, 2, &format), ISP_OK);
    EXPECT_EQ(format.width, 640u);
    EXPECT_EQ(format.height, 360u);

    format = {};
    zsim::fail_request(VIDIOC_G_FMT, 1, EIO);
    Call call = Captured([&] {
        EXPECT_EQ(isp_get_view_format(handle, 3, &format), ISP_ERR_INVALID);
        EXPECT_EQ(isp_get_view_format(handle, 0, nullptr), ISP_ERR_INVALID);
        return isp_get_view_format(handle, 0, &format);
    });
    EXPECT_EQ(call.result, ISP_ERR_REQUEST);
    EXPECT_EQ(call.out, "/dev/video0 get view format failed\n");
    EXPECT_EQ(call.err, Perror("get format", EIO));
    EXPECT_EQ(format.width, 0u); // written only on success
}

TEST_F(Views, SetFormatSendsTheViewInNumPlanesAndInitSizesTheBuffersFromIt)
{
    unsigned long handle = Open();
    const zelvideo::_view_format_t vga = {zsim::kNV12, 640, 480};
    zsim::clear_log();
    ASSERT_EQ(isp_set_view_format(handle, 1, &vga), ISP_OK);
    auto sent = Sent<v4l2_format>(VIDIOC_S_FMT);
    ASSERT_EQ(sent.size(), 1u);
    v4l2_format expected = {};
    expected.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    expected.fmt.pix_mp.width = 640;
    expected.fmt.pix_mp.height = 480;
    expected.fmt.pix_mp.pixelformat = zsim::kNV12;
    expected.fmt.pix_mp.num_planes = 1; // the driver reads the view number here
    EXPECT_EQ(std::memcmp(&sent[0], &expected, sizeof expected), 0);

    zelvideo::_view_format_t format = {};
    ASSERT_EQ(isp_get_view_format(handle, 1, &format), ISP_OK);
    EXPECT_EQ(format.format, zsim::kNV12);
    EXPECT_EQ(format.width, 640u);
    EXPECT_EQ(format.height, 480u);
    ASSERT_EQ(isp_init_video(handle, 2, 3), ISP_OK); // view 1 alone: plane 0
    const uint32_t page = 4096, image = 640 * 480 * 3 / 2; // the driver rounds planes up to whole pages
    EXPECT_EQ(Video(handle).buffers[0].views[1].length, (image + page - 1) / page * page);

    // Still allowed once set up (the next set-up reads it), not while streaming.
    const zelvideo::_view_format_t small = {zsim::kNV12, 640, 360};
    zsim::clear_log();
    ASSERT_EQ(isp_set_view_format(handle, 2, &small), ISP_OK);
    sent = Sent<v4l2_format>(VIDIOC_S_FMT);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].fmt.pix_mp.num_planes, 2);
    ASSERT_EQ(isp_start_capture(handle), ISP_OK);
    zsim::clear_log();
    Call streaming = Captured([&] { return isp_set_view_format(handle, 0, &small); });
    EXPECT_EQ(streaming.result, ISP_ERR_STATE);
    EXPECT_EQ(streaming.out, "SetViewFormat: bad state 4\n");
    EXPECT_TRUE(zsim::requests(uint32_t(VIDIOC_S_FMT)).empty());
}

TEST_F(Views, SetFormatRefusesBadArgumentsSilentlyAndReportsADriverRefusal)
{
    unsigned long handle = Open();
    const zelvideo::_view_format_t format = {zsim::kNV12, 640, 360};
    zsim::clear_log();
    Call refused = Captured([&] {
        EXPECT_EQ(isp_set_view_format(0, 0, &format), ISP_ERR_INVALID);
        EXPECT_EQ(isp_set_view_format(handle, 0, nullptr), ISP_ERR_INVALID);
        EXPECT_EQ(isp_set_view_format(handle, 3, &format), ISP_ERR_INVALID);
        return isp_set_view_format(handle, 256, &format); // would wrap to view 0 in the byte
    });
    EXPECT_EQ(refused.result, ISP_ERR_INVALID);
    EXPECT_EQ(refused.out, "");
    EXPECT_EQ(refused.err, "");
    EXPECT_TRUE(zsim::requests(uint32_t(VIDIOC_S_FMT)).empty());

    zsim::fail_request(VIDIOC_S_FMT, 1, EINVAL);
    Call driver = Captured([&] { return isp_set_view_format(handle, 0, &format); });
    EXPECT_EQ(driver.result, ISP_ERR_REQUEST);
    EXPECT_EQ(driver.out, "/dev/video0 set view format failed\n");
    EXPECT_EQ(driver.err, Perror("set format", EINVAL));
    EXPECT_EQ(Video(handle).state, zelisp::VIDEO_OPENED);
}

TEST_F(Views, BufferDescriptorOnlyBetweenInitAndStartAndSharesTheMapping)
{
    unsigned long handle = Inited(6, 4);
    const zelisp::IspVideo &video = Video(handle);
    Call call = Captured([&] {
        EXPECT_EQ(isp_get_view_buf_fd(handle, 3, 2), video.buffers[3].views[2].fd);
        EXPECT_EQ(isp_get_view_buf_fd(handle, 0, 0), -1); // view 0 is not enabled
        EXPECT_EQ(isp_get_view_buf_fd(handle, 0, 3), ISP_ERR_INVALID);
        EXPECT_EQ(isp_get_view_buf_fd(handle, 4, 1), ISP_ERR_INVALID);
        EXPECT_EQ(isp_start_capture(handle), ISP_OK);
        return isp_get_view_buf_fd(handle, 0, 1);
    });
    EXPECT_EQ(call.result, ISP_ERR_STATE);
    EXPECT_EQ(call.out, "GetViewBufFd: bad state 4\n");

    const zelvideo::_isp_view_buf_t &plane = video.buffers[2].views[1];
    void *other = mmap(nullptr, plane.length, PROT_READ | PROT_WRITE, MAP_SHARED, plane.fd, 0);
    ASSERT_NE(other, MAP_FAILED);
    std::memcpy(other, "view one", 9);
    EXPECT_STREQ(static_cast<const char *>(plane.addr), "view one");
    munmap(other, plane.length);
}

} // namespace
} // namespace zelisp_test
