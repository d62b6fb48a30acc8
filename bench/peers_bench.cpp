/*
 * peers_bench.cpp - CPU time per frame of a V4L2 client we did not write,
 * v4l2-ctl --stream-mmap, against zelisp-cam capture, both streaming the
 * same simulated camera under zelisp-sim-run.
 *
 * Each client runs twice, for a short and a long capture; the difference
 * of the two CPU times (user + system, whole process, from wait4) divided
 * by the difference of the frame counts is the cost of one frame, free of
 * start-up, set-up and tear-down.
 *
 *   zelisp_bench_peers --sim-run=PATH --cam-tool=PATH [benchmark flags]
 */
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

namespace {

std::string sim_run;
std::string cam_tool;

constexpr int kShortFrames = 30;
constexpr int kLongFrames = 300;

struct Run {
    bool ok = false;
    double cpu_seconds = 0;
    double wall_seconds = 0;
};

double Seconds(const timeval &tv) { return double(tv.tv_sec) + double(tv.tv_usec) / 1e6; }

double Now()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return double(now.tv_sec) + double(now.tv_nsec) / 1e9;
}

// Runs argv with its output discarded; CPU time of the child and all it
// waited for.
Run RunProgram(const std::vector<std::string> &args)
{
    Run run;
    double start = Now();
    pid_t child = fork();
    if (child == 0) {
        int null = open("/dev/null", O_WRONLY);
        dup2(null, STDOUT_FILENO);
        dup2(null, STDERR_FILENO);
        std::vector<char *> argv;
        for (const auto &arg : args)
            argv.push_back(const_cast<char *>(arg.c_str()));
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    int status = 0;
    rusage usage{};
    if (child < 0 || wait4(child, &status, 0, &usage) != child)
        return run;
    run.ok = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    run.cpu_seconds = Seconds(usage.ru_utime) + Seconds(usage.ru_stime);
    run.wall_seconds = Now() - start;
    return run;
}

std::vector<std::string> UnderSimulator(std::vector<std::string> command)
{
    std::vector<std::string> args = {sim_run, "--"};
    args.insert(args.end(), command.begin(), command.end());
    return args;
}

std::vector<std::string> V4l2Ctl(int frames)
{
    return UnderSimulator({"/usr/bin/v4l2-ctl", "-d", "/dev/video0", "--stream-mmap=4",
                           "--stream-count=" + std::to_string(frames)});
}

std::vector<std::string> ZelispCam(int frames)
{
    return UnderSimulator({cam_tool, "capture", "--camera", "0", "--frames", std::to_string(frames)});
}

void MeasureClient(benchmark::State &state, std::vector<std::string> (*command)(int))
{
    for (auto _ : state) {
        Run brief = RunProgram(command(kShortFrames));
        Run full = RunProgram(command(kLongFrames));
        if (!brief.ok || !full.ok) {
            state.SkipWithError("the client failed");
            return;
        }
        double frames = kLongFrames - kShortFrames;
        state.counters["cpu_us_per_frame"] = (full.cpu_seconds - brief.cpu_seconds) * 1e6 / frames;
        state.counters["cpu_s_long_run"] = full.cpu_seconds;
        state.counters["wall_s_long_run"] = full.wall_seconds;
        state.counters["frames"] = kLongFrames;
    }
}

void BM_V4l2CtlStreamMmap(benchmark::State &state) { MeasureClient(state, V4l2Ctl); }
void BM_ZelispCamCapture(benchmark::State &state)
{
    if (cam_tool.empty()) {
        state.SkipWithError("zelisp-cam was not built");
        return;
    }
    MeasureClient(state, ZelispCam);
}

} // namespace

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    for (int i = 1; i < argc; ++i) {
        if (strncmp(argv[i], "--sim-run=", 10) == 0)
            sim_run = argv[i] + 10;
        else if (strncmp(argv[i], "--cam-tool=", 11) == 0)
            cam_tool = argv[i] + 11;
    }
    if (sim_run.empty()) {
        fprintf(stderr, "usage: %s --sim-run=PATH [--cam-tool=PATH] [benchmark flags]\n", argv[0]);
        return 2;
    }
    benchmark::RegisterBenchmark("BM_V4l2CtlStreamMmap", BM_V4l2CtlStreamMmap)
        ->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();
    benchmark::RegisterBenchmark("BM_ZelispCamCapture", BM_ZelispCamCapture)
        ->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
