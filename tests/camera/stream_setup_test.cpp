/* Init: buffer count, view combination, per-view formats and their failures. */
#include <cerrno>

#include "camera_fixture.h"

namespace zelisp_test {
namespace {

using StreamSetup = CameraTest;

TEST_F(StreamSetup, CombinationSelectsInputAndSetsEnabledViewsInOrder)
{
    unsigned long handle = Open();
    zsim::clear_log();
    Call call = Captured([&] {
        for (int count : {2, 9, -1})
            EXPECT_EQ(isp_init_video(handle, 5, count), ISP_ERR_BUFFER_COUNT);
        EXPECT_TRUE(zsim::request_log().empty());
        EXPECT_EQ(isp_init_video(handle, 5, 3), ISP_OK);
        return isp_init_video(handle, 5, 3);
    });
    EXPECT_EQ(call.result, ISP_ERR_STATE);
    EXPECT_EQ(call.out, "/dev/video0request buffer number invalid\n"
                        "/dev/video0request buffer number invalid\n"
                        "/dev/video0request buffer number invalid\n"
                        "/dev/video0 view input supported combination: 7\n"
                        "/dev/video0 view input combination: 5\n"
                        "Init: bad state 2\n");
    EXPECT_EQ(Sent<int>(VIDIOC_S_INPUT), std::vector<int>{5});
    auto formats = Sent<v4l2_format>(VIDIOC_S_FMT);
    ASSERT_EQ(formats.size(), 2u);
    EXPECT_EQ(formats[0].fmt.pix_mp.num_planes, 0);
    EXPECT_EQ(formats[0].fmt.pix_mp.width, 1920u);
    EXPECT_EQ(formats[0].fmt.pix_mp.height, 1080u);
    EXPECT_EQ(formats[0].fmt.pix_mp.pixelformat, zsim::kNV12);
    EXPECT_EQ(formats[1].fmt.pix_mp.num_planes, 2);
    EXPECT_EQ(formats[1].fmt.pix_mp.width, 640u);
    EXPECT_EQ(Video(handle).plane_count, 2);
    EXPECT_EQ(Video(handle).view_mask, 5u);
    EXPECT_EQ(isp_init_video(Inited(7, 8, 1), 7, 8), ISP_ERR_STATE); // 8 buffers accepted
}

TEST_F(StreamSetup, ModeTwoAndCombinationZeroSetNoFormat)
{
    unsigned long single = Open(0, 2);
    ASSERT_EQ(isp_init_video(single, 6, 3), ISP_OK);
    EXPECT_TRUE(zsim::requests(VIDIOC_S_INPUT).empty());
    EXPECT_EQ(Video(single).plane_count, 1);
    EXPECT_EQ(Video(single).view_mask, 1u);
    EXPECT_NE(Video(single).buffers[2].views[0].addr, nullptr);

    unsigned long none = Inited(0, 3, 1);
    EXPECT_EQ(Sent<int>(VIDIOC_S_INPUT), std::vector<int>{0});
    EXPECT_TRUE(zsim::requests(VIDIOC_S_FMT).empty());
    EXPECT_EQ(Video(none).plane_count, 0);
    EXPECT_EQ(Video(none).buffer_count, 3);
}

TEST_F(StreamSetup, FailedRequestSaysWhichAndLeavesTheCameraOpened)
{
    const std::string supported = "/dev/video0 view input supported combination: 7\n";
    const std::string selected = supported + "/dev/video0 view input combination: 7\n";
    const struct {
        unsigned long request;
        int nth;
        std::string out;
        const char *label;
    } cases[] = {
        {VIDIOC_ENUMINPUT, 1, "/dev/video0 enum view input combination failed\n", "enum input"},
        {VIDIOC_S_INPUT, 1, supported + "/dev/video0 set view input combination 7 failed\n", "set input"},
        {VIDIOC_G_INPUT, 1, supported + "/dev/video0 get view input combination failed\n", "get input"},
        {VIDIOC_G_FMT, 1, selected + "/dev/video0 get view format failed\n", "get format"},
        {VIDIOC_S_FMT, 3, selected + "/dev/video0 set view index 2 format failed\n", "set format"},
    };
    unsigned long handle = Open();
    for (const auto &c : cases) {
        SCOPED_TRACE(c.label);
        zsim::fail_request(uint32_t(c.request), c.nth, EIO);
        Call call = Captured([&] { return isp_init_video(handle, 7, 4); });
        EXPECT_EQ(call.result, ISP_ERR_REQUEST);
        EXPECT_EQ(call.out, c.out);
        EXPECT_EQ(call.err, Perror(c.label, EIO));
        EXPECT_EQ(Video(handle).state, uint32_t(zelisp::VIDEO_OPENED));
        EXPECT_EQ(Video(handle).view_mask, 0u);
        zsim::clear_faults();
    }
    EXPECT_EQ(Video(handle).plane_count, 3); // the failed view was counted
    EXPECT_EQ(isp_init_video(handle, 7, 4), ISP_OK);
}

} // namespace
} // namespace zelisp_test
