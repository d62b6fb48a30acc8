/*
 * frame_sets.h - lining up the frames of every stream into frame sets.
 *
 * The cameras of a rig are triggered together, so one trigger instant gives
 * one frame per camera, which the boards stamp with their synced clocks. A
 * frame set is the frames within half a frame period of the set's earliest
 * frame, one per stream at most; its skew is the spread of their times, and
 * a stream without a frame in it is missing from it. Half a period is the
 * widest window that can never take two frames of one stream.
 *
 * Frames of one stream arrive in time order, streams interleaved as the
 * network delivers them. A set is final once every open stream has a frame
 * past its window (or is closed): only final sets are handed out, so a set
 * never changes once written.
 */
#ifndef ZELISP_RIG_FRAME_SETS_H
#define ZELISP_RIG_FRAME_SETS_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

namespace zrig {

struct Frame {
    int stream = 0;
    uint64_t index = 0;  // the frame's number in its stream (and in its recording), from 0
    int64_t time_ns = 0; // on the rig's clock
};

struct FrameSet {
    uint64_t number = 0;
    int64_t time_ns = 0; // the earliest frame's time
    int64_t skew_ns = 0; // latest minus earliest
    std::vector<Frame> frames;   // by stream
    std::vector<int> missing;    // streams without a frame in the set, ascending
};

class FrameSetBuilder {
public:
    // A new stream; returns its number, from 0. Streams come as the
    // servers describe their sessions.
    int add_stream();
    int streams() const { return int(streams_.size()); }

    // A frame of `stream`; returns its index in the stream. A frame not later
    // than the stream's previous one is not taken (returns false).
    bool add(int stream, int64_t time_ns, uint64_t *index);
    // The stream brings no more frames (ended or lost).
    void close(int stream);

    // Sets that can no longer change, in time order.
    std::vector<FrameSet> take_final();
    // At the end: every frame left, in sets.
    std::vector<FrameSet> take_all();

    // The frame period the sets are built with (the shortest stream
    // period measured so far); 0 while no stream has shown one.
    int64_t period_ns() const;
    // Frames a stream lost: gaps of more than one period in its times.
    uint64_t lost_frames(int stream) const;
    uint64_t frames(int stream) const { return streams_[size_t(stream)].count; }

private:
    struct StreamFrames {
        std::deque<Frame> pending;
        std::vector<int64_t> first_intervals; // measure the period on these
        int64_t period_ns = 0;
        int64_t last_time_ns = 0;
        uint64_t count = 0;
        uint64_t lost = 0;
        bool closed = false;
    };
    void note_interval(StreamFrames *stream, int64_t interval);
    bool next_set(bool final_only, FrameSet *set);

    std::vector<StreamFrames> streams_;
    uint64_t next_number_ = 0;
};

// Skews of the sets so far, for the status line and the summary.
class SkewTally {
public:
    void add(const FrameSet &set);
    uint64_t sets() const { return sets_; }
    uint64_t complete_sets() const { return complete_; }
    // The p-th percentile (0..100) of the skews of sets with two frames or
    // more, nearest rank; 0 when there is none.
    int64_t percentile_ns(double p) const;
    int64_t max_ns() const;

private:
    std::vector<int64_t> skews_;
    uint64_t sets_ = 0;
    uint64_t complete_ = 0;
};

} // namespace zrig

#endif
