/*
 * zelisp-cam - a command-line tool for the ISP cameras of the board, in the
 * spirit of v4l2-ctl: list the cameras, show their views and controls, get
 * and set controls, and capture from one camera, several, or a group.
 */
#include <cstdio>

#include <CLI/CLI.hpp>

#include "commands.h"
#include "tool_errors.h"
#include "zelisp.h"

int main(int argc, char **argv)
{
    CLI::App app{"zelisp-cam: list, inspect, tune and capture the board's ISP cameras.", "zelisp-cam"};
    app.set_version_flag("--version", std::string("zelisp-cam, library ") + isp_get_sdk_version());
    app.require_subcommand(1);
    app.footer("Cameras are numbered 0 to 11. Exit status: 0 success, 1..17 the magnitude of the\n"
               "library's result code (for example 11: a driver request failed, 13: no frame\n"
               "within the time limit), 64 a wrong command line, 73 an output file could not be\n"
               "written. See docs/zelisp-cam.md.");

    int status = zcam::kExitOk;
    zcam::add_list_command(app, &status);
    zcam::add_info_command(app, &status);
    zcam::add_get_command(app, &status);
    zcam::add_set_command(app, &status);
    zcam::add_capture_command(app, &status);
#ifdef ZELISP_CAM_SERVE
    zcam::add_serve_command(app, &status);
#endif

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        int code = app.exit(e);
        return code == 0 ? zcam::kExitOk : zcam::kExitUsage;
    }
    fflush(stdout);
    return status;
}
