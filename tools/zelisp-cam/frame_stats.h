/*
 * frame_stats.h - what a capture counts: per camera the frames accepted, the
 * frames the library refused (timing or sequence check), the frames lost on
 * the way (gaps in the sequence numbers), and for a group how far apart in
 * time the frames of one set were taken.
 */
#ifndef ZELISP_CAM_FRAME_STATS_H
#define ZELISP_CAM_FRAME_STATS_H

#include <cstdint>
#include <string>
#include <vector>

#include "capture_options.h"

namespace zcam {

// Why the library refused a frame (and gave it back to the driver, -11).
enum class Refusal {
    TooSoon,       // less than 12 ms after the last accepted frame
    OutOfSequence, // its sequence number does not exceed the last accepted one
};

class LineWatch;
struct LibraryLine;

// The refusal a frame getter's -11 stands for, read from the line the
// library printed with it: why, and the refused frame's sequence number.
// nullptr when the lines hold none (then the dequeue itself failed).
const LibraryLine *refusal_line(const LineWatch &watch, Refusal *why, uint32_t *sequence);

class CameraStats {
public:
    CameraStats(int camera, DecimationRule rule) : camera_(camera), rule_(rule) {}

    // A frame the library handed over.
    void accept(uint32_t sequence, uint64_t timestamp_us);
    // A frame the library refused. False when --drop would have skipped it
    // anyway: then nothing is lost, and it counts as decimated.
    bool refuse(Refusal why, uint32_t sequence);

    int camera() const { return camera_; }
    uint64_t frames() const { return frames_; }
    uint64_t refused() const { return refused_too_soon_ + refused_out_of_sequence_; }
    uint64_t refused_too_soon() const { return refused_too_soon_; }
    uint64_t refused_out_of_sequence() const { return refused_out_of_sequence_; }
    // Sequence numbers missing between accepted frames that were neither
    // refused nor decimated: frames the driver dropped for want of a queued
    // buffer.
    uint64_t dropped() const { return dropped_; }
    // Sequence numbers skipped on purpose by --drop.
    uint64_t decimated() const { return decimated_; }
    uint32_t first_sequence() const { return first_sequence_; }
    uint32_t last_sequence() const { return last_sequence_; }
    // Accepted frames per second, from the frames' own capture times.
    double fps() const;
    // The sensor's frames per second: sequence numbers advanced per second
    // of capture time between the first and the last accepted frame.
    double sensor_fps() const;

private:
    int camera_;
    DecimationRule rule_;
    uint64_t frames_ = 0;
    uint64_t refused_too_soon_ = 0;
    uint64_t refused_out_of_sequence_ = 0;
    uint64_t too_soon_since_accepted_ = 0; // refused frames inside the next sequence gap
    uint64_t dropped_ = 0;
    uint64_t decimated_ = 0;
    uint32_t first_sequence_ = 0;
    uint32_t last_sequence_ = 0;
    uint64_t first_timestamp_us_ = 0;
    uint64_t last_timestamp_us_ = 0;
};

// Frame sets of a group: the spread of the members' capture times in each.
class SetStats {
public:
    void add(const std::vector<uint64_t> &timestamps_us);
    // A set read that failed at a later member and was given back.
    void incomplete() { ++incomplete_; }

    uint64_t sets() const { return sets_; }
    uint64_t incomplete_sets() const { return incomplete_; }
    uint64_t max_skew_us() const { return max_skew_us_; }
    double mean_skew_us() const { return sets_ ? double(total_skew_us_) / double(sets_) : 0.0; }

private:
    uint64_t sets_ = 0;
    uint64_t incomplete_ = 0;
    uint64_t max_skew_us_ = 0;
    uint64_t total_skew_us_ = 0;
};

} // namespace zcam

#endif
