/*
 * commands.h - the subcommands of zelisp-cam. Each registers itself on the
 * application with its options and help, and on success of the parse runs
 * and leaves its exit status in *status.
 */
#ifndef ZELISP_CAM_COMMANDS_H
#define ZELISP_CAM_COMMANDS_H

#include <CLI/CLI.hpp>

namespace zcam {

void add_list_command(CLI::App &app, int *status);
void add_info_command(CLI::App &app, int *status);
void add_get_command(CLI::App &app, int *status);
void add_set_command(CLI::App &app, int *status);
void add_capture_command(CLI::App &app, int *status);
#ifdef ZELISP_CAM_SERVE
void add_serve_command(CLI::App &app, int *status); // the web console
#endif

} // namespace zcam

#endif
