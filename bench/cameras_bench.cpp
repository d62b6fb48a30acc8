/*
 * cameras_bench.cpp - twelve simulated cameras at 120 fps, 1080p, read on
 * one thread with isp_camera_wait_for_data and get/put for a fixed time:
 * frames the driver produced, dequeued and dropped, frames the library
 * accepted or refused, and the CPU the loop takes.
 *
 * A wait covers at most 8 cameras, so the twelve are read as two sets of
 * six: each round blocks briefly on one set and polls the other, taking
 * turns, so neither set waits more than one short block.
 */
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>

#include "bench_support.h"

namespace {

using namespace zelisp_bench;

constexpr int kCameras = 12;
constexpr int kSetSize = 6;
constexpr uint32_t kFps = 120;
constexpr uint32_t kCombination = 1; // view 0 only: one 1920x1080 NV12 plane
constexpr int kBuffers = 4;
constexpr long kBlockUs = 2000;
constexpr double kWarmUpSeconds = 1.0;

double Seconds()
{
    const char *text = getenv("ZELISP_BENCH_SECONDS");
    double seconds = text ? atof(text) : 10.0;
    return seconds > 0 ? seconds : 10.0;
}

struct Tally {
    uint64_t max_age_us = 0; // capture to dequeue, worst frame
    uint64_t accepted = 0;
    uint64_t refused = 0;
    uint64_t other_failures = 0;
    uint64_t waits = 0;
};

// Takes one frame from each ready camera of the set and gives it back.
void Drain(const unsigned long *handles, const int *ready, Tally *tally)
{
    for (int i = 0; i < kSetSize; ++i) {
        if (!ready[i])
            continue;
        zelvideo::_isp_buf_t frame;
        int result = isp_get_frame_buf(handles[i], &frame, 0);
        if (result == 0) {
            ++tally->accepted;
            uint64_t age_us = MonotonicNs() / 1000 - frame.views[0].timestamp;
            tally->max_age_us = std::max(tally->max_age_us, age_us);
            if (isp_put_frame_buf(handles[i], &frame) != 0)
                ++tally->other_failures;
        } else if (result == ISP_ERR_REQUEST) {
            ++tally->refused; // queued again by the library
        } else if (result != ISP_ERR_NOT_READY) {
            ++tally->other_failures;
        }
    }
}

void WaitAndDrain(const unsigned long *handles, long block_us, Tally *tally)
{
    int ready[kSetSize] = {};
    timeval timeout{0, block_us};
    ++tally->waits;
    if (isp_camera_wait_for_data(handles, ready, kSetSize, &timeout) > 0)
        Drain(handles, ready, tally);
}

// Serves the twelve cameras for `seconds`; returns the longest round.
uint64_t Serve(const unsigned long *handles, double seconds, Tally *tally)
{
    uint64_t longest_round_ns = 0;
    uint64_t round_start = MonotonicNs();
    const uint64_t end = round_start + uint64_t(seconds * 1e9);
    for (int turn = 0; round_start < end; turn ^= 1) {
        const unsigned long *blocking = handles + turn * kSetSize;
        const unsigned long *polled = handles + (turn ^ 1) * kSetSize;
        WaitAndDrain(blocking, kBlockUs, tally);
        WaitAndDrain(polled, 0, tally);
        uint64_t now = MonotonicNs();
        longest_round_ns = std::max(longest_round_ns, now - round_start);
        round_start = now;
    }
    return longest_round_ns;
}

void BM_TwelveCameras(benchmark::State &state)
{
    const double seconds = Seconds();
    for (auto _ : state) {
        ResetSimulator();
        unsigned long handles[kCameras];
        for (int c = 0; c < kCameras; ++c)
            ConfigureCamera(c, kFps);
        // Every camera is set up before any starts, as an application
        // bringing up a rig would: a stream started while the next camera is
        // still being set up has nobody reading it.
        for (int c = 0; c < kCameras; ++c)
            handles[c] = SetUpCamera(c, kCombination, kBuffers);
        for (int c = 0; c < kCameras; ++c)
            StartCapture(handles[c]);

        // One line per refused frame goes to standard output.
        QuietStdout quiet;
        // The first second is served but left out of the steady-state
        // figures; its drops are counted with the rest from the first frame.
        Tally warm_up;
        Serve(handles, kWarmUpSeconds, &warm_up);

        zsim::Counters before[kCameras];
        for (int c = 0; c < kCameras; ++c)
            before[c] = zsim::counters(c);
        Tally tally;
        uint64_t start = MonotonicNs();
        uint64_t thread_cpu = ThreadCpuNs();
        uint64_t process_cpu = ProcessCpuNs();
        uint64_t longest_round_ns = Serve(handles, seconds, &tally);
        double wall = double(MonotonicNs() - start) / 1e9;
        thread_cpu = ThreadCpuNs() - thread_cpu;
        process_cpu = ProcessCpuNs() - process_cpu;

        // Drops are also counted from each stream's first frame, warm-up
        // included: a drop while the sensors start is still a lost frame.
        uint64_t produced = 0, delivered = 0, dropped = 0, produced_from_start = 0, dropped_from_start = 0;
        for (int c = 0; c < kCameras; ++c) {
            zsim::Counters after = zsim::counters(c);
            produced += after.produced - before[c].produced;
            delivered += after.delivered - before[c].delivered;
            dropped += after.dropped - before[c].dropped;
            produced_from_start += after.produced;
            dropped_from_start += after.dropped;
        }
        for (int c = 0; c < kCameras; ++c)
            StopCamera(handles[c]);

        state.counters["seconds"] = wall;
        state.counters["produced"] = double(produced);
        state.counters["dequeued"] = double(delivered);
        state.counters["dropped"] = double(dropped);
        state.counters["produced_from_start"] = double(produced_from_start);
        state.counters["dropped_from_start"] = double(dropped_from_start);
        state.counters["accepted"] = double(tally.accepted);
        state.counters["refused"] = double(tally.refused);
        state.counters["failures"] = double(tally.other_failures);
        state.counters["waits"] = double(tally.waits);
        state.counters["longest_round_ms"] = double(longest_round_ns) / 1e6;
        state.counters["max_frame_age_ms"] = double(tally.max_age_us) / 1e3;
        state.counters["loop_cpu_percent"] = 100.0 * double(thread_cpu) / 1e9 / wall;
        state.counters["process_cpu_percent"] = 100.0 * double(process_cpu) / 1e9 / wall;
        state.counters["loop_cpu_us_per_frame"] =
            delivered ? double(thread_cpu) / 1e3 / double(delivered) : 0;
    }
}
BENCHMARK(BM_TwelveCameras)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
