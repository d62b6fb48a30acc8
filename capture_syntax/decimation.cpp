// decimation.cpp - the drop ratio and the frames it skips.
#include "decimation.h"

#include <vector>

#include "numbers.h"

namespace capture_syntax {

bool parse_drop(const std::string &text, DropRatio *ratio)
{
    std::vector<std::string> parts = split(text, "/");
    unsigned long long total, drop;
    if (parts.size() != 2 || !parse_unsigned(parts[0], 120, &total) || !parse_unsigned(parts[1], 120, &drop) ||
        total < 1 || drop >= total)
        return false;
    ratio->total = int(total);
    ratio->drop = int(drop);
    return true;
}

bool one_frame_in_n(const DropRatio &ratio)
{
    if (ratio.drop == 0)
        return true;
    int keep = ratio.total - ratio.drop;
    return keep >= ratio.drop ? ratio.total % ratio.drop == 0 : ratio.total % keep == 0;
}

DecimationRule::DecimationRule(const DropRatio &ratio)
{
    if (ratio.drop == 0)
        return;
    int keep = ratio.total - ratio.drop;
    if (keep >= ratio.drop) {
        interval_ = uint32_t(ratio.total / ratio.drop);
    } else {
        keep_one_ = true;
        interval_ = uint32_t(ratio.total / keep);
    }
}

bool DecimationRule::skips(uint32_t sequence) const
{
    if (!active())
        return false;
    bool multiple = sequence % interval_ == 0;
    return keep_one_ ? !multiple : multiple;
}

uint64_t DecimationRule::skipped_between(uint32_t first, uint32_t last) const
{
    if (!active() || first > last)
        return 0;
    // Multiples of the interval in [first, last].
    uint64_t multiples = uint64_t(last) / interval_ - (first == 0 ? 0 : (uint64_t(first) - 1) / interval_) +
                         (first == 0 ? 1 : 0);
    uint64_t span = uint64_t(last) - first + 1;
    return keep_one_ ? span - multiples : multiples;
}

} // namespace capture_syntax
