// progress_line.cpp - drawing the capture's live line on a terminal.
#include "progress_line.h"

#include <unistd.h>

#include <cstdio>

namespace zcam {

namespace {
constexpr std::chrono::milliseconds kRedrawInterval{250};
}

ProgressLine::ProgressLine() : enabled_(isatty(STDERR_FILENO) == 1) {}

bool ProgressLine::due() const
{
    return enabled_ && (!shown_ || std::chrono::steady_clock::now() - last_ >= kRedrawInterval);
}

void ProgressLine::show(const std::string &text, bool force)
{
    if (!force && !due())
        return;
    if (!enabled_)
        return;
    last_ = std::chrono::steady_clock::now();
    shown_ = true;
    // Carriage return and erase-to-end-of-line: the line redraws in place.
    fprintf(stderr, "\r\033[K%s", text.c_str());
    fflush(stderr);
}

void ProgressLine::clear()
{
    if (!enabled_ || !shown_)
        return;
    fprintf(stderr, "\r\033[K");
    fflush(stderr);
    shown_ = false;
}

} // namespace zcam
