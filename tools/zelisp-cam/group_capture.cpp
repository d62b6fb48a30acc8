// group_capture.cpp - capturing from the cameras as one group: opened, set
// up and started together, then read one frame set at a time (one frame per
// member, in member order) and given back a set at a time.
#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "camera_handle.h"
#include "camera_table.h"
#include "capture_loops.h"
#include "tool_errors.h"
#include "view_formats.h"

namespace zcam {
namespace {

// The group object lives until it is destroyed; destroying it also closes
// members that are still open, so every way out of the capture ends here.
class Group {
public:
    Group() = default;
    Group(const Group &) = delete;
    Group &operator=(const Group &) = delete;
    ~Group()
    {
        if (handle_ != 0)
            isp_destroy_video_group(handle_);
    }
    int create(const std::vector<int> &cameras)
    {
        return isp_create_video_group(&handle_, 0, "zelisp-cam", cameras.data(), int(cameras.size()));
    }
    unsigned long get() const { return handle_; }

private:
    unsigned long handle_ = 0;
};

// GetFrame writes a member's record only when it hands a frame over; an
// index no buffer has marks the members a failed set read did not reach.
constexpr uint32_t kNoFrame = 0xffffffffu;

struct GroupCapture {
    CaptureRun &run;
    Group group;
    std::vector<unsigned long> members; // per member position, for the per-camera calls
    std::vector<zelvideo::_isp_buf_t> frames;
    std::vector<zelvideo::_isp_buf_t> held; // the newest complete set, kept until the next one
    bool holding = false;
    int refusals_in_a_row = 0;
};

std::string member_context(const GroupCapture &capture, size_t position)
{
    return camera_context(capture.run.options.cameras[position]);
}

// The camera a group could not be made with: the creator answers with one
// code for the whole group, so each camera is looked up in the platform's
// table and at its node to name the one that is missing.
void report_missing_members(const CaptureOptions &options)
{
    const CameraTable table = read_camera_table();
    if (!table.was_read())
        return;
    for (int camera : options.cameras) {
        if (!table.lists(camera)) {
            fprintf(stderr, "zelisp-cam: camera %d is not in the platform's valid-camera table\n", camera);
            continue;
        }
        OpenFailure failure = judge_open_failure(camera, options.mode);
        if (failure.result == ISP_ERR_NO_NODE || failure.result == ISP_ERR_INVALID)
            fprintf(stderr, "zelisp-cam: camera %d: %s\n", camera, failure.reason.c_str());
    }
}

int set_up(GroupCapture &capture)
{
    const CaptureOptions &options = capture.run.options;
    const std::vector<int> &cameras = options.cameras;
    CallResult created = call_library([&] { return capture.group.create(cameras); });
    if (created.result != ISP_OK) {
        int status = report_failure("the group", "isp_create_video_group", created);
        report_missing_members(options);
        return status;
    }
    int result = ISP_OK;
    unsigned long group = capture.group.get();

    capture.members.resize(cameras.size());
    for (size_t i = 0; i < cameras.size(); ++i) {
        if ((result = isp_group_get_camera_handle(group, cameras[i], &capture.members[i])) != ISP_OK)
            return report_failure(member_context(capture, i), "isp_group_get_camera_handle", result);
        // A resize is stored in the camera object before its set-up.
        if (options.resize && (result = isp_resize_resolution(capture.members[i], &*options.resize)) != ISP_OK)
            return report_failure(member_context(capture, i), "isp_resize_resolution", result);
    }

    std::vector<int> open_results(cameras.size(), 0);
    if ((result = isp_group_open_video(group, options.mode, open_results.data())) != ISP_OK) {
        for (size_t i = 0; i < cameras.size(); ++i) {
            if (open_results[i] == ISP_OK)
                continue;
            OpenFailure failure = judge_open_failure(cameras[i], options.mode);
            report_failure_because(member_context(capture, i), "isp_group_open_video", open_results[i],
                                   failure.reason);
        }
        return report_failure("the group", "isp_group_open_video", result);
    }
    // Each member's own call: the group's view-format call answers 0 even
    // when a member refuses.
    for (size_t i = 0; i < cameras.size(); ++i) {
        int status = apply_view_formats(capture.members[i], cameras[i], options.view_formats);
        if (status != kExitOk)
            return status;
    }
    CallResult init =
        call_library([&] { return isp_group_init_video(group, options.combination(), uint32_t(options.buffers)); });
    if (init.result != ISP_OK)
        return report_failure("the group", "isp_group_init_video", init);

    for (size_t i = 0; i < cameras.size(); ++i) {
        CapturedCamera captured = {cameras[i], node_path(cameras[i], options.mode), {},
                                   CameraStats(cameras[i], DecimationRule())};
        if ((result = read_view_formats(capture.members[i], options, &captured.views)) != ISP_OK)
            return report_failure(member_context(capture, i), "isp_get_view_format", result);
        capture.run.cameras.push_back(std::move(captured));
        int status = check_setup(capture.run, capture.members[i], cameras[i]);
        if (status != kExitOk)
            return status;
    }

    // Through the descriptor of the platform node the group keeps open.
    set_trigger(capture.run, group_trigger(group));
    capture.frames.resize(cameras.size());
    capture.held.resize(cameras.size());
    return kExitOk;
}

// A set read stopped at a member: the frames the earlier members handed
// over are the caller's, and the group's put would walk every member, so
// they go back one by one through the members' own handles.
int give_back_partial_set(GroupCapture &capture, size_t failed_position)
{
    for (size_t i = 0; i < failed_position; ++i) {
        CapturedCamera &camera = capture.run.cameras[i];
        camera.stats.accept(frame_sequence(camera, capture.frames[i]), frame_timestamp(camera, capture.frames[i]));
        int result = isp_put_frame_buf(capture.members[i], &capture.frames[i]);
        if (result != ISP_OK)
            return report_failure(member_context(capture, i), "isp_put_frame_buf", result);
    }
    if (failed_position > 0)
        capture.run.sets->incomplete();
    return kExitOk;
}

// Gives the held set back. The group's put goes through the members in
// order and stops at the first one that fails, as the library documents:
// the members after it still hold their frames, which the report names.
int put_set(GroupCapture &capture)
{
    LineWatch watch;
    int result = zelvideo::isp_group_put_frame(capture.group.get(), capture.held.data(), int(capture.held.size()));
    if (result == ISP_OK)
        return kExitOk;
    const LibraryLine *line = watch.first_about_camera();
    const std::vector<int> &cameras = capture.run.options.cameras;
    auto member = line != nullptr ? std::find(cameras.begin(), cameras.end(), camera_of_node(line->dev_path))
                                  : cameras.end();
    if (member == cameras.end())
        return report_failure("the group", "isp_group_put_frame", result);
    std::string later;
    for (auto after = member + 1; after != cameras.end(); ++after)
        later += (later.empty() ? "" : ", ") + std::to_string(*after);
    std::string reason = "camera " + std::to_string(*member) + " could not take its frame back";
    if (!later.empty())
        reason += "; the group stops at the first member that fails, so the frames of the members after it "
                  "(camera " + later + ") were not given back";
    return report_failure_because("the group", "isp_group_put_frame", result, reason);
}

// Reads one frame set into capture.frames. A set that could not be read
// is judged here: a refused frame is counted and the loop goes on, Ctrl-C
// ends it quietly, anything else is reported. *taken says whether a whole
// set is there.
int read_set(GroupCapture &capture, bool *taken)
{
    CaptureRun &run = capture.run;
    for (zelvideo::_isp_buf_t &frame : capture.frames)
        frame.index = kNoFrame;
    int result;
    size_t failed = 0;
    bool refused = false;
    {
        LineWatch watch(LineWatch::Echo::Keep);
        result = zelvideo::isp_group_get_sync_frame(capture.group.get(), capture.frames.data(),
                                                    int(capture.frames.size()), run.options.timeout_ms);
        while (failed < capture.frames.size() && capture.frames[failed].index != kNoFrame)
            ++failed;
        bool member_refused = result == ISP_ERR_REQUEST && failed < capture.frames.size();
        if (member_refused)
            refused = count_refusal(run.cameras[failed], watch);
        else
            for (const LibraryLine &line : watch.lines())
                show_library_line(line);
    }
    *taken = result == ISP_OK;
    if (result == ISP_OK)
        return kExitOk;
    int status = give_back_partial_set(capture, failed);
    if (status != kExitOk || result == ISP_ERR_NOT_READY) // Ctrl-C
        return status;
    if (!refused)
        return report_failure(member_context(capture, failed < capture.frames.size() ? failed : 0),
                              "isp_group_get_sync_frame", result);
    if (++capture.refusals_in_a_row > kMaxRefusalsInARow)
        return report_failure(member_context(capture, failed),
                              "isp_group_get_sync_frame: " + std::to_string(kMaxRefusalsInARow) +
                                  " frame sets refused in a row",
                              result);
    return kExitOk;
}

int take_set(GroupCapture &capture)
{
    CaptureRun &run = capture.run;
    bool taken = false;
    int status = read_set(capture, &taken);
    if (status != kExitOk || !taken)
        return status;

    capture.refusals_in_a_row = 0;
    std::vector<uint64_t> timestamps;
    for (size_t i = 0; i < capture.frames.size(); ++i) {
        CapturedCamera &camera = run.cameras[i];
        timestamps.push_back(frame_timestamp(camera, capture.frames[i]));
        std::string error = run.accept(camera, capture.frames[i]);
        if (!error.empty())
            return report_output_failure(run.files.failed_path(), error);
    }
    run.sets->add(timestamps);
    if (capture.holding && (status = put_set(capture)) != kExitOk)
        return status;
    capture.held.swap(capture.frames);
    capture.holding = true;
    return kExitOk;
}

int frame_loop(GroupCapture &capture)
{
    CaptureRun &run = capture.run;
    // --frames counts whole frame sets.
    while (run.time_left() && (run.options.seconds > 0 || run.sets->sets() < uint64_t(run.options.frames))) {
        int status = take_set(capture);
        if (status != kExitOk)
            return status;
    }
    return kExitOk;
}

} // namespace

int run_group_capture(CaptureRun &run)
{
    GroupCapture capture{run, {}, {}, {}, {}, false, 0};
    run.sets.emplace();
    int status = set_up(capture);
    if (status != kExitOk)
        return status;
    unsigned long group = capture.group.get();
    int result = isp_group_start_captrue(group);
    if (result != ISP_OK)
        return report_failure("the group", "isp_group_start_captrue", result);

    run.start_clock();
    status = frame_loop(capture);
    run.stop_clock();

    result = isp_group_stop_captrue(group);
    if (result != ISP_OK && status == kExitOk)
        status = report_failure("the group", "isp_group_stop_captrue", result);
    // The buffers stay mapped until the close: write the last set now.
    for (size_t i = 0; status == kExitOk && capture.holding && i < capture.held.size(); ++i) {
        CapturedCamera &camera = run.cameras[i];
        std::string error = run.files.last(camera.camera, camera.views, capture.held[i]);
        if (!error.empty())
            status = report_output_failure(run.files.failed_path(), error);
    }
    LineWatch watch;
    isp_group_close_video(group);
    warn_if_close_failed(watch, "closing the group's cameras");
    return status;
}

} // namespace zcam
