// info_command.cpp - "zelisp-cam info -c N": the views of one camera, the
// view combination its ISP supports, and every control with its value.
#include <linux/videodev2.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "camera_handle.h"
#include "commands.h"
#include "controls.h"
#include "formats.h"
#include "tool_errors.h"
#include "zelisp.h"

namespace zcam {
namespace {

struct InfoOptions {
    int camera = 0;
    int mode = 1;
};

// The ISP driver answers VIDIOC_ENUMINPUT with the view combination it
// supports in `index` (bit k: view k). The library only prints it while
// setting the stream up, so the tool asks the node itself through the
// camera's native descriptor.
bool supported_combination(unsigned long handle, uint32_t *combination)
{
    int64_t fd = -1;
    if (isp_camera_get_native_fd(handle, &fd) != ISP_OK)
        return false;
    struct v4l2_input input = {};
    int err;
    do {
        err = ioctl(int(fd), VIDIOC_ENUMINPUT, &input);
    } while (err == -1 && errno == EINTR);
    if (err != 0)
        return false;
    *combination = input.index;
    return true;
}

std::string views_of(uint32_t combination)
{
    std::string views;
    for (int view = 0; view < 3; ++view) {
        if (combination & (1u << view))
            views += (views.empty() ? "" : ", ") + std::to_string(view);
    }
    return views.empty() ? "none" : "views " + views;
}

int run_info(const InfoOptions &options)
{
    CameraHandle camera;
    int result = camera.open(options.camera, options.mode);
    if (result != ISP_OK)
        return report_failure("camera " + std::to_string(options.camera), result);

    int status = kExitOk;
    printf("camera %d: %s (mode %d)\n", options.camera, camera.path().c_str(), options.mode);

    uint32_t combination = 0;
    if (supported_combination(camera.get(), &combination))
        printf("supported view combination: %u (%s)\n", combination, views_of(combination).c_str());
    else
        printf("supported view combination: unknown (%s)\n", strerror(errno));

    printf("views:\n");
    for (uint32_t view = 0; view < 3; ++view) {
        zelvideo::_view_format_t format = {};
        result = isp_get_view_format(camera.get(), view, &format);
        if (result == ISP_OK) {
            printf("  view %u: %s\n", view, describe(format).c_str());
        } else {
            printf("  view %u: %s (%d)\n", view, isp_get_result_text(result), result);
            status = exit_status(result);
        }
    }

    printf("controls:\n");
    for (const Control &control : controls()) {
        std::string value;
        if (control.read == nullptr) {
            printf("  %-11s (set only)\n", control.name);
            continue;
        }
        result = control.read(camera.get(), &value);
        if (result == ISP_OK) {
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
    info->add_option("-c,--camera", options->camera, "Camera number")->required()->check(CLI::Range(0, 11));
    info->add_option("--mode", options->mode, "Open mode: 1 (/dev/videoN, three views) or 2 (/dev/video<N+12>)")
        ->check(CLI::IsMember({1, 2}))
        ->capture_default_str();
    info->callback([options, status] { *status = run_info(*options); });
}

} // namespace zcam
