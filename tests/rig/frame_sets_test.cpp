// frame_sets_test.cpp - how zelisp-rig lines up frames of several streams
// into frame sets: the window of half a frame period, when a set is final,
// missing and late streams, lost frames, and the skew percentiles.
#include <gtest/gtest.h>

#include "frame_sets.h"

namespace {

using zrig::FrameSet;
using zrig::FrameSetBuilder;

constexpr int64_t kMs = 1000000;
constexpr int64_t kPeriod = 33333333; // 30 fps

// Frames at t0 + k * period + offset, k = first..last, of one stream.
void add_frames(FrameSetBuilder *builder, int stream, int first, int last, int64_t offset)
{
    for (int k = first; k <= last; ++k) {
        uint64_t index = 0;
        ASSERT_TRUE(builder->add(stream, 1000 * kMs + k * kPeriod + offset, &index));
    }
}

TEST(FrameSets, FramesOfOneInstantFormOneSetWithTheirSpreadAsSkew)
{
    FrameSetBuilder builder;
    ASSERT_EQ(builder.add_stream(), 0);
    ASSERT_EQ(builder.add_stream(), 1);
    ASSERT_EQ(builder.add_stream(), 2);
    // Stream 1 a quarter millisecond late, stream 2 a whole 15 ms late:
    // still within half a period of the earliest frame.
    add_frames(&builder, 0, 0, 20, 0);
    add_frames(&builder, 1, 0, 20, kMs / 4);
    add_frames(&builder, 2, 0, 20, 15 * kMs);
    EXPECT_EQ(builder.period_ns(), kPeriod);
    // Every stream has a frame in the last set too, so it is final as well.
    std::vector<FrameSet> sets = builder.take_final();
    ASSERT_EQ(sets.size(), 21u);
    for (size_t k = 0; k < sets.size(); ++k) {
        EXPECT_EQ(sets[k].number, k);
        EXPECT_EQ(sets[k].time_ns, 1000 * kMs + int64_t(k) * kPeriod);
        EXPECT_EQ(sets[k].skew_ns, 15 * kMs);
        ASSERT_EQ(sets[k].frames.size(), 3u);
        EXPECT_TRUE(sets[k].missing.empty());
        for (int stream = 0; stream < 3; ++stream) {
            EXPECT_EQ(sets[k].frames[size_t(stream)].stream, stream);
            EXPECT_EQ(sets[k].frames[size_t(stream)].index, k);
        }
    }
}

TEST(FrameSets, ASetIsFinalOnlyOnceEveryOpenStreamHasMovedPastIt)
{
    FrameSetBuilder builder;
    builder.add_stream();
    builder.add_stream();
    add_frames(&builder, 0, 0, 20, 0);
    add_frames(&builder, 1, 0, 9, 2 * kMs);
    // Stream 1 is behind: sets up to its latest frame are final, the rest
    // wait for it.
    std::vector<FrameSet> sets = builder.take_final();
    ASSERT_EQ(sets.size(), 10u);
    EXPECT_TRUE(sets.back().missing.empty());
    EXPECT_TRUE(builder.take_final().empty());
    // It catches up: the waiting sets are whole.
    add_frames(&builder, 1, 10, 20, 2 * kMs);
    sets = builder.take_final();
    ASSERT_EQ(sets.size(), 11u);
    EXPECT_EQ(sets.front().number, 10u);
    for (const FrameSet &set : sets)
        EXPECT_EQ(set.frames.size(), 2u);
}

TEST(FrameSets, AClosedStreamNoLongerHoldsSetsBackAndIsListedMissing)
{
    FrameSetBuilder builder;
    builder.add_stream();
    builder.add_stream();
    add_frames(&builder, 0, 0, 30, 0);
    add_frames(&builder, 1, 0, 14, 0);
    ASSERT_EQ(builder.take_final().size(), 15u);
    builder.close(1); // its board was switched off
    std::vector<FrameSet> sets = builder.take_final();
    ASSERT_EQ(sets.size(), 16u);
    for (const FrameSet &set : sets) {
        ASSERT_EQ(set.frames.size(), 1u);
        EXPECT_EQ(set.frames[0].stream, 0);
        EXPECT_EQ(set.missing, std::vector<int>{1});
        EXPECT_EQ(set.skew_ns, 0);
    }
}

TEST(FrameSets, AStreamThatHasNotStartedHoldsSetsBackUntilItStartsOrCloses)
{
    FrameSetBuilder builder;
    builder.add_stream();
    builder.add_stream();
    add_frames(&builder, 0, 0, 20, 0);
    EXPECT_TRUE(builder.take_final().empty());
    // It starts three frames late: the sets before are without it.
    add_frames(&builder, 1, 3, 20, 0);
    std::vector<FrameSet> sets = builder.take_final();
    ASSERT_EQ(sets.size(), 21u);
    for (int k = 0; k < 3; ++k)
        EXPECT_EQ(sets[size_t(k)].missing, std::vector<int>{1});
    EXPECT_TRUE(sets[3].missing.empty());
    EXPECT_EQ(sets[3].frames[1].index, 0u) << "the stream's own frame numbers count from its first frame";
}

TEST(FrameSets, FramesHalfAPeriodApartAreNotOneInstant)
{
    FrameSetBuilder builder;
    builder.add_stream();
    builder.add_stream();
    // Stream 1 runs exactly half a period after stream 0: each of its
    // frames is as near to the next set as to its own, so it starts a set
    // of its own, never a set with two frames of one stream.
    add_frames(&builder, 0, 0, 20, 0);
    add_frames(&builder, 1, 0, 20, kPeriod / 2);
    std::vector<FrameSet> sets = builder.take_all();
    ASSERT_EQ(sets.size(), 42u);
    for (const FrameSet &set : sets) {
        EXPECT_EQ(set.frames.size(), 1u);
        EXPECT_EQ(set.missing.size(), 1u);
    }
}

TEST(FrameSets, GapsInAStreamCountAsLostFramesOnceItsPeriodIsKnown)
{
    FrameSetBuilder builder;
    builder.add_stream();
    // A gap of 3 frames early (among the intervals the period is measured
    // on) and one of 2 later.
    add_frames(&builder, 0, 0, 5, 0);
    add_frames(&builder, 0, 9, 40, 0);
    EXPECT_EQ(builder.lost_frames(0), 3u);
    add_frames(&builder, 0, 43, 50, 0);
    EXPECT_EQ(builder.lost_frames(0), 5u);
    EXPECT_EQ(builder.frames(0), 6u + 32u + 8u);
    // A frame not after the previous one is not taken.
    uint64_t index = 0;
    EXPECT_FALSE(builder.add(0, 1000 * kMs + 50 * kPeriod, &index));
    EXPECT_EQ(builder.frames(0), 46u);
}

TEST(FrameSets, WithoutAPeriodOnlyFramesOfTheSameInstantAreTogether)
{
    FrameSetBuilder builder;
    builder.add_stream();
    builder.add_stream();
    uint64_t index = 0;
    builder.add(0, 100, &index);
    builder.add(1, 100, &index);
    builder.add(1, 200, &index);
    EXPECT_TRUE(builder.take_final().empty()) << "no period known yet";
    std::vector<FrameSet> sets = builder.take_all();
    ASSERT_EQ(sets.size(), 2u);
    EXPECT_EQ(sets[0].frames.size(), 2u);
    EXPECT_EQ(sets[1].missing, std::vector<int>{0});
}

TEST(FrameSets, SkewTallyGivesNearestRankPercentilesOfSetsWithTwoFramesOrMore)
{
    zrig::SkewTally tally;
    FrameSet single;
    single.frames.resize(1);
    single.missing = {1};
    single.skew_ns = 0;
    tally.add(single);
    for (int64_t skew = 1; skew <= 100; ++skew) {
        FrameSet set;
        set.frames.resize(2);
        set.skew_ns = skew * 1000;
        tally.add(set);
    }
    EXPECT_EQ(tally.sets(), 101u);
    EXPECT_EQ(tally.complete_sets(), 100u);
    EXPECT_EQ(tally.percentile_ns(50), 50000);
    EXPECT_EQ(tally.percentile_ns(99), 99000);
    EXPECT_EQ(tally.percentile_ns(100), 100000);
    EXPECT_EQ(tally.max_ns(), 100000);
    EXPECT_EQ(zrig::SkewTally().percentile_ns(99), 0);
}

} // namespace
