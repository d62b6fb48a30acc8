/*
 * decimation.h - the ISP's frame decimation: T/D drops D frames out of
 * every T (isp_set_frame_drop_num), and the sequence numbers that rule
 * skips on purpose, so that a reader does not count them as lost.
 */
#ifndef ZELISP_CAPTURE_SYNTAX_DECIMATION_H
#define ZELISP_CAPTURE_SYNTAX_DECIMATION_H

#include <cstdint>
#include <string>

namespace capture_syntax {

struct DropRatio {
    int total = 30; // 30/0: decimation off
    int drop = 0;
};

// T/D with 1 <= T <= 120 and 0 <= D < T; false (ratio untouched) otherwise.
bool parse_drop(const std::string &text, DropRatio *ratio);

// Whether the library can decimate by the ratio: it knows two rules only,
// drop one frame in N (at most half dropped: T a multiple of D) and keep
// one in N (more dropped: T a multiple of T - D), and refuses other ratios
// (30/7) with -15. Decimation off (D = 0) is always possible.
bool one_frame_in_n(const DropRatio &ratio);

// Which sequence numbers the library's decimation hands back for a ratio:
// the same rule isp_get_expected_frame applies.
class DecimationRule {
public:
    DecimationRule() = default;
    explicit DecimationRule(const DropRatio &ratio);
    bool active() const { return interval_ != 0; }
    // Whether the rule skips the frame of this sequence number.
    bool skips(uint32_t sequence) const;
    // How many sequence numbers in [first, last] the rule skips.
    uint64_t skipped_between(uint32_t first, uint32_t last) const;

private:
    bool keep_one_ = false; // keep one in `interval_`; otherwise drop one in `interval_`
    uint32_t interval_ = 0;
};

} // namespace capture_syntax

#endif
