/*
 * fault_sweep_test.cpp - every driver request of every library operation,
 * failed one at a time.
 *
 * For each operation a clean run records, from the simulator's request log,
 * every request the operation sends. The operation is then run again once
 * per recorded request with exactly that occurrence failing (with the errno a
 * real driver answers there), and once per distinct ioctl with every
 * occurrence interrupted (EINTR) three times first. Each run checks the
 * result code and the object's state against the documented failure tables,
 * then closes or destroys everything and checks that no simulated
 * descriptor or mapping is left.
 *
 * munmap is never failed: on a mapping the library made it cannot fail, and
 * nothing could be done about it if it did.
 */
#include <linux/videodev2.h>
#include <sys/mman.h>

#include <cerrno>
#include <cstdio>
#include <functional>
#include <map>
#include <utility>
#include <vector>

#include "driver/isp_requests.h"
#include "reliability.h"
#include "sim_fixture.h"

namespace zelisp_reliability {
namespace {

constexpr int kUnchecked = -100;

// The objects one run works on.
struct Objects {
    unsigned long camera = 0;
    unsigned long group = 0;
    zelvideo::_isp_buf_t frames[2] = {};
    uint32_t count = 0;
    int open_results[2] = {};
    zelvideo::_camera_info_t info[4] = {};
};

// The request that is made to fail in one run.
struct Failure {
    zsim::LogEntry entry;
    int occurrence; // 1-based among entries with the same request and path
    int err;
};

struct Outcome {
    int result;
    int state = kUnchecked; // of the camera, or of the group; kUnchecked: not looked at
};

struct Scenario {
    const char *name;
    std::function<void(Objects &)> prepare;  // unfaulted, from nothing to the starting point
    std::function<int(Objects &)> operate;   // the operation under test
    std::function<int(const Objects &)> state; // the state the tables talk about
    // What the tables say for a failed request (also an EINTR that the
    // library does not retry).
    std::function<Outcome(const Failure &)> expect;
    // Further checks of one faulted run; returns a finding or "".
    std::function<std::string(const Objects &, const Failure &)> verify;
};

bool IsVideoNode(const std::string &path) { return path.rfind("/dev/video", 0) == 0; }

// The library repeats every video-node request interrupted by a signal; of
// the /dev/isp_misc requests only the bus hand-back to the ISP and the
// single-camera internal trigger are repeated.
bool Retried(const Failure &failure, const std::string &scenario)
{
    const zsim::LogEntry &entry = failure.entry;
    if (IsVideoNode(entry.path))
        return true;
    if (entry.request == zelisp::IOC_SET_I2C_CTRL)
        return scenario == "i2c_to_isp";
    if (entry.request == zelisp::IOC_SET_MIPI_TRIGGER_MODE)
        return scenario == "internal_trigger";
    return false;
}

int ErrnoFor(uint32_t request)
{
    switch (request) {
    case zsim::kOpen:
        return EBUSY;
    case zsim::kMmap:
        return ENOMEM;
    case zsim::kClose:
        return EIO;
    case VIDIOC_QBUF:
    case VIDIOC_S_FMT:
    case VIDIOC_S_CTRL:
    case VIDIOC_S_EXT_CTRLS:
    case zelisp::VIDIOC_ISP_SET_RESIZE:
        return EINVAL;
    default:
        return EIO;
    }
}

unsigned long OpenCamera(uint32_t camera, int mode)
{
    unsigned long handle = isp_open_video(camera, mode);
    EXPECT_NE(handle, 0u);
    return handle;
}

void Inited(Objects &run)
{
    run.camera = OpenCamera(0, 1);
    EXPECT_EQ(isp_init_video(run.camera, 7, 3), 0);
}

void Capturing(Objects &run)
{
    Inited(run);
    EXPECT_EQ(isp_start_capture(run.camera), 0);
}

void HoldingFrame(Objects &run)
{
    Capturing(run);
    zsim::push_frame(0, NextFrame(1));
    EXPECT_EQ(isp_get_frame_buf(run.camera, &run.frames[0], 1000), 0);
}

int CameraStateOf(const Objects &run) { return run.camera ? CameraState(run.camera) : kUnchecked; }
int GroupStateOf(const Objects &run) { return run.group ? GroupState(run.group) : kUnchecked; }

// The calls that spend their handle: the object is gone afterwards, so the
// run forgets it and its state is not checked.
int CloseCamera(Objects &run)
{
    const int result = isp_close_video(run.camera);
    run.camera = 0;
    return result;
}
int DestroyGroup(Objects &run)
{
    const int result = isp_destroy_video_group(run.group);
    run.group = 0;
    return result;
}

void GroupOf(Objects &run, int state)
{
    const int members[] = {0, 1};
    EXPECT_EQ(isp_create_video_group(&run.group, 0, "rig", members, 2), 0);
    if (state == zelisp::GROUP_READY)
        return;
    EXPECT_EQ(isp_group_open_video(run.group, 1, run.open_results), 0);
    if (state == zelisp::GROUP_OPENED)
        return;
    EXPECT_EQ(isp_group_init_video(run.group, 7, 3), 0);
    if (state == zelisp::GROUP_INITED)
        return;
    EXPECT_EQ(isp_group_start_captrue(run.group), 0);
}

void GroupHoldingFrames(Objects &run)
{
    GroupOf(run, zelisp::GROUP_CAPTURING);
    zsim::push_frame(0, NextFrame(1));
    zsim::push_frame(1, NextFrame(1));
    EXPECT_EQ(zelvideo::isp_group_get_sync_frame(run.group, run.frames, 2, 1000), 0);
}

// Init: everything before the buffer table fails the call with -11 and
// leaves the camera opened; a failed mapping gives -12; a failed export
// only marks that plane's descriptor -1.
Outcome InitExpect(const Failure &failure)
{
    if (failure.entry.request == zsim::kMmap)
        return {ISP_ERR_MAP, zelisp::VIDEO_OPENED};
    if (failure.entry.request == VIDIOC_EXPBUF)
        return {ISP_OK, zelisp::VIDEO_INITED};
    return {ISP_ERR_REQUEST, zelisp::VIDEO_OPENED};
}

// With views 0..2 enabled, export k (1-based) is buffer (k-1)/3, plane and
// view (k-1)%3; in mode 2 there is one plane, view 0.
std::string ExportMarked(unsigned long camera, const Failure &failure, int planes)
{
    if (failure.entry.request != VIDIOC_EXPBUF)
        return "";
    int buffer = (failure.occurrence - 1) / planes;
    int view = (failure.occurrence - 1) % planes;
    int fd = isp_get_view_buf_fd(camera, uint32_t(buffer), uint32_t(view));
    if (fd != -1)
        return "descriptor of the failed export is " + std::to_string(fd) + ", not -1";
    int other = isp_get_view_buf_fd(camera, uint32_t(buffer == 0 ? 1 : 0), uint32_t(view));
    return other > 0 ? "" : "an export that succeeded has no descriptor";
}

Outcome Always(int result, int state) { return {result, state}; }

std::vector<Scenario> CameraScenarios()
{
    std::vector<Scenario> all;
    all.push_back({"open", [](Objects &) {},
                   [](Objects &run) {
                       run.camera = isp_open_video(0, 1);
                       return run.camera ? 0 : ISP_ERR_OPEN;
                   },
                   CameraStateOf, [](const Failure &) { return Outcome{ISP_ERR_OPEN}; }, nullptr});
    all.push_back({"init", [](Objects &run) { run.camera = OpenCamera(0, 1); },
                   [](Objects &run) { return isp_init_video(run.camera, 7, 3); }, CameraStateOf, InitExpect,
                   [](const Objects &run, const Failure &f) { return ExportMarked(run.camera, f, 3); }});
    all.push_back({"init_mode2", [](Objects &run) { run.camera = OpenCamera(0, 2); },
                   [](Objects &run) { return isp_init_video(run.camera, 7, 3); }, CameraStateOf, InitExpect,
                   [](const Objects &run, const Failure &f) { return ExportMarked(run.camera, f, 1); }});
    all.push_back({"init_with_resize",
                   [](Objects &run) {
                       run.camera = OpenCamera(0, 1);
                       zelvideo::_resize_param_t resize = {{16, 8, 640, 480}, {0, 0, 640, 480}, {0, 0}, 0, 0};
                       Quiet quiet;
                       EXPECT_EQ(isp_resize_resolution(run.camera, &resize), 0);
                   },
                   [](Objects &run) { return isp_init_video(run.camera, 7, 3); }, CameraStateOf, InitExpect,
                   [](const Objects &run, const Failure &f) { return ExportMarked(run.camera, f, 3); }});
    all.push_back({"start", Inited, [](Objects &run) { return isp_start_capture(run.camera); }, CameraStateOf,
                   [](const Failure &) { return Always(ISP_ERR_REQUEST, zelisp::VIDEO_INITED); },
                   nullptr});
    all.push_back({"get_frame",
                   [](Objects &run) {
                       Capturing(run);
                       zsim::push_frame(0, NextFrame(1));
                   },
                   [](Objects &run) { return isp_get_frame_buf(run.camera, &run.frames[0], 1000); }, CameraStateOf,
                   [](const Failure &) { return Always(ISP_ERR_REQUEST, zelisp::VIDEO_CAPTURING); },
                   [](const Objects &run, const Failure &) {
                       // Nothing was taken: the frame history is untouched.
                       return Camera(run.camera).last_sequence == 0 ? "" : "history changed by a failed dequeue";
                   }});
    all.push_back({"put_frame", HoldingFrame, [](Objects &run) { return isp_put_frame_buf(run.camera, &run.frames[0]); },
                   CameraStateOf,
                   [](const Failure &) { return Always(ISP_ERR_REQUEST, zelisp::VIDEO_CAPTURING); },
                   nullptr});
    all.push_back({"put_frame_by_index", HoldingFrame,
                   [](Objects &run) { return isp_put_frame_buf_by_index(run.camera, int32_t(run.frames[0].index)); },
                   CameraStateOf,
                   [](const Failure &) { return Always(ISP_ERR_REQUEST, zelisp::VIDEO_CAPTURING); },
                   nullptr});
    // Decimation 30:10 drops every third sequence number: frame 3 is
    // dequeued and given straight back, frame 4 is returned. The give-back's
    // result is not examined, so only the two dequeues can fail the call.
    all.push_back({"get_expected_frame",
                   [](Objects &run) {
                       Capturing(run);
                       EXPECT_EQ(isp_set_frame_drop_num(run.camera, 30, 10), 0);
                       zsim::push_frame(0, NextFrame(3));
                       zsim::push_frame(0, NextFrame(4));
                   },
                   [](Objects &run) { return isp_get_expected_frame(run.camera, &run.frames[0], 1000); },
                   CameraStateOf,
                   [](const Failure &f) {
                       return f.entry.request == VIDIOC_QBUF ? Always(0, zelisp::VIDEO_CAPTURING)
                                                             : Always(ISP_ERR_REQUEST, zelisp::VIDEO_CAPTURING);
                   },
                   nullptr});
    all.push_back({"stop", Capturing, [](Objects &run) { return isp_stop_capture(run.camera); }, CameraStateOf,
                   [](const Failure &) { return Always(ISP_ERR_REQUEST, zelisp::VIDEO_CAPTURING); },
                   nullptr});
    all.push_back({"get_view_format", Inited,
                   [](Objects &run) {
                       zelvideo::_view_format_t format{};
                       return isp_get_view_format(run.camera, 1, &format);
                   },
                   CameraStateOf,
                   [](const Failure &) { return Always(ISP_ERR_REQUEST, zelisp::VIDEO_INITED); }, nullptr});
    // Close gives back everything even when a close fails, and
    // isp_close_video reports 0 whatever Close returned.
    all.push_back({"close_capturing", HoldingFrame,
                   CloseCamera,
                   CameraStateOf, [](const Failure &) { return Outcome{0}; }, nullptr});
    all.push_back({"close_opened", [](Objects &run) { run.camera = OpenCamera(0, 1); },
                   CloseCamera,
                   CameraStateOf, [](const Failure &) { return Outcome{0}; }, nullptr});
    return all;
}

// One request per control call (two for the denoise pair); any failure is
// -11 and changes nothing of the camera.
std::vector<Scenario> ControlScenarios()
{
    using Call = int (*)(unsigned long);
    static const std::pair<const char *, Call> calls[] = {
        {"set_brightness", [](unsigned long h) { return isp_camera_set_brightness(h, 200); }},
        {"get_brightness", [](unsigned long h) { uint32_t v; return isp_camera_get_brightness(h, &v); }},
        {"set_contrast", [](unsigned long h) { return isp_camera_set_contrast(h, 10); }},
        {"get_contrast", [](unsigned long h) { uint32_t v; return isp_camera_get_contrast(h, &v); }},
        {"set_saturation", [](unsigned long h) { return isp_camera_set_saturation(h, 10); }},
        {"get_saturation", [](unsigned long h) { uint32_t v; return isp_camera_get_saturation(h, &v); }},
        {"set_hue", [](unsigned long h) { return isp_camera_set_hue(h, 10); }},
        {"get_hue", [](unsigned long h) { uint32_t v; return isp_camera_get_hue(h, &v); }},
        {"set_gamma", [](unsigned long h) { return isp_camera_set_gamma(h, 100); }},
        {"get_gamma", [](unsigned long h) { uint32_t v; return isp_camera_get_gamma(h, &v); }},
        {"set_sharpness", [](unsigned long h) { return isp_camera_set_sharpness(h, 5); }},
        {"get_sharpness", [](unsigned long h) { uint32_t v; return isp_camera_get_sharpness(h, &v); }},
        {"set_denoise", [](unsigned long h) { return isp_camera_set_denoise(h, 3, 4); }},
        {"get_denoise", [](unsigned long h) { uint32_t y, uv; return isp_camera_get_denoise(h, &y, &uv); }},
        {"set_awb", [](unsigned long h) { return isp_camera_set_awb(h, 1); }},
        {"get_awb", [](unsigned long h) { uint8_t v; return isp_camera_get_awb(h, &v); }},
        {"set_mwb", [](unsigned long h) { return isp_camera_set_mwb(h, 1, 2, 3); }},
        {"set_aec", [](unsigned long h) { return isp_camera_set_aec(h, 1); }},
        {"get_aec", [](unsigned long h) { uint8_t v; return isp_camera_get_aec(h, &v); }},
        {"set_mec",
         [](unsigned long h) {
             zelvideo::_mec_param_t mec = {{1, 2, 3, 4, 5, 6}};
             return isp_camera_set_mec(h, &mec);
         }},
        {"get_abnormal_info", [](unsigned long h) { uint8_t info[14]; return isp_camera_get_abnormal_info(h, info); }},
    };
    std::vector<Scenario> all;
    for (const auto &call : calls) {
        Call function = call.second;
        all.push_back({call.first, Capturing, [function](Objects &run) { return function(run.camera); }, CameraStateOf,
                       [](const Failure &) { return Always(ISP_ERR_REQUEST, zelisp::VIDEO_CAPTURING); },
                       nullptr});
    }
    return all;
}

// /dev/isp_misc: a node that cannot be opened is -9 everywhere; a refused
// table read is -11; the bus request -9; a refused trigger still 0. Closing
// the node is not checked by any of them.
std::vector<Scenario> PlatformScenarios()
{
    auto misc = [](int open_result, int request_result) {
        return [open_result, request_result](const Failure &f) {
            if (f.entry.request == zsim::kOpen)
                return Outcome{open_result};
            if (f.entry.request == zsim::kClose)
                return Outcome{0};
            return Outcome{request_result};
        };
    };
    auto count_stored = [](const Objects &run, const Failure &f) -> std::string {
        uint32_t expected = (f.entry.request == zsim::kOpen || f.entry.request == zelisp::GET_VAILED_CAMERA_INFO) ? 0 : 4;
        return run.count == expected ? "" : "count " + std::to_string(run.count) + ", expected " +
                                                std::to_string(expected);
    };
    std::vector<Scenario> all;
    all.push_back({"valid_camera_count", [](Objects &run) { run.count = 77; },
                   [](Objects &run) { return isp_get_valid_camera_count(&run.count); }, nullptr,
                   misc(ISP_ERR_OPEN, ISP_ERR_REQUEST), count_stored});
    all.push_back({"valid_camera_info", [](Objects &run) { run.count = 77; },
                   [](Objects &run) { return isp_get_valid_camera_info(run.info, 2, &run.count); }, nullptr,
                   misc(ISP_ERR_OPEN, ISP_ERR_REQUEST),
                   [](const Objects &run, const Failure &f) -> std::string {
                       bool stored = f.entry.request != zsim::kOpen && f.entry.request != zelisp::GET_VAILED_CAMERA_INFO;
                       return (run.count == 4) == stored ? "" : "count stored wrongly";
                   }});
    all.push_back({"i2c_to_isp", [](Objects &) {}, [](Objects &) { return isp_set_i2c_ctrl(3, 0); }, nullptr,
                   misc(ISP_ERR_OPEN, ISP_ERR_OPEN), nullptr});
    all.push_back({"i2c_to_arm", [](Objects &) {}, [](Objects &) { return isp_set_i2c_ctrl(3, 1); }, nullptr,
                   misc(ISP_ERR_OPEN, ISP_ERR_OPEN), nullptr});
    all.push_back({"internal_trigger", [](Objects &run) { run.camera = OpenCamera(0, 1); },
                   [](Objects &run) { return isp_set_internal_trigger(run.camera, 1, 2, 3); }, CameraStateOf,
                   misc(ISP_ERR_OPEN, 0), nullptr});
    all.push_back({"external_trigger", [](Objects &run) { run.camera = OpenCamera(0, 1); },
                   [](Objects &run) { return isp_set_external_trigger(run.camera, 1, 2, 2); }, CameraStateOf,
                   misc(ISP_ERR_OPEN, 0), nullptr});
    return all;
}

std::string MemberStates(const Objects &run, int first, int second)
{
    if (!run.group || Group(run.group).camera_count != 2)
        return "";
    int a = MemberState(run.group, 0), b = MemberState(run.group, 1);
    if (a == first && b == second)
        return "";
    return "member states " + std::to_string(a) + "," + std::to_string(b) + ", expected " +
           std::to_string(first) + "," + std::to_string(second);
}

// The member whose node a failed request went to: 0 or 1.
int MemberOf(const Failure &f) { return f.entry.path == "/dev/video1" ? 1 : 0; }

std::vector<Scenario> GroupScenarios()
{
    std::vector<Scenario> all;
    // Creation keeps one /dev/isp_misc descriptor and reads the table
    // through a second one; a failed creation hands out nothing and leaves
    // nothing open.
    all.push_back({"group_create", [](Objects &) {},
                   [](Objects &run) {
                       const int members[] = {0, 1};
                       return isp_create_video_group(&run.group, 0, "rig", members, 2);
                   },
                   GroupStateOf,
                   [](const Failure &f) {
                       if (f.entry.request == zsim::kOpen)
                           return Outcome{f.occurrence == 1 ? ISP_ERR_OPEN : ISP_ERR_NO_NODE};
                       if (f.entry.request == zsim::kClose)
                           return Outcome{0, zelisp::GROUP_READY};
                       return Outcome{ISP_ERR_NO_NODE};
                   },
                   [](const Objects &run, const Failure &f) -> std::string {
                       bool handed_out = run.group != 0;
                       return handed_out == (f.entry.request == zsim::kClose) ? "" : "group handed out wrongly";
                   }});
    all.push_back({"group_open", [](Objects &run) { GroupOf(run, zelisp::GROUP_READY); },
                   [](Objects &run) { return isp_group_open_video(run.group, 1, run.open_results); }, GroupStateOf,
                   [](const Failure &) { return Outcome{ISP_ERR_OPEN, zelisp::GROUP_READY}; },
                   [](const Objects &run, const Failure &f) -> std::string {
                       int failed = MemberOf(f);
                       if (run.open_results[failed] != ISP_ERR_OPEN || run.open_results[1 - failed] != 0)
                           return "open results wrong";
                       return "";
                   }});
    all.push_back({"group_init", [](Objects &run) { GroupOf(run, zelisp::GROUP_OPENED); },
                   [](Objects &run) { return isp_group_init_video(run.group, 7, 3); }, GroupStateOf,
                   [](const Failure &f) {
                       Outcome camera = InitExpect(f);
                       return Outcome{camera.result,
                                      camera.result == 0 ? int(zelisp::GROUP_INITED) : int(zelisp::GROUP_OPENED)};
                   },
                   [](const Objects &run, const Failure &f) {
                       if (InitExpect(f).result == 0)
                           return MemberStates(run, zelisp::VIDEO_INITED, zelisp::VIDEO_INITED);
                       return MemberOf(f) == 0 ? MemberStates(run, zelisp::VIDEO_OPENED, zelisp::VIDEO_OPENED)
                                               : MemberStates(run, zelisp::VIDEO_INITED, zelisp::VIDEO_OPENED);
                   }});
    all.push_back({"group_start", [](Objects &run) { GroupOf(run, zelisp::GROUP_INITED); },
                   [](Objects &run) { return isp_group_start_captrue(run.group); }, GroupStateOf,
                   [](const Failure &) { return Outcome{ISP_ERR_REQUEST, zelisp::GROUP_INITED}; },
                   [](const Objects &run, const Failure &f) {
                       return MemberOf(f) == 0 ? MemberStates(run, zelisp::VIDEO_INITED, zelisp::VIDEO_INITED)
                                               : MemberStates(run, zelisp::VIDEO_CAPTURING, zelisp::VIDEO_INITED);
                   }});
    all.push_back({"group_sync_frame",
                   [](Objects &run) {
                       GroupOf(run, zelisp::GROUP_CAPTURING);
                       zsim::push_frame(0, NextFrame(1));
                       zsim::push_frame(1, NextFrame(1));
                   },
                   [](Objects &run) { return zelvideo::isp_group_get_sync_frame(run.group, run.frames, 2, 1000); },
                   GroupStateOf,
                   [](const Failure &) { return Outcome{ISP_ERR_REQUEST, zelisp::GROUP_CAPTURING}; },
                   nullptr});
    all.push_back({"group_put_frame", GroupHoldingFrames,
                   [](Objects &run) { return zelvideo::isp_group_put_frame(run.group, run.frames, 2); }, GroupStateOf,
                   [](const Failure &) { return Outcome{ISP_ERR_REQUEST, zelisp::GROUP_CAPTURING}; },
                   nullptr});
    all.push_back({"group_stop", [](Objects &run) { GroupOf(run, zelisp::GROUP_CAPTURING); },
                   [](Objects &run) { return isp_group_stop_captrue(run.group); }, GroupStateOf,
                   [](const Failure &) { return Outcome{ISP_ERR_REQUEST, zelisp::GROUP_CAPTURING}; },
                   nullptr});
    // View formats: a member's refusal is printed and the walk goes on.
    all.push_back({"group_set_view_format", [](Objects &run) { GroupOf(run, zelisp::GROUP_INITED); },
                   [](Objects &run) {
                       zelvideo::_view_format_t format = {zsim::kNV12, 640, 360};
                       return zelvideo::isp_group_set_view_format(run.group, 2, format);
                   },
                   GroupStateOf, [](const Failure &) { return Outcome{0, zelisp::GROUP_INITED}; }, nullptr});
    all.push_back({"group_get_view_format", [](Objects &run) { GroupOf(run, zelisp::GROUP_CAPTURING); },
                   [](Objects &run) {
                       zelvideo::_view_format_t formats[2] = {};
                       return zelvideo::isp_group_get_view_format(run.group, 1, formats);
                   },
                   GroupStateOf, [](const Failure &) { return Outcome{0, zelisp::GROUP_CAPTURING}; }, nullptr});
    all.push_back({"group_trigger_internal", [](Objects &run) { GroupOf(run, zelisp::GROUP_READY); },
                   [](Objects &run) { return isp_group_set_internal_trigger(run.group, 1, 2, 3); }, GroupStateOf,
                   [](const Failure &) { return Outcome{0, zelisp::GROUP_READY}; }, nullptr});
    all.push_back({"group_trigger_external", [](Objects &run) { GroupOf(run, zelisp::GROUP_READY); },
                   [](Objects &run) { return isp_group_set_external_trigger(run.group, 1, 2, 2); }, GroupStateOf,
                   [](const Failure &) { return Outcome{0, zelisp::GROUP_READY}; }, nullptr});
    // Close completes whatever a member's close says; destroy afterwards
    // (in the teardown) must not release anything a second time.
    all.push_back({"group_close", GroupHoldingFrames, [](Objects &run) { return isp_group_close_video(run.group); },
                   GroupStateOf, [](const Failure &) { return Outcome{0, zelisp::GROUP_NONE}; }, nullptr});
    all.push_back({"group_destroy_capturing", GroupHoldingFrames,
                   DestroyGroup,
                   GroupStateOf, [](const Failure &) { return Outcome{0}; }, nullptr});
    all.push_back({"group_destroy_after_failed_open",
                   [](Objects &run) {
                       GroupOf(run, zelisp::GROUP_READY);
                       zsim::set_open_errno("/dev/video1", ENODEV);
                       Quiet quiet;
                       EXPECT_EQ(isp_group_open_video(run.group, 1, run.open_results), ISP_ERR_OPEN);
                       zsim::set_open_errno("/dev/video1", 0);
                   },
                   DestroyGroup,
                   GroupStateOf, [](const Failure &) { return Outcome{0}; }, nullptr});
    return all;
}

class FaultSweep : public zelisp_test::SimTest {
protected:
    struct Tally {
        int failed_requests = 0;
        int interrupted_requests = 0;
        int survived = 0;
    };

