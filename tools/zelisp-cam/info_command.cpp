// info_command.cpp - "zelisp-cam info -c N": the views of one camera, the
// view combination its ISP supports, and every control with its value.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "camera_handle.h"
#include "camera_probe.h"
#include "capture_options.h"
#include "cli_checks.h"
#include "commands.h"
#include "controls.h"
#include "formats.h"
#include "tool_errors.h"
#include "view_formats.h"
#include "zelisp.h"

namespace zcam {
namespace {

struct InfoOptions {
    int camera = 0;
    int mode = 1;
    std::vector<std::string> view_format_texts;
};

std::string views_of(uint32_t combination)
{
    std::string views;
    for (int view = 0; view < ISP_VIEW_COUNT; ++view) {
        if (combination & (1u << view))
            views += (views.empty() ? "" : ", ") + std::to_string(view);
    }
    return views.empty() ? "none" : "views " + views;
}

int run_info(const InfoOptions &options)
{
    // Every check of the tool's own comes before the camera is touched.
    std::vector<ViewFormatRequest> requests;
    std::string error;
    if (!parse_view_formats(options.view_format_texts, &requests, &error))
        return report_usage(error);
    for (const ViewFormatRequest &request : requests)
        if (options.mode == 2 && request.view != 0)
            return report_usage("--view-format: the mode 2 node carries view 0 only");

    CameraHandle camera;
    int status = camera.open(options.camera, options.mode);
    if (status != kExitOk)
        return status;
    if ((status = apply_view_formats(camera.get(), options.camera, requests)) != kExitOk)
        return status;
    int result = ISP_OK;
    printf("camera %d: %s (mode %d)\n", options.camera, camera.path().c_str(), options.mode);

    uint32_t combination = 0;
    if (supported_combination(camera.get(), &combination))
        printf("supported view combination: %u (%s)\n", combination, views_of(combination).c_str());
    else
        printf("supported view combination: unknown (%s)\n", strerror(errno));

    printf("frame rate: %s\n", frame_rate_text(camera.get()).c_str());

    printf("views:\n");
    for (uint32_t view = 0; view < ISP_VIEW_COUNT; ++view) {
        zelvideo::_view_format_t format = {};
        result = isp_get_view_format(camera.get(), view, &format);
        if (result == ISP_OK) {
            printf("  view %u: %s\n", view, describe(format).c_str());
        } else {
            printf("  view %u: %s (%d)\n", view, isp_get_result_text(result), result);
            status = exit_status(result);
        }
    }

    std::vector<std::string> mismatches;
    int checked = check_view_formats(camera.get(), options.camera, requests, &mismatches);
    if (checked != kExitOk)
        status = checked;
    for (const std::string &mismatch : mismatches) {
        report_warning(mismatch);
        status = kExitViewNotHonoured;
    }

    printf("controls:\n");
    for (const Control &control : controls()) {
        std::string value;
        if (control.read == nullptr) {
            printf("  %-11s (set only)\n", control.name);
            continue;
        }
        result = control.read(camera.get(), &value);
        std::string range = control_range_text(camera.get(), control.id);
        if (result == ISP_OK && !range.empty()) {
            printf("  %-11s %-8s (%s)\n", control.name, value.c_str(), range.c_str());
        } else if (result == ISP_OK) {
            printf("  %-11s %s\n", control.name, value.c_str());
        } else {
            printf("  %-11s %s (%d)\n", control.name, isp_get_result_text(result), result);
            status = exit_status(result);
        }
    }
    return status;
}

} // namespace

void add_info_command(CLI::App &app, int *status)
{
    auto options = std::make_shared<InfoOptions>();
    CLI::App *info = app.add_subcommand(
        "info", "Show one camera's view formats, its supported view combination and every control's value.");
    info->add_option("-c,--camera", options->camera, "The camera, 0 to 11. Required.")
        ->type_name("N")
        ->required()
        ->check(camera_number());
    info->add_option("--mode", options->mode,
                     "Open mode 1 (/dev/videoN, three views; the default) or 2 (/dev/video<N+12>, view 0).")
        ->type_name("M")
        ->check(one_of({"1", "2"}, "an open mode"));
    info->add_option("--view-format", options->view_format_texts,
                     "Ask the driver for these view formats first, comma separated, for example "
                     "1=NV12:1280x720. Formats: NV12, NV21, YUYV, RGB3, GREY.")
        ->type_name("VIEW=FOURCC:WxH")
        ->delimiter(',');
    info->callback([options, status] { *status = run_info(*options); });
}

} // namespace zcam
