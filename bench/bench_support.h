/*
 * bench_support.h - what the benchmarks share: bringing simulated cameras
 * up through the library, a clock for scripted frames, CPU time readings and
 * a way to keep the library's per-frame messages out of the report.
 */
#ifndef ZELISP_BENCH_SUPPORT_H
#define ZELISP_BENCH_SUPPORT_H

#include <cstdint>

#include "zelisp.h"
#include "zelisp_sim/sim.h"

namespace zelisp_bench {

// Stops the program with a message: a benchmark whose setup failed has
// nothing to measure.
[[noreturn]] void Fail(const char *what, int result);

// Checks that the simulated driver answers (never a real device) and starts
// it from its defaults.
void ResetSimulator();

// Camera `camera` as a 1080p/720p/360p NV12 sensor at `fps`.
void ConfigureCamera(int camera, uint32_t fps);

// Opens camera `camera` in mode 1 and sets it up with `combination` and
// `buffers`; StartCapture starts its stream; StartCamera does both. Each
// fails the program on any error.
unsigned long SetUpCamera(int camera, uint32_t combination, int buffers);
void StartCapture(unsigned long handle);
unsigned long StartCamera(int camera, uint32_t combination, int buffers);
void StopCamera(unsigned long handle);

// Sequence numbers and capture times for scripted frames, far enough apart
// for the library to accept every one.
class ScriptClock {
public:
    zsim::ScriptedFrame Next();

private:
    uint32_t sequence_ = 0;
    uint64_t timestamp_us_ = 1000000;
};

// Nanoseconds of CLOCK_MONOTONIC, the clock V4L2 timestamps use.
uint64_t MonotonicNs();
// CPU time (user + system) in nanoseconds of the calling thread, and of
// the whole process.
uint64_t ThreadCpuNs();
uint64_t ProcessCpuNs();

// Sends standard output to /dev/null while alive: the library prints one
// line per refused frame, which would bury the report.
class QuietStdout {
public:
    QuietStdout();
    ~QuietStdout();
    QuietStdout(const QuietStdout &) = delete;
    QuietStdout &operator=(const QuietStdout &) = delete;

private:
    int saved_ = -1;
};

} // namespace zelisp_bench

#endif
