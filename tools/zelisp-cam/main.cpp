/*
 * zelisp-cam - a command-line tool for the ISP cameras of the board, in the
 * spirit of v4l2-ctl: list the cameras, show their views and controls, get
 * and set controls, and capture from one camera, several, or a group.
 */
#include <cstdio>

#include <CLI/CLI.hpp>

#include "cli_checks.h"
#include "commands.h"
#include "help_format.h"
#include "library_lines.h"
#include "tool_errors.h"
#include "zelisp.h"

int main(int argc, char **argv)
{
    // Standard output is the tool's alone: tables, JSON, raw data.
    zcam::route_library_lines();
    CLI::App app{"zelisp-cam: list, inspect, tune and capture the board's ISP cameras.", "zelisp-cam"};
    app.formatter(zcam::help_formatter());
    app.set_version_flag("--version", std::string("zelisp-cam, library ") + isp_get_sdk_version(),
                         "Print the version of zelisp-cam and of the library, and exit.");
    app.set_help_flag("-h,--help", "Print this help, or a command's help after the command, and exit.");
    app.set_help_all_flag("--help-all", "Print the help of every command, and exit.");
    app.require_subcommand(1);
    app.footer(
        "Cameras are numbered 0 to 11. The library's own lines go to standard error, each\n"
        "after the camera it is about; standard output carries only what zelisp-cam prints.\n"
        "\n"
        "Exit status: 0 success. 1 to 17: a library call failed, and the status is the\n"
        "magnitude of its result (11: a driver request failed, 13: no frame within the time\n"
        "limit). A capture that ran but not as asked: 20 the platform refused the trigger\n"
        "mode, so the cameras ran free; 21 a view's format differs from --view-format; 22\n"
        "the resize was not applied as asked; 23 the library refused frames, for coming too\n"
        "soon after the last or out of sequence. 64: a wrong command line (no camera was\n"
        "opened). 73: an output file could not be written.\n"
        "\n"
        "Manual: man zelisp-cam. Guide: " +
        zcam::guide_path());

    int status = zcam::kExitOk;
    zcam::add_list_command(app, &status);
    zcam::add_info_command(app, &status);
    zcam::add_get_command(app, &status);
    zcam::add_set_command(app, &status);
    zcam::add_capture_command(app, &status);
#ifdef ZELISP_CAM_SERVE
    zcam::add_serve_command(app, &status);
    // The web console's options still describe themselves CLI11's way, with
    // their defaults and ranges in the option's column.
    app.get_subcommand("serve")->formatter(std::make_shared<CLI::Formatter>());
#endif

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        // --help and --version end the parse too, successfully.
        if (e.get_exit_code() == 0)
            return app.exit(e);
        return zcam::report_usage(zcam::parse_error_sentence(app, e, argc, argv));
    }
    fflush(stdout);
    return status;
}
