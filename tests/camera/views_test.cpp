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
