// capture_command.cpp - "zelisp-cam capture": its options, their checks,
// and the run from set-up to summary.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>

#include "capture_loops.h"
#include "cli_checks.h"
#include "commands.h"
#include "json_summary.h"
#include "summary.h"
#include "tool_errors.h"

namespace zcam {
namespace {

constexpr size_t kMaxCameras = 8; // the multi-camera wait and a group both take up to 8

// The strings of the compound options, parsed after CLI11 has checked the rest.
struct CaptureArguments {
    CaptureOptions options;
    std::vector<std::string> view_formats;
    bool views_given = false;
    bool format_given = false;
    std::string resize;
    std::string drop;
    std::vector<std::string> trigger;
};

int check(CaptureArguments &arguments)
{
    CaptureOptions &options = arguments.options;
    if (options.cameras.size() > kMaxCameras)
        return report_usage("at most 8 cameras can be captured together");
    if (std::set<int>(options.cameras.begin(), options.cameras.end()).size() != options.cameras.size())
        return report_usage("a camera is named twice in --camera");
    std::sort(options.views.begin(), options.views.end());
    options.views.erase(std::unique(options.views.begin(), options.views.end()), options.views.end());
    if (options.views.empty())
        return report_usage("--views needs at least one view");

    // Options that mode 2 cannot carry out are refused, not ignored: its node
    // has view 0 alone and no resize.
    if (options.mode == 2 && arguments.views_given && options.views != std::vector<int>{0})
        return report_usage("--mode 2 carries view 0 only, so --views can only be 0");
    if (options.mode == 2 && !arguments.resize.empty())
        return report_usage("--resize works in mode 1 only: the mode 2 node has no resize");
    if (options.mode == 2)
        options.views = {0};

    std::string error;
    if (!parse_view_formats(arguments.view_formats, &options.view_formats, &error))
        return report_usage(error);
    for (const ViewFormatRequest &request : options.view_formats)
        if (std::find(options.views.begin(), options.views.end(), request.view) == options.views.end())
            return report_usage("--view-format sets view " + std::to_string(request.view) +
                                ", which is not captured (--views" + (options.mode == 2 ? ", mode 2" : "") + ")");
    if (!arguments.resize.empty()) {
        zelvideo::_resize_param_t param;
        if (!parse_resize(arguments.resize, &param, &error))
            return report_usage(error);
        options.resize = param;
    }
    if (!arguments.drop.empty()) {
        if (options.group)
            return report_usage("--drop cannot be used with --group: a frame set takes every member's next frame");
        DropRatio ratio;
        if (!parse_drop(arguments.drop, &ratio, &error))
            return report_usage(error);
        options.drop = ratio;
    }
    if (!arguments.trigger.empty()) {
        TriggerSetting trigger;
        if (!parse_trigger(arguments.trigger, &trigger, &error))
            return report_usage(error);
        options.trigger = trigger;
    }
    if (options.every > 0 && !options.writes_files())
        return report_usage("--every needs --out");
    if (arguments.format_given && !options.writes_files())
        return report_usage("--format needs --out: without a folder no file is written");
    return kExitOk;
}

// With --json, standard output carries the JSON document alone: the tool's
// own lines go to standard error from here on, as the library's always do.
FILE *divert_stdout_for_json()
{
    fflush(stdout);
    int json_fd = dup(STDOUT_FILENO);
    if (json_fd < 0)
        return nullptr;
    dup2(STDERR_FILENO, STDOUT_FILENO);
    return fdopen(json_fd, "w");
}

int write_summary_file(const CaptureRun &run)
{
    std::string path = (std::filesystem::path(run.options.out_dir) / "summary.json").string();
    errno = 0;
    std::ofstream file(path);
    file << summary_json(run).dump(2) << '\n';
    file.close();
    if (!file)
        return report_output_failure(path, write_failure_reason());
    return kExitOk;
}

int run_capture(CaptureArguments &arguments)
{
    int status = check(arguments);
    if (status != kExitOk)
        return status;
    const CaptureOptions &options = arguments.options;

    std::unique_ptr<FILE, int (*)(FILE *)> json_out(nullptr, fclose);
    if (options.json) {
        json_out.reset(divert_stdout_for_json());
        if (!json_out)
            return report_output_failure("standard output", "cannot duplicate it");
    }

    CaptureRun run(options);
    std::string error = run.files.prepare();
    if (!error.empty())
        return report_output_failure(run.files.failed_path(), error);

    catch_interrupt();
    status = options.group ? run_group_capture(run) : run_stream_capture(run);
    if (status != kExitOk)
        return status;
    judge_refusals(run);

    error = run.files.finish();
    if (!error.empty())
        return report_output_failure(run.files.failed_path(), error);
    if (options.writes_files() && (status = write_summary_file(run)) != kExitOk)
        return status;
    if (!json_out) {
        // Flushed, and judged, with the rest of standard output at exit.
        print_summary(stdout, run);
        // The capture ran, but not as asked (trigger, view format, resize).
        return run.problem_status;
    }
    fprintf(json_out.get(), "%s\n", summary_json(run).dump(2).c_str());
    return finish_output(json_out.get(), run.problem_status);
}

} // namespace

void add_capture_command(CLI::App &app, int *status)
{
    auto arguments = std::make_shared<CaptureArguments>();
    CaptureOptions &options = arguments->options;
    CLI::App *capture = app.add_subcommand(
        "capture", "Capture frames from one camera, several (multi-camera wait) or a group (--group).");
    capture->add_option("-c,--camera", options.cameras,
                        "The cameras, 0 to 11, comma separated; at most 8. Required.")
        ->type_name("N[,N...]")
        ->required()
        ->delimiter(',')
        ->check(camera_number());
    CLI::Option *views =
        capture->add_option("--views", options.views, "The views to enable, comma separated; all three by default.")
            ->type_name("V[,V...]")
            ->delimiter(',')
            ->check(whole_number(0, ISP_VIEW_COUNT - 1));
    capture->add_option("--view-format", arguments->view_formats,
                        "Ask the driver for these view formats before setting the stream up, comma separated, for "
                        "example 1=NV12:1280x720,2=YUYV:640x360. Formats: NV12, NV21, YUYV, RGB3, GREY.")
        ->type_name("VIEW=FOURCC:WxH")
        ->delimiter(',');
    capture->add_option("--mode", options.mode,
                        "Open mode 1 (/dev/videoN, three views; the default) or 2 (/dev/video<N+12>, view 0 "
                        "only, no resize).")
        ->type_name("M")
        ->check(one_of({"1", "2"}, "an open mode"));
    capture->add_option("--buffers", options.buffers, "Capture buffers per camera, 3 to 8; 4 by default.")
        ->type_name("N")
        ->check(whole_number(3, 8));
    CLI::Option *frames = capture->add_option("--frames", options.frames,
                                              "Frames to capture from each camera (frame sets with --group); 100 by "
                                              "default. Not with --seconds.")
                              ->type_name("N")
                              ->check(whole_number(1, 2147483647));
    capture->add_option("--seconds", options.seconds,
                        "Capture for this long instead, from 0.001 seconds up (fractions allowed).")
        ->type_name("S")
        ->check(capture_seconds())
        ->excludes(frames);
    capture->add_option("--timeout", options.timeout_ms,
                        "The longest wait for a frame, in milliseconds, 1 to 600000; 2000 by default.")
        ->type_name("MS")
        ->check(whole_number(1, 600000));
    capture->add_option("--resize", arguments->resize,
                        "Crop, scale and crop again in the ISP: X,Y,W,H[:SW,SH[:X,Y,W,H]], every number even. The "
                        "first crop must fit in view 1, which carries the result. Mode 1 only.")
        ->type_name("CROPS");
    capture->add_option("--drop", arguments->drop,
                        "Decimate: drop D frames out of every T, a ratio that comes down to one frame in N dropped "
                        "or kept (30/10 drops every third frame, 30/20 keeps every third). Not with --group.")
        ->type_name("T/D");
    capture->add_flag("--group", options.group, "Drive the cameras as one group and read frame sets.");
    capture->add_option("--trigger", arguments->trigger,
                        "Set the MIPI trigger mode first: internal or external, then up to three parameters, 0 by "
                        "default: P1 0 to 2, P2 0 to 7, P3 any number (internal) or 0 to 2 (external).")
        ->expected(1, 4)
        ->type_name("MODE [P1 P2 P3]");
    capture->add_option("--out", options.out_dir,
                        "Write into this folder each view of every camera's last frame, a contact sheet (png) and "
                        "summary.json.")
        ->type_name("DIR");
    CLI::Option *format = capture->add_option("--format", options.format,
                                              "The files' format with --out: png (previews; the default) or raw "
                                              "(the plane's bytes).")
                              ->type_name("F")
                              ->check(one_of({"png", "raw"}, "a file format"));
    capture->add_option("--every", options.every, "With --out, also write every Nth frame of each camera.")
        ->type_name("N")
        ->check(whole_number(1, 2147483647));
    capture->add_flag("--json", options.json, "Print the summary as JSON on standard output.");
    capture->callback([arguments, views, format, status] {
        arguments->views_given = views->count() > 0;
        arguments->format_given = format->count() > 0;
        *status = run_capture(*arguments);
    });
}

} // namespace zcam
