// The requests only standard V4L2 clients send, answered as the kernel's
// V4L2 core and buffer framework answer them: format negotiation, frame
// intervals, access priority, queue ownership, control events and the
// buffer flags. The ISP's own conventions on the same requests stay as the
// library needs them.
#include <poll.h>
#include <sys/select.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "sim_fixture.h"
#include "video_test_node.h"

namespace {

using zelisp_test::BufferRecord;
using zelisp_test::VideoNode;

class ClientRequestsTest : public zelisp_test::SimTest {};

// What a generic client sends: the current format with its fields kept,
// width, height and pixel format changed.
v4l2_format StandardFormat(const VideoNode &node, uint32_t fourcc, uint32_t width, uint32_t height)
{
    v4l2_format format = node.Format();
    format.fmt.pix_mp.pixelformat = fourcc;
    format.fmt.pix_mp.width = width;
    format.fmt.pix_mp.height = height;
    format.fmt.pix_mp.num_planes = 1;
    return format;
}

uint32_t FourccWord(const v4l2_format &format, int view)
{
    uint16_t words[6];
    std::memcpy(words, format.fmt.pix_mp.plane_fmt[view].reserved, sizeof words);
    return uint32_t(words[0]) | uint32_t(words[1]) << 16;
}

TEST_F(ClientRequestsTest, FormatsAreListedWithTheKernelsNames)
{
    VideoNode node("/dev/video0");
    std::vector<std::string> listed;
    v4l2_fmtdesc desc{};
    desc.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    for (desc.index = 0; node.Request(VIDIOC_ENUM_FMT, &desc) == 0; desc.index = listed.size()) {
        char fourcc[5] = {};
        std::memcpy(fourcc, &desc.pixelformat, 4);
        listed.push_back(std::string(fourcc) + " " + reinterpret_cast<char *>(desc.description));
    }
    EXPECT_EQ(listed, (std::vector<std::string>{"NV12 Y/CbCr 4:2:0", "NV21 Y/CrCb 4:2:0", "YUYV YUYV 4:2:2",
                                                "RGB3 24-bit RGB 8-8-8", "GREY 8-bit Greyscale"}));
    desc.index = 0;
    desc.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    EXPECT_EQ(node.Request(VIDIOC_ENUM_FMT, &desc), EINVAL); // a multi-planar node only
}

TEST_F(ClientRequestsTest, TryFormatAdjustsToWhatTheIspProducesAndChangesNothing)
{
    VideoNode node("/dev/video0");
    v4l2_format format = StandardFormat(node, zsim::kYUYV, 641, 5000);
    ASSERT_EQ(node.Request(VIDIOC_TRY_FMT, &format), 0);
    const v4l2_pix_format_mplane &mp = format.fmt.pix_mp;
    EXPECT_EQ(mp.width, 642u);   // pixel pairs
    EXPECT_EQ(mp.height, 1080u); // the sensor's height
    EXPECT_EQ(mp.pixelformat, zsim::kYUYV);
    EXPECT_EQ(mp.num_planes, 1);
    EXPECT_EQ(mp.field, uint32_t(V4L2_FIELD_NONE));
    EXPECT_EQ(mp.plane_fmt[0].bytesperline, 1284u);
    EXPECT_EQ(mp.plane_fmt[0].sizeimage, 642u * 1080u * 2u);
    // Painted as BT.601 limited-range YUV.
    EXPECT_EQ(mp.colorspace, uint32_t(V4L2_COLORSPACE_SMPTE170M));
    EXPECT_EQ(mp.ycbcr_enc, V4L2_YCBCR_ENC_601);
    EXPECT_EQ(mp.quantization, V4L2_QUANTIZATION_LIM_RANGE);
    EXPECT_EQ(FourccWord(format, 0), 0u); // the views' words are the library's business

    format = StandardFormat(node, zsim::fourcc('M', 'J', 'P', 'G'), 0, 0);
    ASSERT_EQ(node.Request(VIDIOC_TRY_FMT, &format), 0);
    EXPECT_EQ(format.fmt.pix_mp.pixelformat, zsim::kNV12); // view 0's format stands in
    EXPECT_EQ(format.fmt.pix_mp.width, 2u);
    format = StandardFormat(node, zsim::kRGB24, 640, 360);
    ASSERT_EQ(node.Request(VIDIOC_TRY_FMT, &format), 0);
    EXPECT_EQ(format.fmt.pix_mp.quantization, V4L2_QUANTIZATION_FULL_RANGE);

    EXPECT_EQ(zsim::camera_config(0).views[0].fourcc, zsim::kNV12);
    EXPECT_EQ(node.Format().fmt.pix_mp.num_planes, 3);
    auto log = zsim::requests(uint32_t(VIDIOC_TRY_FMT));
    ASSERT_EQ(log.size(), 3u);
    EXPECT_EQ(log[0].detail, "asked width=641 height=5000 fourcc=YUYV -> width=642 height=1080 fourcc=YUYV");
}

TEST_F(ClientRequestsTest, StandardSetFormatSelectsViewZeroAloneWhileTheIspRequestKeepsItsMeaning)
{
    VideoNode node("/dev/video0");
    v4l2_format format = StandardFormat(node, zsim::kGREY, 640, 360);
    ASSERT_EQ(node.Request(VIDIOC_S_FMT, &format), 0);
    EXPECT_EQ(format.fmt.pix_mp.num_planes, 1);
    EXPECT_EQ(format.fmt.pix_mp.plane_fmt[0].sizeimage, 640u * 360u);
    EXPECT_EQ(FourccWord(format, 0), 0u);
    zsim::CameraConfig config = zsim::camera_config(0);
    EXPECT_EQ(config.views[0].fourcc, zsim::kGREY);
    EXPECT_EQ(config.views[0].width, 640u);
    int input = -1;
    ASSERT_EQ(node.Request(VIDIOC_G_INPUT, &input), 0);
    EXPECT_EQ(input, 1);
    // G_FMT still reports every view in its words, as the library reads them.
    v4l2_format current = node.Format();
    EXPECT_EQ(current.fmt.pix_mp.num_planes, 1);
    EXPECT_EQ(FourccWord(current, 0), zsim::kGREY);
    EXPECT_EQ(FourccWord(current, 1), zsim::kNV12);

    // The ISP's form (every other field zero) still names a view, and a
    // view the ISP lacks is still refused.
    auto isp_request = [](uint8_t view) {
        v4l2_format isp{};
        isp.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
        isp.fmt.pix_mp.width = 320;
        isp.fmt.pix_mp.height = 240;
        isp.fmt.pix_mp.pixelformat = zsim::kNV21;
        isp.fmt.pix_mp.num_planes = view;
        return isp;
    };
    v4l2_format isp = isp_request(2);
    ASSERT_EQ(node.Request(VIDIOC_S_FMT, &isp), 0);
    EXPECT_EQ(zsim::camera_config(0).views[2].fourcc, zsim::kNV21);
    isp = isp_request(3);
    EXPECT_EQ(node.Request(VIDIOC_S_FMT, &isp), EINVAL);

    // With buffers allocated the format is fixed, as with any driver on the
    // kernel's buffer framework.
    uint32_t count = 2;
    ASSERT_EQ(node.RequestBuffers(&count), 0);
    format = StandardFormat(node, zsim::kNV12, 320, 240);
    EXPECT_EQ(node.Request(VIDIOC_S_FMT, &format), EBUSY);
    count = 0;
    ASSERT_EQ(node.RequestBuffers(&count), 0);
    EXPECT_EQ(node.Request(VIDIOC_S_FMT, &format), 0);
}

TEST_F(ClientRequestsTest, FrameSizesAndIntervalsDescribeTheSensorAndItsRate)
{
    zsim::CameraConfig config;
    config.sensor_width = 1281;
    config.sensor_height = 720;
    config.views[0] = {zsim::kNV12, 1280, 720};
    config.views[1] = {zsim::kNV12, 640, 360};
    config.views[2] = {zsim::kNV12, 320, 180};
    config.fps = 24;
    zsim::set_camera(1, config);
    VideoNode node("/dev/video13");

    v4l2_frmsizeenum size{};
    size.pixel_format = zsim::kYUYV;
    ASSERT_EQ(node.Request(VIDIOC_ENUM_FRAMESIZES, &size), 0);
    EXPECT_EQ(size.type, uint32_t(V4L2_FRMSIZE_TYPE_STEPWISE));
    EXPECT_EQ(size.stepwise.min_width, 2u);
    EXPECT_EQ(size.stepwise.max_width, 1280u); // pixel pairs within the sensor
    EXPECT_EQ(size.stepwise.max_height, 720u);
    EXPECT_EQ(size.stepwise.step_width, 2u);
    size.index = 1;
    EXPECT_EQ(node.Request(VIDIOC_ENUM_FRAMESIZES, &size), EINVAL);
    size.index = 0;
    size.pixel_format = zsim::fourcc('M', 'J', 'P', 'G');
    EXPECT_EQ(node.Request(VIDIOC_ENUM_FRAMESIZES, &size), EINVAL);

    std::vector<uint32_t> rates;
    v4l2_frmivalenum interval{};
    interval.pixel_format = zsim::kNV12;
    interval.width = 640;
    interval.height = 360;
    for (; node.Request(VIDIOC_ENUM_FRAMEINTERVALS, &interval) == 0; interval.index = rates.size()) {
        EXPECT_EQ(interval.type, uint32_t(V4L2_FRMIVAL_TYPE_DISCRETE));
        EXPECT_EQ(interval.discrete.numerator, 1u);
        rates.push_back(interval.discrete.denominator);
    }
    EXPECT_EQ(rates, (std::vector<uint32_t>{240, 120, 60, 50, 30, 25, 24, 15, 10, 5, 1}));
    interval.index = 0;
    interval.width = 641;
    EXPECT_EQ(node.Request(VIDIOC_ENUM_FRAMEINTERVALS, &interval), EINVAL);
}

TEST_F(ClientRequestsTest, FrameRateIsReadAndSetInWholeFramesPerSecond)
{
    VideoNode node("/dev/video2");
    VideoNode other("/dev/video14"); // the same camera's mode 2 node
    v4l2_streamparm parm{};
    parm.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    ASSERT_EQ(node.Request(VIDIOC_G_PARM, &parm), 0);
    EXPECT_EQ(parm.parm.capture.capability, uint32_t(V4L2_CAP_TIMEPERFRAME));
    EXPECT_EQ(parm.parm.capture.timeperframe.numerator, 1u);
    EXPECT_EQ(parm.parm.capture.timeperframe.denominator, 30u);

    parm.parm.capture.timeperframe = {1001, 60000}; // 59.94 per second
    ASSERT_EQ(node.Request(VIDIOC_S_PARM, &parm), 0);
    EXPECT_EQ(parm.parm.capture.timeperframe.denominator, 60u);
    EXPECT_EQ(zsim::camera_config(2).fps, 60u);
    parm.parm.capture.timeperframe = {1, 1000};
    ASSERT_EQ(other.Request(VIDIOC_S_PARM, &parm), 0);
    EXPECT_EQ(parm.parm.capture.timeperframe.denominator, 240u);
    parm.parm.capture.timeperframe = {0, 0}; // the driver's choice: unchanged
    ASSERT_EQ(node.Request(VIDIOC_S_PARM, &parm), 0);
    EXPECT_EQ(parm.parm.capture.timeperframe.denominator, 240u);

    // The sensor's rate cannot change under a running stream of either node.
    uint32_t count = 2;
    ASSERT_EQ(other.RequestBuffers(&count), 0);
    ASSERT_EQ(other.Stream(VIDIOC_STREAMON), 0);
    parm.parm.capture.timeperframe = {1, 30};
    EXPECT_EQ(node.Request(VIDIOC_S_PARM, &parm), EBUSY);
    parm.type = V4L2_BUF_TYPE_VIDEO_CAPTURE; // what v4l2-ctl sends
    ASSERT_EQ(node.Request(VIDIOC_G_PARM, &parm), 0);
    EXPECT_EQ(parm.parm.capture.timeperframe.denominator, 240u);
    parm.type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
    EXPECT_EQ(node.Request(VIDIOC_G_PARM, &parm), EINVAL);
}

TEST_F(ClientRequestsTest, AHigherPriorityFileKeepsTheOthersFromChangingTheDevice)
{
    VideoNode recorder("/dev/video0");
    VideoNode viewer("/dev/video0");
    uint32_t priority = 0;
    ASSERT_EQ(viewer.Request(VIDIOC_G_PRIORITY, &priority), 0);
    EXPECT_EQ(priority, uint32_t(V4L2_PRIORITY_DEFAULT));
    priority = V4L2_PRIORITY_RECORD;
    ASSERT_EQ(recorder.Request(VIDIOC_S_PRIORITY, &priority), 0);
    ASSERT_EQ(viewer.Request(VIDIOC_G_PRIORITY, &priority), 0);
    EXPECT_EQ(priority, uint32_t(V4L2_PRIORITY_RECORD));

    v4l2_control brightness{V4L2_CID_BRIGHTNESS, 10};
    EXPECT_EQ(viewer.Request(VIDIOC_S_CTRL, &brightness), EBUSY);
    int input = 1;
    EXPECT_EQ(viewer.Request(VIDIOC_S_INPUT, &input), EBUSY);
    uint32_t count = 2;
    EXPECT_EQ(viewer.RequestBuffers(&count), EBUSY);
    priority = V4L2_PRIORITY_RECORD;
    EXPECT_EQ(viewer.Request(VIDIOC_S_PRIORITY, &priority), EBUSY);
    EXPECT_EQ(viewer.Request(VIDIOC_G_CTRL, &brightness), 0); // looking is allowed
    EXPECT_EQ(recorder.Request(VIDIOC_S_CTRL, &brightness), 0);

    priority = V4L2_PRIORITY_UNSET;
    EXPECT_EQ(recorder.Request(VIDIOC_S_PRIORITY, &priority), EINVAL);
    priority = V4L2_PRIORITY_BACKGROUND;
    ASSERT_EQ(recorder.Request(VIDIOC_S_PRIORITY, &priority), 0);
    EXPECT_EQ(viewer.Request(VIDIOC_S_INPUT, &input), 0);
}

TEST_F(ClientRequestsTest, OnlyTheFileThatAllocatedTheBuffersUsesTheQueue)
{
    VideoNode owner("/dev/video12");
    VideoNode other("/dev/video12");
    uint32_t count = 2;
    ASSERT_EQ(owner.RequestBuffers(&count), 0);
    EXPECT_EQ(other.RequestBuffers(&count), EBUSY);
    BufferRecord record(0, 1);
    EXPECT_EQ(other.Request(VIDIOC_QBUF, &record.buf), EBUSY);
    EXPECT_EQ(other.Stream(VIDIOC_STREAMON), EBUSY);
    EXPECT_EQ(other.Request(VIDIOC_QUERYBUF, &record.buf), 0); // any file may look and map

    // A duplicate is the same open file.
    int copy = dup(owner.fd());
    EXPECT_EQ(zelisp_test::Request(copy, VIDIOC_QBUF, &record.buf), 0);
    close(copy);
    count = 0;
    ASSERT_EQ(owner.RequestBuffers(&count), 0);
    count = 2;
    EXPECT_EQ(other.RequestBuffers(&count), 0);
}

TEST_F(ClientRequestsTest, ControlEventsReportChangesToTheOtherSubscribers)
{
    VideoNode watcher("/dev/video3");
    VideoNode setter("/dev/video15"); // the other node of camera 3 shares its controls
    v4l2_event_subscription sub{};
    sub.type = V4L2_EVENT_CTRL;
    sub.id = V4L2_CID_BRIGHTNESS;
    sub.flags = V4L2_EVENT_SUB_FL_SEND_INITIAL;
    ASSERT_EQ(watcher.Request(VIDIOC_SUBSCRIBE_EVENT, &sub), 0);
    sub.flags = 0;
    ASSERT_EQ(setter.Request(VIDIOC_SUBSCRIBE_EVENT, &sub), 0);

    // A waiting event is an exceptional condition, in select and in poll.
    fd_set except;
    FD_ZERO(&except);
    FD_SET(watcher.fd(), &except);
    FD_SET(setter.fd(), &except);
    timeval no_wait = {0, 0};
    ASSERT_EQ(select(std::max(watcher.fd(), setter.fd()) + 1, nullptr, nullptr, &except, &no_wait), 1);
    EXPECT_TRUE(FD_ISSET(watcher.fd(), &except));
    EXPECT_FALSE(FD_ISSET(setter.fd(), &except));
    pollfd waits[2] = {{watcher.fd(), POLLPRI | POLLIN, 0}, {setter.fd(), POLLPRI, 0}};
    ASSERT_EQ(poll(waits, 2, 0), 1);
    EXPECT_EQ(waits[0].revents, POLLPRI); // no frame: not readable
    EXPECT_EQ(waits[1].revents, 0);

    v4l2_event event{};
    ASSERT_EQ(watcher.Request(VIDIOC_DQEVENT, &event), 0);
    EXPECT_EQ(event.type, uint32_t(V4L2_EVENT_CTRL));
    EXPECT_EQ(event.id, uint32_t(V4L2_CID_BRIGHTNESS));
    EXPECT_EQ(event.u.ctrl.changes, uint32_t(V4L2_EVENT_CTRL_CH_VALUE | V4L2_EVENT_CTRL_CH_FLAGS));
    EXPECT_EQ(event.u.ctrl.value, 128);
    EXPECT_EQ(event.u.ctrl.maximum, 255);
    EXPECT_EQ(watcher.Request(VIDIOC_DQEVENT, &event), ENOENT);
    EXPECT_EQ(poll(waits, 1, 0), 0);

    v4l2_control brightness{V4L2_CID_BRIGHTNESS, 200};
    ASSERT_EQ(setter.Request(VIDIOC_S_CTRL, &brightness), 0);
    brightness.value = 201;
    ASSERT_EQ(setter.Request(VIDIOC_S_CTRL, &brightness), 0);
    ASSERT_EQ(setter.Request(VIDIOC_S_CTRL, &brightness), 0); // unchanged: no event
    ASSERT_EQ(watcher.Request(VIDIOC_DQEVENT, &event), 0);    // one event, the latest value
    EXPECT_EQ(event.u.ctrl.value, 201);
    EXPECT_EQ(event.u.ctrl.changes, uint32_t(V4L2_EVENT_CTRL_CH_VALUE));
    EXPECT_EQ(event.pending, 0u);
    EXPECT_EQ(event.sequence, 1u);
    EXPECT_EQ(watcher.Request(VIDIOC_DQEVENT, &event), ENOENT);
    EXPECT_EQ(setter.Request(VIDIOC_DQEVENT, &event), ENOENT); // no feedback unless asked

    sub.type = V4L2_EVENT_ALL;
    ASSERT_EQ(watcher.Request(VIDIOC_UNSUBSCRIBE_EVENT, &sub), 0);
    brightness.value = 5;
    ASSERT_EQ(setter.Request(VIDIOC_S_CTRL, &brightness), 0);
    EXPECT_EQ(watcher.Request(VIDIOC_DQEVENT, &event), ENOENT);
    sub.type = V4L2_EVENT_CTRL;
    sub.id = 0x00980999;
    EXPECT_EQ(watcher.Request(VIDIOC_SUBSCRIBE_EVENT, &sub), EINVAL);
    sub.type = V4L2_EVENT_EOS;
    EXPECT_EQ(watcher.Request(VIDIOC_SUBSCRIBE_EVENT, &sub), EINVAL);
}

TEST_F(ClientRequestsTest, BufferFlagsFollowTheKernelsBufferFramework)
{
    zsim::set_frame_mode(12, zsim::FrameMode::Scripted);
    VideoNode node("/dev/video12");
    uint32_t count = 2;
    ASSERT_EQ(node.RequestBuffers(&count), 0);
    const uint32_t kTimestamp = V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC | V4L2_BUF_FLAG_TSTAMP_SRC_EOF;
    BufferRecord record(0, 1);
    ASSERT_EQ(node.Request(VIDIOC_QUERYBUF, &record.buf), 0);
    EXPECT_EQ(record.buf.flags, kTimestamp);
    ASSERT_EQ(node.Request(VIDIOC_QBUF, &record.buf), 0);
    EXPECT_EQ(record.buf.flags, kTimestamp | V4L2_BUF_FLAG_QUEUED);
    ASSERT_EQ(node.Request(VIDIOC_QUERYBUF, &record.buf), 0);
    EXPECT_EQ(record.buf.flags, kTimestamp | V4L2_BUF_FLAG_QUEUED);
    ASSERT_EQ(node.Stream(VIDIOC_STREAMON), 0);
    zsim::ScriptedFrame frame;
    frame.sequence = 4;
    zsim::push_frame(12, frame);
    ASSERT_EQ(node.Request(VIDIOC_QUERYBUF, &record.buf), 0);
    EXPECT_EQ(record.buf.flags, kTimestamp | V4L2_BUF_FLAG_DONE);
    ASSERT_EQ(node.Request(VIDIOC_DQBUF, &record.buf), 0);
    EXPECT_EQ(record.buf.flags, kTimestamp); // dequeued: neither queued nor done
    EXPECT_EQ(record.buf.sequence, 4u);
    EXPECT_EQ(zsim::requests(uint32_t(VIDIOC_DQBUF)).back().detail, "index=0 sequence=4");
}

} // namespace
