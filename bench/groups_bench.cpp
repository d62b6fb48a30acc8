/*
 * groups_bench.cpp - eight simulated cameras read as frame sets through a
 * group, free-running and with the internal trigger mode: sets per second,
 * the time from the newest capture in a set to the set's delivery, and the
 * skew between the oldest and newest capture of a set.
 *
 * 60 fps keeps every frame clear of the library's 12 ms floor, so a set is
 * never broken by a refused frame.
 */
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "bench_support.h"

namespace {

using namespace zelisp_bench;

constexpr int kMembers = 8;
constexpr uint32_t kFps = 60;
constexpr uint32_t kCombination = 1;
constexpr uint32_t kBuffers = 4;
constexpr int kTimeoutMs = 1000;
constexpr double kWarmUpSeconds = 1.0;

double Seconds()
{
    const char *text = getenv("ZELISP_BENCH_SECONDS");
    double seconds = text ? atof(text) : 10.0;
    return seconds > 0 ? seconds : 10.0;
}

double Percentile(std::vector<double> values, double fraction)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    size_t at = size_t(fraction * double(values.size() - 1) + 0.5);
    return values[at];
}

unsigned long StartGroup(bool trigger)
{
    int members[kMembers];
    for (int i = 0; i < kMembers; ++i)
        members[i] = i;
    unsigned long group = 0;
    int result = isp_create_video_group(&group, 0, "bench", members, kMembers);
    if (result != 0)
        Fail("isp_create_video_group", result);
    int open_results[kMembers] = {};
    if ((result = isp_group_open_video(group, 1, open_results)) != 0)
        Fail("isp_group_open_video", result);
    if ((result = isp_group_init_video(group, kCombination, kBuffers)) != 0)
        Fail("isp_group_init_video", result);
    if (trigger)
        isp_group_set_internal_trigger(group, 0, 0, 0);
    if ((result = isp_group_start_captrue(group)) != 0)
        Fail("isp_group_start_captrue", result);
    return group;
}

// A set that failed at a later member leaves the earlier members' frames
// with the caller; they go back one by one.
void ReturnPartialSet(unsigned long group, zelvideo::_isp_buf_t *frames)
{
    for (int i = 0; i < kMembers; ++i) {
        unsigned long camera = 0;
        if (frames[i].views[0].addr != nullptr && isp_group_get_camera_handle(group, i, &camera) == 0)
            isp_put_frame_buf(camera, &frames[i]);
    }
}

struct SetStats {
    std::vector<double> latency_us, skew_us, call_us;
    uint64_t failures = 0;
};

// Reads frame sets for `seconds`, giving each back at once.
void ReadSets(unsigned long group, double seconds, SetStats *stats)
{
    const uint64_t end = MonotonicNs() + uint64_t(seconds * 1e9);
    zelvideo::_isp_buf_t frames[kMembers];
    while (MonotonicNs() < end) {
        memset(frames, 0, sizeof(frames));
        uint64_t called = MonotonicNs();
        int result = zelvideo::isp_group_get_sync_frame(group, frames, kMembers, kTimeoutMs);
        uint64_t delivered = MonotonicNs();
        if (result != 0) {
            ++stats->failures;
            ReturnPartialSet(group, frames);
            continue;
        }
        uint64_t oldest = UINT64_MAX, newest = 0;
        for (const auto &frame : frames) {
            oldest = std::min<uint64_t>(oldest, frame.views[0].timestamp);
            newest = std::max<uint64_t>(newest, frame.views[0].timestamp);
        }
        stats->latency_us.push_back(double(delivered / 1000) - double(newest));
        stats->skew_us.push_back(double(newest - oldest));
        stats->call_us.push_back(double(delivered - called) / 1e3);
        if (zelvideo::isp_group_put_frame(group, frames, kMembers) != 0)
            ++stats->failures;
    }
}

void BM_GroupSets(benchmark::State &state)
{
    const bool trigger = state.range(0) != 0;
    const double seconds = Seconds();
    for (auto _ : state) {
        ResetSimulator();
        for (int c = 0; c < kMembers; ++c)
            ConfigureCamera(c, kFps);
        unsigned long group = StartGroup(trigger);

        QuietStdout quiet;
        // Warm-up: every buffer's first fill paints its whole background in
        // the simulated sensor; the steady state starts after that.
        SetStats warm_up;
        ReadSets(group, kWarmUpSeconds, &warm_up);

        uint64_t dropped = 0;
        for (int c = 0; c < kMembers; ++c)
            dropped -= zsim::counters(c).dropped;
        SetStats stats;
        uint64_t start = MonotonicNs();
        uint64_t thread_cpu = ThreadCpuNs();
        ReadSets(group, seconds, &stats);
        double wall = double(MonotonicNs() - start) / 1e9;
        thread_cpu = ThreadCpuNs() - thread_cpu;
        for (int c = 0; c < kMembers; ++c)
            dropped += zsim::counters(c).dropped;
        isp_group_stop_captrue(group);
        isp_group_close_video(group);
        isp_destroy_video_group(group);

        state.counters["sets_per_second"] = double(stats.latency_us.size()) / wall;
        state.counters["failed_sets"] = double(stats.failures);
        state.counters["dropped"] = double(dropped);
        state.counters["latency_us_p50"] = Percentile(stats.latency_us, 0.5);
        state.counters["latency_us_p99"] = Percentile(stats.latency_us, 0.99);
        state.counters["call_us_p50"] = Percentile(stats.call_us, 0.5);
        state.counters["skew_us_p50"] = Percentile(stats.skew_us, 0.5);
        state.counters["skew_us_max"] = Percentile(stats.skew_us, 1.0);
        state.counters["loop_cpu_percent"] = 100.0 * double(thread_cpu) / 1e9 / wall;
    }
}
BENCHMARK(BM_GroupSets)->ArgName("trigger")->Arg(0)->Arg(1)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
