// frame_stats.cpp - counting frames, refusals, losses and group skew.
#include "frame_stats.h"

#include <algorithm>

namespace zcam {

void CameraStats::accept(uint32_t sequence, uint64_t timestamp_us)
{
    if (frames_ == 0) {
        first_sequence_ = sequence;
        first_timestamp_us_ = timestamp_us;
    } else if (sequence > last_sequence_ + 1) {
        uint64_t missing = uint64_t(sequence) - last_sequence_ - 1;
        uint64_t skipped = rule_.skipped_between(last_sequence_ + 1, sequence - 1);
        decimated_ += skipped;
        dropped_ += missing - skipped;
    }
    last_sequence_ = sequence;
    last_timestamp_us_ = timestamp_us;
    ++frames_;
}

double CameraStats::fps() const
{
    if (frames_ < 2 || last_timestamp_us_ <= first_timestamp_us_)
        return 0.0;
    return double(frames_ - 1) * 1e6 / double(last_timestamp_us_ - first_timestamp_us_);
}

void SetStats::add(const std::vector<uint64_t> &timestamps_us)
{
    if (timestamps_us.empty())
        return;
    auto [low, high] = std::minmax_element(timestamps_us.begin(), timestamps_us.end());
    uint64_t skew = *high - *low;
    max_skew_us_ = std::max(max_skew_us_, skew);
    total_skew_us_ += skew;
    ++sets_;
}

} // namespace zcam
