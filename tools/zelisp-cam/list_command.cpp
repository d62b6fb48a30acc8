// list_command.cpp - "zelisp-cam list": the platform's valid cameras and
// which of their two nodes exist.
#include <sys/stat.h>

#include <cstdio>
#include <string>

#include "camera_handle.h"
#include "camera_table.h"
#include "camera_probe.h"
#include "commands.h"
#include "tool_errors.h"
#include "zelisp.h"

namespace zcam {
namespace {

constexpr int kMaxCameras = 12; // camera numbers run from 0 to 11

std::string node_column(int camera, int mode)
{
    std::string path = node_path(camera, mode);
    struct stat st;
    if (stat(path.c_str(), &st) != 0)
        return path + " (missing)";
    if (!S_ISCHR(st.st_mode))
        return path + " (not a device)";
    return path;
}

// The sensor's rate, asked of the mode 1 node; "-" when it cannot be opened.
std::string rate_column(int camera)
{
    // The library's line on why an open failed goes to standard error; the
    // node column says it already.
    unsigned long handle = isp_open_video(uint32_t(camera), 1);
    if (handle == 0)
        return "-";
    std::string rate = frame_rate_text(handle);
    isp_close_video(handle);
    return rate;
}

int run_list()
{
    const CameraTable table = read_camera_table();
    if (!table.was_read())
        return report_failure("the valid-camera table", table.failed_call, table.result);
    const size_t count = table.cameras.size();
    printf("%zu valid camera%s\n", count, count == 1 ? "" : "s");
    if (count == 0)
        return kExitOk;
    printf("%-7s %-22s %-22s %s\n", "CAMERA", "MODE 1 NODE", "MODE 2 NODE", "FRAME RATE");
    for (int camera : table.cameras) {
        if (camera < 0 || camera >= kMaxCameras) {
            printf("%-7d (camera number outside 0..11)\n", camera);
            continue;
        }
        printf("%-7d %-22s %-22s %s\n", camera, node_column(camera, 1).c_str(), node_column(camera, 2).c_str(),
               rate_column(camera).c_str());
    }
    return kExitOk;
}

} // namespace

void add_list_command(CLI::App &app, int *status)
{
    CLI::App *list = app.add_subcommand(
        "list", "List the valid cameras of the platform table (/dev/isp_misc) and which of their nodes exist.");
    list->callback([status] { *status = run_list(); });
}

} // namespace zcam
