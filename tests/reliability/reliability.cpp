#include "reliability.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

namespace zelisp_reliability {

Quiet::Quiet()
{
    fflush(stdout);
    fflush(stderr);
    saved_out_ = dup(STDOUT_FILENO);
    saved_err_ = dup(STDERR_FILENO);
    int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(null, STDOUT_FILENO);
    dup2(null, STDERR_FILENO);
    close(null);
}

Quiet::~Quiet()
{
    fflush(stdout);
    fflush(stderr);
    dup2(saved_out_, STDOUT_FILENO);
    dup2(saved_err_, STDERR_FILENO);
    close(saved_out_);
    close(saved_err_);
}

void ResetScripted()
{
    zsim::reset();
    for (int camera = 0; camera < 4; ++camera) {
        zsim::set_frame_mode(camera, zsim::FrameMode::Scripted);
        zsim::set_frame_mode(camera + zelisp::kModeTwoNodeOffset, zsim::FrameMode::Scripted);
    }
}

zsim::ScriptedFrame NextFrame(uint32_t sequence)
{
    zsim::ScriptedFrame frame;
    frame.sequence = sequence;
    frame.timestamp_us = 1000000 + uint64_t(sequence) * 33333;
    frame.reserved = sequence * 7;
    return frame;
}

std::string Describe(const zsim::LogEntry &entry, int occurrence)
{
    return entry.name + " on " + entry.path + " #" + std::to_string(occurrence);
}

} // namespace zelisp_reliability
