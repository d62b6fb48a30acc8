/*
 * framesets_csv.h - framesets.csv: one row per frame, every frame of every
 * stream on the rig's time line, grouped into numbered frame sets.
 *
 *   set,set_time_ns,skew_us,missing,stream,frame,time_ns,offset_us
 *
 * set_time_ns is the set's earliest frame time on the rig's clock
 * (nanoseconds since the clock's epoch), skew_us the spread of the set,
 * missing the streams without a frame in the set (separated by blanks),
 * frame the frame's number in its stream's recording, from 0, and
 * offset_us its time after the set's earliest frame.
 */
#ifndef ZELISP_RIG_FRAMESETS_CSV_H
#define ZELISP_RIG_FRAMESETS_CSV_H

#include <cstdio>
#include <string>
#include <vector>

#include "frame_sets.h"

namespace zrig {

class FramesetsCsv {
public:
    ~FramesetsCsv();
    // Creates the file with its header; false with errno set when it cannot.
    bool open(const std::string &path);
    // `names` holds each stream's name by its number.
    bool write(const FrameSet &set, const std::vector<std::string> &names);
    bool close();

private:
    FILE *file_ = nullptr;
    bool good_ = true;
};

} // namespace zrig

#endif
