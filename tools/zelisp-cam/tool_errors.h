/*
 * tool_errors.h - how zelisp-cam turns failures into sentences on standard
 * error and into its exit status.
 *
 * A failed library call exits with the magnitude of its result (1..17), so a
 * script can tell "no frame within the time limit" (13) from "a driver
 * request failed" (11) without reading the text. A capture that ran but did
 * not get what it asked for (a trigger mode, a view format, a resize, every
 * frame) exits with 20..23, and the two statuses of the tool's own (64, 73)
 * are those of sysexits.h.
 */
#ifndef ZELISP_CAM_TOOL_ERRORS_H
#define ZELISP_CAM_TOOL_ERRORS_H

#include <cstdio>
#include <string>

namespace zcam {

constexpr int kExitOk = 0;
constexpr int kExitTriggerRefused = 20;    // the cameras ran free: not in step
constexpr int kExitViewNotHonoured = 21;   // a view's format is not the one --view-format asked for
constexpr int kExitResizeNotHonoured = 22; // view 1's size is not what --resize asked for
constexpr int kExitFramesRefused = 23;     // the library refused frames: too soon after the last, or out of sequence
constexpr int kExitUsage = 64;             // EX_USAGE: the command line is wrong
constexpr int kExitUnavailable = 69;       // EX_UNAVAILABLE: serve cannot listen on its address
constexpr int kExitSystem = 71;            // EX_OSERR: the system would not give serve what it needs
constexpr int kExitOutput = 73;            // EX_CANTCREAT: an output file, or standard output, could not be written

// Exit status of a library result: 0 for success, else its magnitude.
int exit_status(int result);

// The result of a library call together with the errno of the last system
// error line the call made (0 for none), so that the tool's sentence can
// point to it.
struct CallResult {
    int result = 0;
    int system_error = 0;
};
template <typename Call> CallResult call_library(Call &&call);

// "zelisp-cam: <context>: <call>: <the library's sentence> (<result>)", and
// for the codes that stand for a failed system request, a pointer to the
// system error the library printed ("; the system error is in the
// library's line above"). Returns exit_status(result).
int report_failure(const std::string &context, const std::string &call, int result, int system_error = 0);
inline int report_failure(const std::string &context, const std::string &call, CallResult call_result)
{
    return report_failure(context, call, call_result.result, call_result.system_error);
}

// The same sentence with the tool's own finding on the cause: "...; <reason>".
int report_failure_because(const std::string &context, const std::string &call, int result,
                           const std::string &reason);

// "zelisp-cam: <message>" plus a pointer to --help; returns kExitUsage.
int report_usage(const std::string &message);

// "zelisp-cam: cannot write <path>: <why>"; returns kExitOutput.
int report_output_failure(const std::string &path, const std::string &why);
// Why a write failed, from errno (cleared before the writes): streams keep
// no reason of their own.
std::string write_failure_reason();

// Flushes `stream` (standard output, or the JSON document's copy of it)
// and returns `status`, or, when anything written to it was lost (a full
// disk, a reader gone while SIGPIPE is ignored), says so and returns
// kExitOutput: the run's result never reached its reader. A failure
// status of its own (a library call, the command line) is kept.
int finish_output(FILE *stream, int status);

// "zelisp-cam: warning: <message>" for what a run did not get as asked.
void report_warning(const std::string &message);

} // namespace zcam

#include "library_lines.h"

template <typename Call> zcam::CallResult zcam::call_library(Call &&call)
{
    LineWatch watch;
    CallResult outcome;
    outcome.result = call();
    outcome.system_error = watch.system_error();
    return outcome;
}

#endif
