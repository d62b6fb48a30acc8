// frame_stats.cpp - counting frames, refusals, losses and group skew.
#include "frame_stats.h"

#include <algorithm>
#include <cstdlib>

#include "library_lines.h"

namespace zcam {

namespace {

// The number after `label` in a refusal line ("...seq = 41mlast = ...").
uint32_t number_after(const std::string &text, const std::string &label)
{
    size_t at = text.find(label);
    return at == std::string::npos ? 0 : uint32_t(strtoul(text.c_str() + at + label.size(), nullptr, 10));
}

} // namespace

const LibraryLine *refusal_line(const LineWatch &watch, Refusal *why, uint32_t *sequence)
{
    // The library's words for its two checks: "<node>ERROR: buf_ts = T" +
    // "seq = S" ... for a frame too soon, "<node> ERROR: frame sequence" +
    // "cur seq = S" ... for one out of sequence.
    for (const LibraryLine &line : watch.lines()) {
        if (line.text.find("ERROR: buf_ts = ") != std::string::npos) {
            *why = Refusal::TooSoon;
            *sequence = number_after(line.text, "seq = ");
            return &line;
        }
        if (line.text.find("ERROR: frame sequence") != std::string::npos) {
            *why = Refusal::OutOfSequence;
            *sequence = number_after(line.text, "cur seq = ");
            return &line;
        }
    }
    return nullptr;
}

void CameraStats::accept(uint32_t sequence, uint64_t timestamp_us)
{
    if (frames_ == 0) {
        first_sequence_ = sequence;
        first_timestamp_us_ = timestamp_us;
    } else if (sequence > last_sequence_ + 1) {
        uint64_t missing = uint64_t(sequence) - last_sequence_ - 1;
        uint64_t skipped = rule_.skipped_between(last_sequence_ + 1, sequence - 1);
        decimated_ += skipped;
        dropped_ += missing - skipped - std::min(too_soon_since_accepted_, missing - skipped);
    }
    too_soon_since_accepted_ = 0;
    last_sequence_ = sequence;
    last_timestamp_us_ = timestamp_us;
    ++frames_;
}

bool CameraStats::refuse(Refusal why, uint32_t sequence)
{
    // The library judges every frame before --drop does, so at a rate above
    // its limit it refuses frames the decimation drops anyway; those are
    // counted with the decimated ones when the gap is closed.
    if (rule_.skips(sequence))
        return false;
    if (why == Refusal::TooSoon) {
        ++refused_too_soon_;
        ++too_soon_since_accepted_;
    } else {
        ++refused_out_of_sequence_;
    }
    return true;
}

double CameraStats::sensor_fps() const
{
    if (frames_ < 2 || last_timestamp_us_ <= first_timestamp_us_ || last_sequence_ <= first_sequence_)
        return 0.0;
    return double(last_sequence_ - first_sequence_) * 1e6 / double(last_timestamp_us_ - first_timestamp_us_);
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
