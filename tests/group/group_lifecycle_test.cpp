// The group lifecycle: every step fanned out to the members in member order,
// the group state kept in step, and what each step does when a member fails.
#include <gmock/gmock.h>
#include <linux/videodev2.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <functional>

#include "group_fixture.h"

namespace zelisp_test {
namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::IsEmpty;

using GroupLifecycle = GroupTest;

// The format records sent with VIDIOC_S_FMT, in order.
std::vector<v4l2_format> SentFormats()
{
    std::vector<v4l2_format> formats;
    for (const zsim::LogEntry &entry : zsim::requests(VIDIOC_S_FMT)) {
        v4l2_format sent{};
        EXPECT_EQ(entry.raw.size(), sizeof sent);
        memcpy(&sent, entry.raw.data(), std::min(entry.raw.size(), sizeof sent));
        formats.push_back(sent);
    }
    return formats;
}

void ExpectRefused(const Call &call, const std::string &line)
{
    EXPECT_EQ(call.result, ISP_ERR_STATE);
    EXPECT_EQ(call.out, line);
}

TEST_F(GroupLifecycle, GroupWithoutMembersGoesThroughEveryStepWithoutACamera)
{
    const unsigned long group = MakeGroup({});
    zsim::clear_log();
    int results[1] = {7};
    EXPECT_EQ(isp_group_open_video(group, 1, results), 0);
    EXPECT_EQ(GroupState(group), kOpened);
    EXPECT_EQ(isp_group_init_video(group, kViewZero, kBuffers), 0);
    EXPECT_EQ(GroupState(group), kInited);
    EXPECT_EQ(isp_group_start_captrue(group), 0);
    EXPECT_EQ(GroupState(group), kCapturing);
    zelvideo::_isp_buf_t frame;
    EXPECT_EQ(zelvideo::isp_group_get_sync_frame(group, &frame, 0, 10), 0);
    EXPECT_EQ(zelvideo::isp_group_put_frame(group, &frame, 0), 0);
    EXPECT_EQ(isp_group_stop_captrue(group), 0);
    EXPECT_EQ(GroupState(group), kInited);
    EXPECT_EQ(isp_group_close_video(group), 0);
    EXPECT_EQ(GroupState(group), kNone);
    EXPECT_EQ(results[0], 7);
    EXPECT_THAT(zsim::request_log(), IsEmpty());
}

TEST_F(GroupLifecycle, OpenTriesEveryMemberAndStaysReadyWhenOneFails)
{
    const unsigned long group = MakeGroup({0, 1, 2});
    zsim::set_open_errno("/dev/video1", EBUSY);
    int results[3] = {1, 1, 1};
    Call open = Captured([&] { return isp_group_open_video(group, 1, results); });
    EXPECT_EQ(open.result, ISP_ERR_OPEN);
    EXPECT_EQ(open.out, "video device /dev/video1 open failed\nOpenVideo : open 1 failed\n");
    EXPECT_THAT(results, ElementsAre(0, ISP_ERR_OPEN, 0));
    EXPECT_EQ(GroupState(group), kReady);

    // The members that opened refuse a second open, so they fail too.
    zsim::set_open_errno("/dev/video1", 0);
    open = Captured([&] { return isp_group_open_video(group, 1, results); });
    EXPECT_EQ(open.result, ISP_ERR_OPEN);
    EXPECT_EQ(open.out, "Open: bad state 1\nOpenVideo : open 0 failed\n"
                        "Open: bad state 1\nOpenVideo : open 2 failed\n");
    EXPECT_THAT(results, ElementsAre(ISP_ERR_OPEN, 0, ISP_ERR_OPEN));
    EXPECT_EQ(GroupState(group), kReady);

    const Call close = Captured([&] { return isp_group_close_video(group); });
    EXPECT_EQ(close.result, ISP_ERR_STATE);
    EXPECT_EQ(close.out, "CloseVideo: bad state 6\n");
}

TEST_F(GroupLifecycle, OpenPassesItsModeToEveryMemberUnchecked)
{
    int results[2];
    const unsigned long second_range = MakeGroup({0, 3});
    EXPECT_EQ(isp_group_open_video(second_range, 2, results), 0);
    const unsigned long other_mode = MakeGroup({1});
    EXPECT_EQ(isp_group_open_video(other_mode, 5, results), 0);
    EXPECT_THAT(PathsOf(zsim::kOpen), ElementsAre("/dev/isp_misc", "/dev/isp_misc", "/dev/video12", "/dev/video15",
                                                  "/dev/isp_misc", "/dev/isp_misc", "/dev/video1"));
}

TEST_F(GroupLifecycle, BadStateLinesNameTheGroupOperationAndItsState)
{
    const unsigned long group = MakeGroup({0});
    const zelvideo::_view_format_t format = {zsim::kNV12, 640, 360};
    zelvideo::_view_format_t formats[1];
    zelvideo::_isp_buf_t frames[1];
    int results[1];
    const std::pair<std::function<int()>, std::string> refused_when_ready[] = {
        {[&] { return isp_group_init_video(group, kViewZero, kBuffers); }, "InitVideo: bad state 6\n"},
        {[&] { return isp_group_start_captrue(group); }, "StartCaptrue: bad state 6\n"},
        {[&] { return isp_group_stop_captrue(group); }, "StopCapture: bad state 6\n"},
        {[&] { return zelvideo::isp_group_set_view_format(group, 0, format); }, "SetViewFormat: bad state 6\n"},
        {[&] { return zelvideo::isp_group_get_view_format(group, 0, formats); },
         "GetViewFormat \nGetViewFormat: bad state 6\n"},
        {[&] { return zelvideo::isp_group_get_sync_frame(group, frames, 1, 10); }, ""},
        {[&] { return zelvideo::isp_group_put_frame(group, frames, 1); }, ""},
    };
    for (const auto &[call, line] : refused_when_ready)
        ExpectRefused(Captured(call), line);

    BringUp(group, kCapturing);
    ExpectRefused(Captured([&] { return isp_group_start_captrue(group); }), "StartCaptrue: bad state 4\n");
    ExpectRefused(Captured([&] { return isp_group_open_video(group, 1, results); }), "OpenVideo: bad state 4\n");
    ExpectRefused(Captured([&] { return zelvideo::isp_group_set_view_format(group, 0, format); }),
                  "SetViewFormat: bad state 4\n");
    EXPECT_EQ(isp_group_stop_captrue(group), 0);
    ExpectRefused(Captured([&] { return isp_group_stop_captrue(group); }), "StopCapture: bad state 2\n");
    EXPECT_EQ(isp_group_start_captrue(group), 0);

    EXPECT_EQ(isp_group_close_video(group), 0);
    ExpectRefused(Captured([&] { return isp_group_close_video(group); }), "CloseVideo: bad state 0\n");
    ExpectRefused(Captured([&] { return isp_group_open_video(group, 1, results); }), "OpenVideo: bad state 0\n");
    ExpectRefused(Captured([&] { return isp_group_open_video(MakeEmptyGroup(1), 1, results); }),
                  "OpenVideo: bad state 5\n");
}

TEST_F(GroupLifecycle, RepeatedIndexIsOneCameraVisitedOncePerOccurrence)
{
    const unsigned long group = MakeGroup({1, 2, 1});
    int results[3];
    const Call open = Captured([&] { return isp_group_open_video(group, 1, results); });
    EXPECT_EQ(open.result, ISP_ERR_OPEN);
    EXPECT_EQ(open.out, "Open: bad state 1\nOpenVideo : open 1 failed\n");
    EXPECT_THAT(results, ElementsAre(0, 0, ISP_ERR_OPEN));
    EXPECT_THAT(PathsOf(zsim::kOpen), ElementsAre("/dev/isp_misc", "/dev/isp_misc", "/dev/video1", "/dev/video2"));
}

TEST_F(GroupLifecycle, LaterMemberFailingInitStopsTheWalkAndTheRepeatFailsAtMemberZero)
{
    const unsigned long group = MakeGroup({0, 1, 2});
    BringUp(group, kOpened);
    zsim::fail_request(VIDIOC_S_INPUT, 1, EINVAL, "/dev/video1");
    Call init = Captured([&] { return isp_group_init_video(group, kViewZero, kBuffers); });
    EXPECT_EQ(init.result, ISP_ERR_REQUEST);
    EXPECT_THAT(init.out, EndsWith("/dev/video1 set view input combination 1 failed\ncamera 1 init failed\n"));
    EXPECT_THAT(PathsOf(VIDIOC_S_INPUT), ElementsAre("/dev/video0", "/dev/video1")); // member 2 untouched
    EXPECT_EQ(GroupState(group), kOpened);

    init = Captured([&] { return isp_group_init_video(group, kViewZero, kBuffers); });
    EXPECT_EQ(init.result, ISP_ERR_STATE);
    EXPECT_EQ(init.out, "Init: bad state 2\ncamera 0 init failed\n");

    EXPECT_EQ(isp_group_close_video(group), 0);
    EXPECT_EQ(zsim::live_mappings(), 0u);
    EXPECT_EQ(zsim::live_descriptors(), 1u); // only the group's /dev/isp_misc
}

TEST_F(GroupLifecycle, LaterMemberFailingStartOrStopStopsTheWalkAndTheRepeatFailsAtMemberZero)
{
    const unsigned long group = MakeGroup({0, 1, 2});
    BringUp(group, kInited);
    zsim::fail_request(VIDIOC_STREAMON, 1, EIO, "/dev/video1");
    Call start = Captured([&] { return isp_group_start_captrue(group); });
    EXPECT_EQ(start.result, ISP_ERR_REQUEST);
    EXPECT_EQ(start.out, "/dev/video1 stream on failed\ncamera 1 StartCapture failed\n");
    EXPECT_EQ(GroupState(group), kInited);
    start = Captured([&] { return isp_group_start_captrue(group); });
    EXPECT_EQ(start.result, ISP_ERR_STATE);
    EXPECT_EQ(start.out, "StartCapture: bad state 4\ncamera 0 StartCapture failed\n");
    EXPECT_EQ(isp_group_close_video(group), 0);

    const unsigned long other = MakeGroup({3, 1, 2});
    BringUp(other, kCapturing);
    zsim::fail_request(VIDIOC_STREAMOFF, 1, EIO, "/dev/video1");
    Call stop = Captured([&] { return isp_group_stop_captrue(other); });
    EXPECT_EQ(stop.result, ISP_ERR_REQUEST);
    EXPECT_EQ(stop.out, "/dev/video1stream off failed\ncamera 1 StopCaptrue failed\n");
    EXPECT_EQ(GroupState(other), kCapturing);
    stop = Captured([&] { return isp_group_stop_captrue(other); });
    EXPECT_EQ(stop.result, ISP_ERR_STATE);
    EXPECT_EQ(stop.out, "StopCapture: bad state 2\ncamera 3 StopCaptrue failed\n");
    EXPECT_EQ(isp_group_close_video(other), 0);
    EXPECT_EQ(zsim::live_mappings(), 0u);
}

TEST_F(GroupLifecycle, CloseGoesOnPastAFailingMemberAndReturnsZero)
{
    const unsigned long group = MakeGroup({0, 1, 2});
    BringUp(group, kCapturing);
    zsim::set_close_errno("/dev/video1", EIO);
    zsim::clear_log();
    const Call close = Captured([&] { return isp_group_close_video(group); });
    EXPECT_EQ(close.result, 0);
    EXPECT_EQ(close.out, "video device /dev/video1 close failed\ncamera 1 close failed\n");
    EXPECT_EQ(GroupState(group), kNone);
    EXPECT_THAT(PathsOf(VIDIOC_STREAMOFF), IsEmpty()); // closed while streaming, as Close does
    EXPECT_EQ(zsim::live_mappings(), 0u);
}

// A member closed by the group keeps its object, but its descriptor number
// is spent (the next open anywhere may get it): the native-descriptor query
// and the multi-camera wait must refuse it, not hand it on.
TEST_F(GroupLifecycle, ClosedMemberOffersNoDescriptor)
{
    const unsigned long group = MakeGroup({0, 1});
    BringUp(group, kCapturing);
    unsigned long member = 0;
    ASSERT_EQ(isp_group_get_camera_handle(group, 1, &member), 0);
    ASSERT_EQ(Captured([&] { return isp_group_close_video(group); }).result, 0);
    const int reused = open("/dev/null", O_RDONLY); // takes the lowest free number, as a daemon's next file would
    int64_t fd = 77;
    const Call query = Captured([&] { return isp_camera_get_native_fd(member, &fd); });
    EXPECT_EQ(query.result, ISP_ERR_STATE);
    EXPECT_EQ(query.out, "GetVideoFd: bad state, video not opened\n");
    EXPECT_EQ(fd, 77);
    int ready = 7;
    timeval limit = {0, 0};
    const Call wait = Captured([&] { return isp_camera_wait_for_data(&member, &ready, 1, &limit); });
    EXPECT_EQ(wait.result, ISP_ERR_INVALID);
    EXPECT_EQ(wait.out, "camera 0not opened\n");
    close(reused);
}

// The driver names the view in one byte of the format record: a view that
// does not fit would alias view 0 (256, INT_MIN) on every member.
TEST_F(GroupLifecycle, ViewPastOneByteIsRefusedBeforeAnyMember)
{
    const zelvideo::_view_format_t format = {zsim::kNV12, 640, 360};
    const unsigned long group = MakeGroup({0, 1});
    BringUp(group, kOpened);
    zsim::clear_log();
    for (int view : {256, INT_MIN, -1, INT_MAX}) {
        const Call refused = Captured([&] { return zelvideo::isp_group_set_view_format(group, view, format); });
        EXPECT_EQ(refused.result, ISP_ERR_INVALID) << view;
        EXPECT_EQ(refused.out, "") << view;
    }
    EXPECT_THAT(zsim::request_log(), IsEmpty());
    // Views up to 255 still reach the driver, which refuses what it lacks.
    const Call passed = Captured([&] { return zelvideo::isp_group_set_view_format(group, 255, format); });
    EXPECT_EQ(passed.result, 0);
    EXPECT_THAT(PathsOf(VIDIOC_S_FMT), ElementsAre("/dev/video0", "/dev/video1"));
    for (const v4l2_format &sent : SentFormats())
        EXPECT_EQ(sent.fmt.pix_mp.num_planes, 255);
}

TEST_F(GroupLifecycle, ViewFormatIsRefusedForMixedGroupsAndAMemberRefusalOnlyPrints)
{
    const zelvideo::_view_format_t format = {zsim::kNV12, 640, 360};
    const unsigned long mixed = MakeGroup({0}, 1);
    BringUp(mixed, kOpened);
    zsim::clear_log();
    const Call refused = Captured([&] { return zelvideo::isp_group_set_view_format(mixed, 2, format); });
    EXPECT_EQ(refused.result, ISP_ERR_STATE);
    EXPECT_EQ(refused.out, "Only the same camera is supported");
    EXPECT_THAT(zsim::request_log(), IsEmpty());

    const unsigned long group = MakeGroup({2, 1, 3});
    BringUp(group, kInited);
    zsim::fail_request(VIDIOC_S_FMT, 1, EINVAL, "/dev/video1");
    zsim::clear_log();
    const Call set = Captured([&] { return zelvideo::isp_group_set_view_format(group, 2, format); });
    EXPECT_EQ(set.result, 0);
    EXPECT_EQ(set.out, "/dev/video1 set view format failed\ncamera 1 SetViewFormat failed error code: -11\n");
    EXPECT_THAT(PathsOf(VIDIOC_S_FMT), ElementsAre("/dev/video2", "/dev/video1", "/dev/video3"));
    for (const v4l2_format &sent : SentFormats()) {
        EXPECT_EQ(sent.fmt.pix_mp.num_planes, 2); // the driver reads the view here
        EXPECT_EQ(sent.fmt.pix_mp.width, 640u);
        EXPECT_EQ(sent.fmt.pix_mp.height, 360u);
        EXPECT_EQ(sent.fmt.pix_mp.pixelformat, zsim::kNV12);
    }
}

TEST_F(GroupLifecycle, ViewFormatsAreReadPerMemberAndAFailureOnlyPrints)
{
    zsim::CameraConfig small;
    small.views[1] = {zsim::kYUYV, 320, 240};
    zsim::set_camera(3, small);
    const unsigned long group = MakeGroup({0, 3, 1});
    BringUp(group, kCapturing);
    zsim::fail_request(VIDIOC_G_FMT, 1, EIO, "/dev/video1");
    zelvideo::_view_format_t formats[3];
    memset(formats, 0xee, sizeof formats);
    const Call get = Captured([&] { return zelvideo::isp_group_get_view_format(group, 1, formats); });
    EXPECT_EQ(get.result, 0);
    EXPECT_EQ(get.out, "GetViewFormat \nvideo 0 \nvideo 3 \nvideo 1 \n"
                       "/dev/video1 get view format failed\ncamera 1 GetViewFormat failed\n");
    EXPECT_EQ(formats[0].format, zsim::kNV12);
    EXPECT_EQ(formats[0].width, 1280u);
    EXPECT_EQ(formats[0].height, 720u);
    EXPECT_EQ(formats[1].format, zsim::kYUYV);
    EXPECT_EQ(formats[1].width, 320u);
    EXPECT_EQ(formats[1].height, 240u);
    EXPECT_EQ(formats[2].width, 0xeeeeeeeeu); // left as the failed member left it
}

} // namespace
} // namespace zelisp_test