    // Runs prepare and operate once; a fault, if any, is armed between them.
    // Returns the findings of the run, "" when it matched.
    std::string RunOnce(const Scenario &scenario, const Failure *failure, bool interrupt, Outcome expected,
                        std::vector<zsim::LogEntry> *log)
    {
        std::string findings;
        Objects run;
        {
            Quiet quiet;
            ResetScripted();
            scenario.prepare(run);
            zsim::clear_log();
            if (failure && interrupt)
                zsim::interrupt_request(failure->entry.request, 3, failure->entry.path, true);
            else if (failure)
                zsim::fail_request(failure->entry.request, failure->occurrence, failure->err, failure->entry.path);
            int result = scenario.operate(run);
            zsim::clear_faults();
            if (log)
                *log = zsim::request_log();
            if (result != expected.result)
                findings += " result " + std::to_string(result) + ", expected " + std::to_string(expected.result) + ";";
            if (expected.state != kUnchecked && scenario.state) {
                int state = scenario.state(run);
                if (state != expected.state)
                    findings += " state " + std::to_string(state) + ", expected " + std::to_string(expected.state) + ";";
            }
            if (failure && !interrupt && scenario.verify) {
                std::string more = scenario.verify(run, *failure);
                if (!more.empty())
                    findings += " " + more + ";";
            }
            if (run.camera)
                isp_close_video(run.camera);
            if (run.group)
                isp_destroy_video_group(run.group);
            for (const zsim::LogEntry &entry : zsim::request_log()) {
                if (entry.error == EBADF)
                    findings += " " + entry.name + " of a descriptor no longer open (released twice);";
            }
            if (zsim::live_descriptors() != 0 || zsim::live_mappings() != 0)
                findings += " left " + std::to_string(zsim::live_descriptors()) + " descriptors and " +
                            std::to_string(zsim::live_mappings()) + " mappings;";
        }
        return findings;
    }

