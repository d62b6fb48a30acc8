/*
 * frame_stats.h - what a capture counts: per camera the frames accepted, the
 * frames the library refused (sequence or timing check), the frames lost on
 * the way (gaps in the sequence numbers), and for a group how far apart in
 * time the frames of one set were taken.
 */
#ifndef ZELISP_CAM_FRAME_STATS_H
#define ZELISP_CAM_FRAME_STATS_H

#include <cstdint>
#include <vector>

#include "capture_options.h"

namespace zcam {

class CameraStats {
public:
    CameraStats(int camera, DecimationRule rule) : camera_(camera), rule_(rule) {}

    // A frame the library handed over.
    void accept(uint32_t sequence, uint64_t timestamp_us);
    // A frame the library refused and gave back to the driver (-11).
    void refuse() { ++refused_; }

    int camera() const { return camera_; }
    uint64_t frames() const { return frames_; }
    uint64_t refused() const { return refused_; }
    // Sequence numbers missing between accepted frames: frames the driver
    // dropped for want of a queued buffer, or that were refused.
    uint64_t dropped() const { return dropped_; }
    // Sequence numbers skipped on purpose by --drop.
    uint64_t decimated() const { return decimated_; }
    uint32_t first_sequence() const { return first_sequence_; }
    uint32_t last_sequence() const { return last_sequence_; }
    // Accepted frames per second, from the frames' own capture times.
    double fps() const;

private:
    int camera_;
    DecimationRule rule_;
    uint64_t frames_ = 0;
    uint64_t refused_ = 0;
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
