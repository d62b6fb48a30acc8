/*
 * zelisp-cam - a command-line tool for the ISP cameras of the board, in the
 * spirit of v4l2-ctl: list the cameras, show their views and controls, get
 * and set controls, and capture from one camera, several, or a group.
 */
#include <cstdio>

#include <CLI/CLI.hpp>

#include "cli_checks.h"
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
               "within the time limit); a capture that ran but not as asked: 20 the trigger mode\n"
               "was refused (cameras not in step), 21 a view format differs from --view-format,\n"
               "22 the resize was not applied as asked; 64 a wrong command line (nothing was\n"
               "opened), 73 an output file could not be written.\n"
               "Manual: man zelisp-cam; guide: " ZELISP_DOC_DIR "/zelisp-cam.md");

    int status = zcam::kExitOk;
    zcam::add_list_command(app, &status);
    zcam::add_info_command(app, &status);
    zcam::add_get_command(app, &status);
    zcam::add_set_command(app, &status);
    zcam::add_capture_command(app, &status);

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
