// tool_errors.cpp - failure sentences and exit statuses of zelisp-cam.
#include "tool_errors.h"

#include <cstdio>

#include "zelisp.h"

namespace zcam {

int exit_status(int result)
{
    return result < 0 ? -result : kExitOk;
}

int report_failure(const std::string &context, int result)
{
    // The library prints its own device lines on standard output; flush them
    // first so that our sentence comes after the lines it explains.
    fflush(stdout);
    fprintf(stderr, "zelisp-cam: %s: %s (%d)\n", context.c_str(), isp_get_result_text(result), result);
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

} // namespace zcam
