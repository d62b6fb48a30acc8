/*
 * status_line.cpp - the recorder's status line.
 */
#include "status_line.h"

#include <unistd.h>

#include <cstdio>

namespace zrig {
namespace {

constexpr double kLogEverySeconds = 10;

std::string microseconds(int64_t ns)
{
    char text[32];
    if (ns < 10000000)
        std::snprintf(text, sizeof text, "%lld µs", static_cast<long long>(ns / 1000));
    else
        std::snprintf(text, sizeof text, "%.1f ms", double(ns) / 1e6);
    return text;
}

} // namespace

std::string status_text(const RigStatus &status, const SkewTally &skews)
{
    char head[128];
    std::snprintf(head, sizeof head, "%.1f s  %d/%d streams  %.1f fps  lost %llu", status.seconds, status.recording,
                  status.streams, status.fps, static_cast<unsigned long long>(status.lost));
    std::string text = head;
    if (skews.sets() == 0)
        return text + "  no frame set yet";
    return text + "  skew p50 " + microseconds(skews.percentile_ns(50)) + "  p99 " +
           microseconds(skews.percentile_ns(99)) + "  max " + microseconds(skews.max_ns());
}

StatusLine::StatusLine() : terminal_(isatty(STDERR_FILENO) == 1) {}

void StatusLine::show(const RigStatus &status, const SkewTally &skews)
{
    if (terminal_) {
        std::fprintf(stderr, "\rzelisp-rig: %s\033[K", status_text(status, skews).c_str());
        open_line_ = true;
    } else if (last_logged_ < 0 || status.seconds - last_logged_ >= kLogEverySeconds) {
        std::fprintf(stderr, "zelisp-rig: %s\n", status_text(status, skews).c_str());
        last_logged_ = status.seconds;
    }
    std::fflush(stderr);
}

void StatusLine::end_line()
{
    if (open_line_)
        std::fputc('\n', stderr);
    open_line_ = false;
}

} // namespace zrig
