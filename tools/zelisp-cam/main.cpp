/*
 * zelisp-cam - a command-line tool for the ISP cameras of the board, in the
 * spirit of v4l2-ctl: list the cameras, show their views and controls, get
 * and set controls, and capture from one camera, several, or a group.
 */
#include <cstdio>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "cli_checks.h"
#include "commands.h"
#include "help_format.h"
#include "library_lines.h"
#include "manual_page.h"
#include "tool_errors.h"
#include "zelisp.h"

namespace {

const char kSummary[] = "list, inspect, tune and capture the ISP cameras of the board";

const char kOutput[] = "Cameras are numbered 0 to 11. The library's own lines go to standard error, each after the "
                       "camera it is about; standard output carries only what zelisp-cam prints.";

const char kExitStatus[] =
    "0: success. 1 to 17: a library call failed, and the status is the magnitude of its result (11: a driver "
    "request failed, 13: no frame within the time limit). A capture that ran but not as asked: 20 the platform "
    "refused the trigger mode, so the cameras ran free; 21 a view's format differs from --view-format; 22 the "
    "resize was not applied as asked; 23 the library refused frames, for coming too soon after the last or out "
    "of sequence. 64: a wrong command line (no camera was opened). 69: serve cannot listen on its address, or use its TLS key "
    "or certificate. 71: the system would not give serve what it needs. 73: an output file, or standard output, "
    "could not be written.";

// What the library does by design that a user of the tool meets, and how
// the tool shows it.
const std::vector<std::string> kLibraryBehaviours = {
    "Several of the library's system-error labels end in a line break of their own (\"open isp_misc error\"), "
    "so its console shows the reason on a line by itself; zelisp-cam joins label and reason into one line.",
    "Every trigger-mode call of the library answers 0 when the platform driver refuses the mode, and says so "
    "only in its line; zelisp-cam reads that line, warns that the cameras run free, and ends with status 20.",
    "isp_close_video answers 0 even when closing the node failed; zelisp-cam warns when the library's line "
    "says so. A group gives its frames back in member order and stops at the first member that fails; "
    "zelisp-cam names that member and the ones after it, whose frames were not given back.",
    "The library sends white-balance gains and manual-exposure words as their low 16 bits, without a word; "
    "zelisp-cam set names every value it cut.",
    "The library takes a frame only 12 ms or more after the last one it took, at most 83 frames per second, and "
    "judges every frame before its decimation does; zelisp-cam counts the refused frames apart and suggests a "
    "--drop ratio whose kept frames are all ones the library takes.",
};

std::vector<zcam::ManualSection> manual_sections()
{
    return {
        {"EXIT STATUS", {kExitStatus}},
        {"ENVIRONMENT",
         {"ZELISP_CAM_FONT: the TrueType font of the contact sheet's labels, instead of " ZELISP_CAM_FONT_FILE
          ". Without a font the sheet is written without labels."}},
        {"NOTES", kLibraryBehaviours},
        {"FILES", {zcam::guide_path() + ": the guide to zelisp-cam, with examples."}},
        {"SEE ALSO", {"zelisp-sim-run(1) runs zelisp-cam on the simulated drivers, without a board."}},
    };
}

} // namespace

int main(int argc, char **argv)
{
    // Standard output is the tool's alone: tables, JSON, raw data.
    zcam::route_library_lines();
    CLI::App app{std::string("zelisp-cam: ") + kSummary + ".", "zelisp-cam"};
    app.formatter(zcam::help_formatter());
    app.set_version_flag("--version", std::string("zelisp-cam, library ") + isp_get_sdk_version(),
                         "Print the version of zelisp-cam and of the library, and exit.");
    app.set_help_flag("-h,--help", "Print this help, or a command's help after the command, and exit.");
    app.set_help_all_flag("--help-all", "Print the help of every command, and exit.");
    app.require_subcommand(1);
    app.footer(zcam::wrap(kOutput, 80) + "\n\n" + zcam::wrap(std::string("Exit status: ") + kExitStatus, 80) +
               "\n\nManual: man zelisp-cam. Guide: " + zcam::guide_path());
    // The manual page the build installs; not for users, so not in the help.
    app.add_flag_callback("--manual", [&app] {
           printf("%s", zcam::manual_page(app, kSummary, isp_get_sdk_version(), manual_sections()).c_str());
           throw CLI::Success();
       })
        ->group("")
        ->trigger_on_parse();

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
        // --help, --version and --manual end the parse too, successfully.
        if (e.get_exit_code() == 0)
            return app.exit(e);
        return zcam::report_usage(zcam::parse_error_sentence(app, e, argc, argv));
    }
    return zcam::finish_output(stdout, status);
}