    void Sweep(const std::vector<Scenario> &scenarios)
    {
        Tally tally;
        for (const Scenario &scenario : scenarios) {
            std::vector<zsim::LogEntry> clean;
            Outcome clean_outcome{0, kUnchecked};
            std::string findings = RunOnce(scenario, nullptr, false, clean_outcome, &clean);
            ASSERT_EQ(findings, "") << scenario.name << ": clean run";
            ASSERT_FALSE(clean.empty()) << scenario.name << ": the clean run sent no request";
            std::map<std::pair<uint32_t, std::string>, int> seen;
            std::map<std::pair<uint32_t, std::string>, bool> interrupted;
            for (const zsim::LogEntry &entry : clean) {
                if (entry.request == zsim::kMunmap)
                    continue;
                auto key = std::make_pair(entry.request, entry.path);
                Failure failure{entry, ++seen[key], ErrnoFor(entry.request)};
                Outcome expected = scenario.expect(failure);
                findings = RunOnce(scenario, &failure, false, expected, nullptr);
                ++tally.failed_requests;
                if (findings.empty())
                    ++tally.survived;
                else
                    ADD_FAILURE() << scenario.name << ", " << Describe(entry, failure.occurrence)
                                  << " failing:" << findings;

                bool is_ioctl = (entry.request & 0xF0000000u) != 0xF0000000u;
                if (!is_ioctl || interrupted[key])
                    continue;
                interrupted[key] = true;
                Failure storm{entry, 0, EINTR};
                Outcome storm_expected =
                    Retried(storm, scenario.name) ? clean_outcome : scenario.expect(storm);
                findings = RunOnce(scenario, &storm, true, storm_expected, nullptr);
                ++tally.interrupted_requests;
                if (findings.empty())
                    ++tally.survived;
                else
                    ADD_FAILURE() << scenario.name << ", " << entry.name << " on " << entry.path
                                  << " interrupted:" << findings;
            }
        }
        int injected = tally.failed_requests + tally.interrupted_requests;
        printf("fault sweep: %zu operations, %d faults injected (%d failed requests, %d EINTR storms), %d survived\n",
               scenarios.size(), injected, tally.failed_requests, tally.interrupted_requests, tally.survived);
        RecordProperty("faults_injected", injected);
        RecordProperty("faults_survived", tally.survived);
    }
};

// The clean outcome of each scenario is its own: result 0 and the state the
// operation reaches. Interrupted requests that are repeated must end there.
TEST_F(FaultSweep, CameraLifecycleAndFramesUnderEveryFault) { Sweep(CameraScenarios()); }

TEST_F(FaultSweep, TuningControlsUnderEveryFault) { Sweep(ControlScenarios()); }

TEST_F(FaultSweep, PlatformNodeUnderEveryFault) { Sweep(PlatformScenarios()); }

TEST_F(FaultSweep, GroupsUnderEveryFault) { Sweep(GroupScenarios()); }

} // namespace
} // namespace zelisp_reliability
