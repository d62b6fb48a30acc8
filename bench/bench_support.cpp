/*
 * bench_support.cpp - camera bring-up, scripted frame clock, CPU clocks.
 */
#include "bench_support.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace zelisp_bench {

namespace {

// 20 ms between scripted frames: well clear of the library's 12 ms floor.
constexpr uint64_t kScriptIntervalUs = 20000;

uint64_t UsageNs(int who)
{
    rusage usage{};
    getrusage(who, &usage);
    auto ns = [](const timeval &tv) { return uint64_t(tv.tv_sec) * 1000000000u + uint64_t(tv.tv_usec) * 1000u; };
    return ns(usage.ru_utime) + ns(usage.ru_stime);
}

} // namespace

void Fail(const char *what, int result)
{
    fflush(stdout);
    fprintf(stderr, "benchmark setup failed: %s (result %d)\n", what, result);
    exit(1);
}

void ResetSimulator()
{
    if (!zsim::active())
        Fail("the simulated ISP driver is not in front of libc", 0);
    zsim::reset();
}

void ConfigureCamera(int camera, uint32_t fps)
{
    zsim::CameraConfig config;
    config.fps = fps;
    zsim::set_camera(camera, config);
}

unsigned long SetUpCamera(int camera, uint32_t combination, int buffers)
{
    unsigned long handle = isp_open_video(uint32_t(camera), 1);
    if (handle == 0)
        Fail("isp_open_video", 0);
    int result = isp_init_video(handle, combination, buffers);
    if (result != 0)
        Fail("isp_init_video", result);
    return handle;
}

void StartCapture(unsigned long handle)
{
    int result = isp_start_capture(handle);
    if (result != 0)
        Fail("isp_start_capture", result);
}

unsigned long StartCamera(int camera, uint32_t combination, int buffers)
{
    unsigned long handle = SetUpCamera(camera, combination, buffers);
    StartCapture(handle);
    return handle;
}

void StopCamera(unsigned long handle)
{
    isp_stop_capture(handle);
    isp_close_video(handle);
}

zsim::ScriptedFrame ScriptClock::Next()
{
    zsim::ScriptedFrame frame;
    frame.sequence = ++sequence_;
    timestamp_us_ += kScriptIntervalUs;
    frame.timestamp_us = timestamp_us_;
    return frame;
}

uint64_t MonotonicNs()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return uint64_t(now.tv_sec) * 1000000000u + uint64_t(now.tv_nsec);
}

uint64_t ThreadCpuNs() { return UsageNs(RUSAGE_THREAD); }
uint64_t ProcessCpuNs() { return UsageNs(RUSAGE_SELF); }

QuietStdout::QuietStdout()
{
    fflush(stdout);
    saved_ = dup(STDOUT_FILENO);
    int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (null >= 0) {
        dup2(null, STDOUT_FILENO);
        close(null);
    }
}

QuietStdout::~QuietStdout()
{
    fflush(stdout);
    if (saved_ >= 0) {
        dup2(saved_, STDOUT_FILENO);
        close(saved_);
    }
}

} // namespace zelisp_bench
