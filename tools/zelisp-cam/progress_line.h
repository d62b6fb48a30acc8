/*
 * progress_line.h - the live line a capture shows on a terminal: time, and
 * per camera the frames and rate, then the refused and dropped totals. It is
 * drawn on standard error and only when that is a terminal, so that logs
 * and pipes get the summary alone.
 */
#ifndef ZELISP_CAM_PROGRESS_LINE_H
#define ZELISP_CAM_PROGRESS_LINE_H

#include <chrono>
#include <string>

namespace zcam {

class ProgressLine {
public:
    ProgressLine();
    // Whether show() would draw now: callers on the frame path ask first,
    // so the text is only built when it is going to be drawn.
    bool due() const;
    // Redraws the line, at most a few times a second unless forced.
    void show(const std::string &text, bool force = false);
    // Erases the line before other output.
    void clear();

private:
    bool enabled_;
    bool shown_ = false;
    std::chrono::steady_clock::time_point last_;
};

} // namespace zcam

#endif
