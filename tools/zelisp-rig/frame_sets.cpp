/*
 * frame_sets.cpp - frame sets, lost frames and the skew tally.
 */
#include "frame_sets.h"

#include <algorithm>
#include <cmath>

namespace zrig {
namespace {

// Intervals a stream's period is measured on: enough for a median that a
// few late or lost frames do not move.
constexpr size_t kPeriodIntervals = 15;

uint64_t frames_lost_in(int64_t interval, int64_t period)
{
    if (period <= 0 || interval * 2 <= period * 3)
        return 0;
    return uint64_t(std::llround(double(interval) / double(period))) - 1;
}

} // namespace

int FrameSetBuilder::add_stream()
{
    streams_.emplace_back();
    return int(streams_.size()) - 1;
}

bool FrameSetBuilder::add(int stream, int64_t time_ns, uint64_t *index)
{
    StreamFrames &frames = streams_[size_t(stream)];
    if (frames.count > 0 && time_ns <= frames.last_time_ns)
        return false;
    if (frames.count > 0)
        note_interval(&frames, time_ns - frames.last_time_ns);
    *index = frames.count++;
    frames.last_time_ns = time_ns;
    frames.pending.push_back({stream, *index, time_ns});
    return true;
}

// The period is the median of the first intervals; the gaps among them
// are counted once it is known, later ones as they come.
void FrameSetBuilder::note_interval(StreamFrames *stream, int64_t interval)
{
    if (stream->period_ns > 0) {
        stream->lost += frames_lost_in(interval, stream->period_ns);
        return;
    }
    stream->first_intervals.push_back(interval);
    if (stream->first_intervals.size() < kPeriodIntervals)
        return;
    std::vector<int64_t> sorted = stream->first_intervals;
    std::nth_element(sorted.begin(), sorted.begin() + long(sorted.size() / 2), sorted.end());
    stream->period_ns = sorted[sorted.size() / 2];
    for (int64_t earlier : stream->first_intervals)
        stream->lost += frames_lost_in(earlier, stream->period_ns);
    stream->first_intervals.clear();
}

void FrameSetBuilder::close(int stream)
{
    streams_[size_t(stream)].closed = true;
}

int64_t FrameSetBuilder::period_ns() const
{
    int64_t shortest = 0;
    for (const StreamFrames &stream : streams_)
        if (stream.period_ns > 0 && (shortest == 0 || stream.period_ns < shortest))
            shortest = stream.period_ns;
    return shortest;
}

uint64_t FrameSetBuilder::lost_frames(int stream) const
{
    return streams_[size_t(stream)].lost;
}

bool FrameSetBuilder::next_set(bool final_only, FrameSet *set)
{
    bool any = false;
    int64_t first = 0;
    for (const StreamFrames &stream : streams_) {
        if (!stream.pending.empty() && (!any || stream.pending.front().time_ns < first)) {
            first = stream.pending.front().time_ns;
            any = true;
        }
    }
    if (!any)
        return false;
    int64_t period = period_ns();
    if (final_only && period == 0)
        return false;
    // Without a period (fewer than a few frames in every stream), only
    // frames of the same instant belong together.
    int64_t limit = first + (period > 0 ? period / 2 : 1);
    if (final_only) {
        // An open stream whose latest frame is inside the window may still
        // bring the frame that belongs in it.
        for (const StreamFrames &stream : streams_)
            if (!stream.closed && stream.pending.empty() && (stream.count == 0 || stream.last_time_ns < limit))
                return false;
    }
    set->number = next_number_++;
    set->time_ns = first;
    set->frames.clear();
    set->missing.clear();
    int64_t last = first;
    for (size_t i = 0; i < streams_.size(); ++i) {
        std::deque<Frame> &pending = streams_[i].pending;
        if (!pending.empty() && pending.front().time_ns < limit) {
            set->frames.push_back(pending.front());
            last = std::max(last, pending.front().time_ns);
            pending.pop_front();
        } else {
            set->missing.push_back(int(i));
        }
    }
    set->skew_ns = last - first;
    return true;
}

std::vector<FrameSet> FrameSetBuilder::take_final()
{
    std::vector<FrameSet> sets;
    FrameSet set;
    while (next_set(true, &set))
        sets.push_back(set);
    return sets;
}

std::vector<FrameSet> FrameSetBuilder::take_all()
{
    std::vector<FrameSet> sets;
    FrameSet set;
    while (next_set(false, &set))
        sets.push_back(set);
    return sets;
}

void SkewTally::add(const FrameSet &set)
{
    ++sets_;
    if (set.missing.empty())
        ++complete_;
    if (set.frames.size() >= 2)
        skews_.push_back(set.skew_ns);
}

int64_t SkewTally::percentile_ns(double p) const
{
    if (skews_.empty())
        return 0;
    std::vector<int64_t> sorted = skews_;
    size_t rank = size_t(std::ceil(p / 100.0 * double(sorted.size())));
    size_t at = rank == 0 ? 0 : rank - 1;
    std::nth_element(sorted.begin(), sorted.begin() + long(at), sorted.end());
    return sorted[at];
}

int64_t SkewTally::max_ns() const
{
    return skews_.empty() ? 0 : *std::max_element(skews_.begin(), skews_.end());
}

} // namespace zrig
