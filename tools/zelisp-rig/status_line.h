/*
 * status_line.h - the recorder's live line on standard error: streams
 * recording, frame rate, lost frames and the skew of the frame sets. On a
 * terminal it is rewritten in place every second; into a file or a pipe it
 * is a line every ten seconds, so that logs stay readable.
 */
#ifndef ZELISP_RIG_STATUS_LINE_H
#define ZELISP_RIG_STATUS_LINE_H

#include <cstdint>
#include <string>

#include "frame_sets.h"

namespace zrig {

struct RigStatus {
    double seconds = 0; // since the first frame
    int recording = 0;  // streams delivering frames
    int streams = 0;
    double fps = 0;     // frames per second and stream, over the last second
    uint64_t lost = 0;  // frames lost, all streams
};

// "12.0 s  8/8 streams  30.0 fps  lost 0  skew p50 8 µs  p99 31 µs  max 45 µs"
std::string status_text(const RigStatus &status, const SkewTally &skews);

class StatusLine {
public:
    StatusLine();
    // Shows the status; a terminal every call, otherwise every ten seconds.
    void show(const RigStatus &status, const SkewTally &skews);
    // Before any other line on standard error, and at the end.
    void end_line();

private:
    bool terminal_;
    bool open_line_ = false;
    double last_logged_ = -1;
};

} // namespace zrig

#endif
