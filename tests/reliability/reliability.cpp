#include "reliability.h"

namespace zelisp_reliability {

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
