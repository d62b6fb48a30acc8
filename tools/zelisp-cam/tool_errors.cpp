// tool_errors.cpp - failure sentences and exit statuses of zelisp-cam.
#include "tool_errors.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "zelisp.h"

namespace zcam {
namespace {

// The codes whose failure is a system request the library made and then
// explained with perror; for the others errno means nothing.
bool is_system_failure(int result)
{
    switch (result) {
    case ISP_ERR_SELECT:
    case ISP_ERR_OPEN:
    case ISP_ERR_CLOSE:
    case ISP_ERR_REQUEST:
    case ISP_ERR_MAP:
        return true;
    default:
        return false;
    }
}

} // namespace

int exit_status(int result)
{
    return result < 0 ? -result : kExitOk;
}

int report_failure(const std::string &context, const std::string &call, int result, int system_error)
{
    fflush(stdout);
    std::string sentence = "zelisp-cam: " + context + ": " + call + ": " + isp_get_result_text(result) + " (" +
                           std::to_string(result) + ")";
    if (system_error != 0 && is_system_failure(result))
        sentence += "; the system error is in the library's line above";
    fprintf(stderr, "%s\n", sentence.c_str());
    return exit_status(result);
}

int report_failure_because(const std::string &context, const std::string &call, int result,
                           const std::string &reason)
{
    fflush(stdout);
    fprintf(stderr, "zelisp-cam: %s: %s: %s (%d); %s\n", context.c_str(), call.c_str(), isp_get_result_text(result),
            result, reason.c_str());
    return exit_status(result);
}

int report_usage(const std::string &message)
{
    fprintf(stderr, "zelisp-cam: %s\nRun with --help for more information.\n", message.c_str());
    return kExitUsage;
}

int report_output_failure(const std::string &path, const std::string &why)
{
    fflush(stdout);
    fprintf(stderr, "zelisp-cam: cannot write %s: %s\n", path.c_str(), why.c_str());
    return kExitOutput;
}

std::string write_failure_reason() { return errno != 0 ? strerror(errno) : "a write failed"; }

int finish_output(FILE *stream, int status)
{
    errno = 0;
    if (fflush(stream) == 0 && !ferror(stream))
        return status;
    // An earlier write may have failed with nothing left to flush now.
    int output_status = report_output_failure("standard output", write_failure_reason());
    const bool ran = status == kExitOk || (status >= kExitTriggerRefused && status <= kExitFramesRefused);
    return ran ? output_status : status;
}

void report_warning(const std::string &message)
{
    fflush(stdout);
    fprintf(stderr, "zelisp-cam: warning: %s\n", message.c_str());
}

} // namespace zcam
