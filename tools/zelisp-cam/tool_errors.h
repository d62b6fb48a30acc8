/*
 * tool_errors.h - how zelisp-cam turns failures into sentences on standard
 * error and into its exit status.
 *
 * A failed library call exits with the magnitude of its result (1..17), so a
 * script can tell "no frame within the time limit" (13) from "a driver
 * request failed" (11) without reading the text. The two statuses of the
 * tool's own (64, 73) are those of sysexits.h.
 */
#ifndef ZELISP_CAM_TOOL_ERRORS_H
#define ZELISP_CAM_TOOL_ERRORS_H

#include <string>

namespace zcam {

constexpr int kExitOk = 0;
constexpr int kExitUsage = 64;  // EX_USAGE: the command line is wrong
constexpr int kExitOutput = 73; // EX_CANTCREAT: an output file could not be written

// Exit status of a library result: 0 for success, else its magnitude.
int exit_status(int result);

// "zelisp-cam: <context>: <the library's sentence> (<result>)"; returns exit_status(result).
int report_failure(const std::string &context, int result);

// "zelisp-cam: <message>" plus a pointer to --help; returns kExitUsage.
int report_usage(const std::string &message);

// "zelisp-cam: cannot write <path>: <why>"; returns kExitOutput.
int report_output_failure(const std::string &path, const std::string &why);

} // namespace zcam

#endif
