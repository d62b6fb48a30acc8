// The ISP's conventions on the standard format and input requests: every
// view's format in the reserved words of plane_fmt, the view index in
// num_planes, the view combination as input number, and the resize record.
#include <cerrno>
#include <cstring>
#include <string>

#include "driver/isp_requests.h"
#include "sim_fixture.h"
#include "video_test_node.h"

namespace {

using zelisp_test::VideoNode;


struct ReportedView {
    uint32_t fourcc, width, height;
    bool operator==(const ReportedView &o) const { return fourcc == o.fourcc && width == o.width && height == o.height; }
};

// Reads view v's words exactly as the library does.
ReportedView ViewOf(const v4l2_format &format, int v)
{
    uint16_t words[6];
    std::memcpy(words, format.fmt.pix_mp.plane_fmt[v].reserved, sizeof words);
    return ReportedView{uint32_t(words[0]) | uint32_t(words[1]) << 16, words[2], words[3]};
}

int SetView(const VideoNode &node, uint8_t view, uint32_t fourcc, uint32_t width, uint32_t height)
{
    v4l2_format format{};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    format.fmt.pix_mp.width = width;
    format.fmt.pix_mp.height = height;
    format.fmt.pix_mp.pixelformat = fourcc;
    format.fmt.pix_mp.num_planes = view;
    return node.Request(VIDIOC_S_FMT, &format);
}

class VideoFormatsTest : public zelisp_test::SimTest {};

TEST_F(VideoFormatsTest, GetFormatReportsEveryViewAndThePlanesOfTheCombination)
{
    zsim::CameraConfig config;
    config.views[1] = {zsim::kYUYV, 1280, 720};
    zsim::set_camera(1, config);
    VideoNode node("/dev/video1");
    v4l2_format format = node.Format();
    EXPECT_EQ(ViewOf(format, 0), (ReportedView{zsim::kNV12, 1920, 1080}));
    EXPECT_EQ(ViewOf(format, 1), (ReportedView{zsim::kYUYV, 1280, 720}));
    EXPECT_EQ(ViewOf(format, 2), (ReportedView{zsim::kNV12, 640, 360}));

    // Standard fields follow the views of the selected combination.
    int input = 6;
    ASSERT_EQ(node.Request(VIDIOC_S_INPUT, &input), 0);
    format = node.Format();
    const v4l2_pix_format_mplane &mp = format.fmt.pix_mp;
    EXPECT_EQ(mp.num_planes, 2);
    EXPECT_EQ(mp.width, 1280u);
    EXPECT_EQ(mp.pixelformat, zsim::kYUYV);
    EXPECT_EQ(mp.plane_fmt[0].bytesperline, 2560u);
    EXPECT_EQ(mp.plane_fmt[1].bytesperline, 640u);
    EXPECT_GE(mp.plane_fmt[1].sizeimage, 640u * 360u);

    // The mode 2 node of the same camera carries view 0 alone.
    EXPECT_EQ(VideoNode("/dev/video13").Format().fmt.pix_mp.num_planes, 1);
}

TEST_F(VideoFormatsTest, SetFormatTakesTheViewFromNumPlanesAndRefusesWhatTheIspCannot)
{
    VideoNode node("/dev/video0");
    ASSERT_EQ(SetView(node, 2, zsim::kGREY, 320, 240), 0);
    EXPECT_EQ(ViewOf(node.Format(), 2), (ReportedView{zsim::kGREY, 320, 240}));
    EXPECT_EQ(ViewOf(node.Format(), 0), (ReportedView{zsim::kNV12, 1920, 1080}));
    EXPECT_EQ(zsim::camera_config(0).views[2].width, 320u);

    EXPECT_EQ(SetView(node, 1, zsim::kNV12, 0, 240), EINVAL);
    EXPECT_EQ(SetView(node, 1, zsim::kNV12, 321, 240), EINVAL);
    EXPECT_EQ(SetView(node, 1, zsim::kNV12, 320, 241), EINVAL);
    EXPECT_EQ(SetView(node, 1, zsim::kNV12, 1922, 1080), EINVAL); // wider than the sensor
    EXPECT_EQ(SetView(node, 1, zsim::fourcc('M', 'J', 'P', 'G'), 320, 240), EINVAL);
    EXPECT_EQ(SetView(node, 3, zsim::kNV12, 320, 240), EINVAL);
    EXPECT_EQ(ViewOf(node.Format(), 1), (ReportedView{zsim::kNV12, 1280, 720}));

    auto log = zsim::requests(uint32_t(VIDIOC_S_FMT));
    ASSERT_EQ(log.size(), 7u);
    EXPECT_EQ(log[0].detail, "view=2 width=320 height=240 fourcc=GREY");
    EXPECT_EQ(log[5].error, EINVAL);
}

TEST_F(VideoFormatsTest, InputIsTheViewCombinationWithinWhatTheCameraSupports)
{
    zsim::CameraConfig config;
    config.supported_combination = 5;
    zsim::set_camera(2, config);
    VideoNode node("/dev/video2");
    v4l2_input input{}; // sent zeroed, as the library does
    ASSERT_EQ(node.Request(VIDIOC_ENUMINPUT, &input), 0);
    EXPECT_EQ(input.index, 5u);
    input.index = 6; // a client enumerating further finds no other input
    EXPECT_EQ(node.Request(VIDIOC_ENUMINPUT, &input), EINVAL);

    int selected = 0;
    ASSERT_EQ(node.Request(VIDIOC_G_INPUT, &selected), 0);
    EXPECT_EQ(selected, 5);
    for (int refused : {2, 6, 7, 8})
        EXPECT_EQ(node.Request(VIDIOC_S_INPUT, &refused), EINVAL) << refused;
    for (int accepted : {4, 0, 1}) {
        ASSERT_EQ(node.Request(VIDIOC_S_INPUT, &accepted), 0) << accepted;
        ASSERT_EQ(node.Request(VIDIOC_G_INPUT, &selected), 0);
        EXPECT_EQ(selected, accepted);
    }
}

TEST_F(VideoFormatsTest, ResizeKeepsTheSecondCropInsideTheScaledImage)
{
    VideoNode node("/dev/video0");
    // top, bottom, left, right of each crop, then the scaled size.
    uint16_t regs[11] = {8, 488, 16, 656, 0, 480, 0, 640, 640, 480, 0};
    ASSERT_EQ(node.Request(zelisp::VIDIOC_ISP_SET_RESIZE, regs), 0);
    uint16_t outside[11] = {0, 480, 0, 640, 0, 482, 0, 640, 640, 480, 0};
    EXPECT_EQ(node.Request(zelisp::VIDIOC_ISP_SET_RESIZE, outside), EINVAL);
    uint16_t none[11] = {};
    EXPECT_EQ(node.Request(zelisp::VIDIOC_ISP_SET_RESIZE, none), 0);

    auto log = zsim::requests(uint32_t(zelisp::VIDIOC_ISP_SET_RESIZE));
    ASSERT_EQ(log.size(), 3u);
    ASSERT_EQ(log[0].raw.size(), 22u);
    EXPECT_EQ(std::memcmp(log[0].raw.data(), regs, 22), 0);
    EXPECT_EQ(log[0].detail, "crop_before=[top=8 bottom=488 left=16 right=656] "
                             "crop_after=[top=0 bottom=480 left=0 right=640] scale=640x480");
    EXPECT_EQ(log[1].error, EINVAL);
}

} // namespace
