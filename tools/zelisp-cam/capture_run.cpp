// capture_run.cpp - the clock, stop conditions and per-frame bookkeeping
// shared by every kind of capture.
#include "capture_run.h"

#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "camera_handle.h"
#include "formats.h"
#include "library_lines.h"
#include "tool_errors.h"
#include "view_formats.h"

namespace zcam {
namespace {

volatile sig_atomic_t interrupted_flag = 0;

void on_interrupt(int)
{
    interrupted_flag = 1;
}

std::string progress_text(const CaptureRun &run)
{
    char text[64];
    snprintf(text, sizeof text, "%.1f s", run.elapsed());
    std::string line = text;
    uint64_t refused = 0, dropped = 0;
    for (const CapturedCamera &camera : run.cameras) {
        snprintf(text, sizeof text, " | cam%d %llu %.1f fps", camera.camera,
                 static_cast<unsigned long long>(camera.stats.frames()), camera.stats.fps());
        line += text;
        refused += camera.stats.refused();
        dropped += camera.stats.dropped();
    }
    snprintf(text, sizeof text, " | refused %llu dropped %llu", static_cast<unsigned long long>(refused),
             static_cast<unsigned long long>(dropped));
    return line + text;
}

} // namespace

void catch_interrupt()
{
    // No SA_RESTART: a Ctrl-C must wake the select() the library waits in,
    // which then reports the interruption and lets the loop end cleanly.
    struct sigaction action = {};
    action.sa_handler = on_interrupt;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

CaptureRun::CaptureRun(const CaptureOptions &run_options) : options(run_options), files(run_options) {}

void CaptureRun::start_clock()
{
    start_ = std::chrono::steady_clock::now();
}

double CaptureRun::elapsed() const
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

void CaptureRun::stop_clock()
{
    seconds = elapsed();
    progress.clear();
}

void CaptureRun::problem(int status, const std::string &sentence)
{
    report_warning(sentence);
    problems.push_back(sentence);
    if (problem_status == 0)
        problem_status = status;
}

bool CaptureRun::time_left()
{
    if (interrupted_flag != 0) {
        interrupted = true;
        return false;
    }
    return options.seconds <= 0 || elapsed() < options.seconds;
}

bool CaptureRun::camera_done(const CapturedCamera &camera) const
{
    return options.seconds <= 0 && camera.stats.frames() >= uint64_t(options.frames);
}

std::string CaptureRun::accept(CapturedCamera &camera, const zelvideo::_isp_buf_t &frame)
{
    uint64_t index = camera.stats.frames();
    camera.stats.accept(frame_sequence(camera, frame), frame_timestamp(camera, frame));
    if (progress.due())
        progress.show(progress_text(*this));
    return files.frame(camera.camera, camera.views, frame, index);
}

int check_setup(CaptureRun &run, unsigned long handle, int camera)
{
    std::vector<std::string> mismatches;
    int status = check_view_formats(handle, camera, run.options.view_formats, &mismatches);
    if (status != kExitOk)
        return status;
    for (const std::string &mismatch : mismatches)
        run.problem(kExitViewNotHonoured, mismatch);
    if (!run.options.resize)
        return kExitOk;

    // The resize ends with the second crop; view 1 carries the result.
    const zelvideo::_resize_param_t &resize = *run.options.resize;
    zelvideo::_view_format_t view1 = {};
    CallResult get = call_library([&] { return isp_get_view_format(handle, 1, &view1); });
    if (get.result != ISP_OK)
        return report_failure(camera_context(camera), "isp_get_view_format view 1", get);
    printf("camera %d: resize asked for: %s; the driver reports view 1 as %s\n", camera,
           describe_resize(resize).c_str(), describe(view1).c_str());
    if (view1.width != resize.cropAfter.width || view1.height != resize.cropAfter.height)
        run.problem(kExitResizeNotHonoured, camera_context(camera) + ": view 1 is " + std::to_string(view1.width) + "x" +
                                                std::to_string(view1.height) + " after the resize, not the " +
                                                std::to_string(resize.cropAfter.width) + "x" +
                                                std::to_string(resize.cropAfter.height) + " asked for");
    return kExitOk;
}

void set_trigger(CaptureRun &run, const TriggerCall &call)
{
    if (!run.options.trigger)
        return;
    const TriggerSetting &t = *run.options.trigger;
    LineWatch watch;
    int result = t.external ? call.external(call.handle, t.param1, t.param2, t.param3)
                            : call.internal(call.handle, t.param1, t.param2, t.param3);
    std::string sentence = std::string(call.prefix) + (t.external ? "external" : "internal") + "_trigger: ";
    if (result != ISP_OK) {
        sentence += isp_get_result_text(result) + std::string(" (") + std::to_string(result) + ")";
        if (watch.system_error() != 0)
            sentence += ", the system error is in the library's line above";
    } else if (watch.failed()) {
        // Every trigger call answers 0 when the platform driver refuses the
        // mode, as the library documents: its line is the only sign.
        sentence += std::string("the platform driver refused the ") + (t.external ? "external" : "internal") +
                    " trigger mode " + std::to_string(t.param1) + " " + std::to_string(t.param2) + " " +
                    std::to_string(t.param3);
        if (watch.system_error() != 0)
            sentence += std::string(": ") + strerror(watch.system_error());
    } else {
        return;
    }
    run.problem(kExitTriggerRefused, sentence + "; the trigger mode is not set, so the cameras run free, not in step");
}

bool count_refusal(CapturedCamera &camera, const LineWatch &watch)
{
    Refusal why;
    uint32_t sequence = 0;
    const LibraryLine *refusal = refusal_line(watch, &why, &sequence);
    if (refusal == nullptr) {
        for (const LibraryLine &line : watch.lines())
            show_library_line(line);
        return false;
    }
    bool first = camera.stats.refused() == 0;
    if (camera.stats.refuse(why, sequence) && first) {
        show_library_line(*refusal);
        report_warning(camera_context(camera.camera) +
                       ": the library refused a frame; further refusals are counted in the summary, not shown");
    }
    return true;
}

namespace {

// The library accepts a frame only 12 ms or more after the last one.
constexpr double kMinFrameIntervalS = 0.012;

// What to do about a sensor faster than the library takes. From the first
// frame of the stream (sequence 0) the library takes every k-th frame,
// k the smallest step that spans 12 ms, and refuses the ones between.
// Decimation that keeps one frame in a multiple of k keeps only frames the
// library takes, and the ones it refuses are then frames --drop skips
// anyway. The decimation rule that keeps one frame in N needs N of 3 or
// more (2/1 drops the even frames instead).
std::string drop_advice(double sensor_fps)
{
    int step = int(std::ceil(sensor_fps * kMinFrameIntervalS - 1e-9));
    if (step < 2)
        return "the frames came less than 12 ms apart at times";
    int keep_one_in = step >= 3 ? step : 2 * step;
    if (keep_one_in > 120)
        return "no --drop ratio keeps the rate under it";
    char advice[160];
    snprintf(advice, sizeof advice,
             "the sensor runs at %.0f fps; --drop %d/%d keeps one frame in %d (%.1f fps), each one the library takes",
             sensor_fps, keep_one_in, keep_one_in - 1, keep_one_in, sensor_fps / keep_one_in);
    return advice;
}

} // namespace

void judge_refusals(CaptureRun &run)
{
    for (const CapturedCamera &camera : run.cameras) {
        const CameraStats &s = camera.stats;
        const std::string seen = " of " + std::to_string(s.frames() + s.refused()) + " frames";
        if (s.refused_too_soon() > 0)
            run.problem(kExitFramesRefused,
                        camera_context(camera.camera) + ": " + std::to_string(s.refused_too_soon()) + seen +
                            " refused for coming less than 12 ms after the last accepted one: the library takes at "
                            "most 83 frames per second, and " + drop_advice(s.sensor_fps()));
        if (s.refused_out_of_sequence() > 0)
            run.problem(kExitFramesRefused,
                        camera_context(camera.camera) + ": " + std::to_string(s.refused_out_of_sequence()) + seen +
                            " refused because their sequence number did not pass the last accepted one (the "
                            "driver counted again from lower numbers)");
    }
}

int read_view_formats(unsigned long handle, const CaptureOptions &options, std::vector<ViewSlot> *views)
{
    views->clear();
    // In open mode 2 the node carries view 0 alone, whatever --views says.
    std::vector<int> wanted = options.mode == 2 ? std::vector<int>{0} : options.views;
    for (int view : wanted) {
        ViewSlot slot = {view, {}};
        int result = isp_get_view_format(handle, uint32_t(view), &slot.format);
        if (result != ISP_OK)
            return result;
        views->push_back(slot);
    }
    return ISP_OK;
}

} // namespace zcam
