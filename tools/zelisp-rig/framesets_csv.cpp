/*
 * framesets_csv.cpp - writing framesets.csv.
 */
#include "framesets_csv.h"

#include <cinttypes>

namespace zrig {

FramesetsCsv::~FramesetsCsv()
{
    close();
}

bool FramesetsCsv::open(const std::string &path)
{
    file_ = std::fopen(path.c_str(), "w");
    good_ = file_ && std::fputs("set,set_time_ns,skew_us,missing,stream,frame,time_ns,offset_us\n", file_) >= 0;
    return good_;
}

bool FramesetsCsv::write(const FrameSet &set, const std::vector<std::string> &names)
{
    if (!file_)
        return false;
    std::string missing;
    for (int stream : set.missing)
        missing += (missing.empty() ? "" : " ") + names[size_t(stream)];
    for (const Frame &frame : set.frames) {
        if (std::fprintf(file_, "%" PRIu64 ",%" PRId64 ",%.3f,%s,%s,%" PRIu64 ",%" PRId64 ",%.3f\n", set.number,
                         set.time_ns, double(set.skew_ns) / 1e3, missing.c_str(), names[size_t(frame.stream)].c_str(),
                         frame.index, frame.time_ns, double(frame.time_ns - set.time_ns) / 1e3) < 0)
            good_ = false;
    }
    return good_;
}

bool FramesetsCsv::close()
{
    if (file_ && std::fclose(file_) != 0)
        good_ = false;
    file_ = nullptr;
    return good_;
}

} // namespace zrig
