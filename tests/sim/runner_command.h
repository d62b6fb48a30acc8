/*
 * runner_command.h - runs a shell command through zelisp-sim-run for the
 * simulator's tests that drive whole programs.
 */
#ifndef ZELISP_TESTS_SIM_RUNNER_COMMAND_H
#define ZELISP_TESTS_SIM_RUNNER_COMMAND_H

#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "sim_fixture.h"
#include "zelisp_sim/sim.h"

namespace zelisp_test {

// The runner sits next to the simulator library in the build tree; empty
// when it is not there.
inline std::string RunnerPath()
{
    Dl_info info{};
    if (!dladdr(reinterpret_cast<void *>(&zsim::reset), &info) || !info.dli_fname)
        return "";
    std::string path = info.dli_fname;
    path = path.substr(0, path.rfind('/') + 1) + "zelisp-sim-run";
    return access(path.c_str(), X_OK) == 0 ? path : "";
}

// A program built beside the test program (the board probe); empty when
// it is not there.
inline std::string BesideTests(const std::string &name)
{
    char self[4096];
    const ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
    if (length <= 0)
        return "";
    self[length] = '\0';
    std::string path = self;
    path = path.substr(0, path.rfind('/') + 1) + name;
    return access(path.c_str(), X_OK) == 0 ? path : "";
}

#ifdef __SANITIZE_ADDRESS__
extern "C" void __asan_init();
#endif

// The environment that puts the simulator in front of a command by hand,
// without the runner: LD_PRELOAD (led by the sanitizer's runtime in a
// sanitized build, which must load first) and no leak check of programs
// that are not ours.
inline std::string PreloadByHand()
{
    Dl_info info{};
    if (!dladdr(reinterpret_cast<void *>(&zsim::reset), &info) || !info.dli_fname)
        return "";
    std::string preload = info.dli_fname;
#ifdef __SANITIZE_ADDRESS__
    Dl_info runtime{};
    if (dladdr(reinterpret_cast<void *>(&__asan_init), &runtime) && runtime.dli_fname)
        preload = std::string(runtime.dli_fname) + ":" + preload;
    return "ASAN_OPTIONS=detect_leaks=0 LD_PRELOAD=" + preload + " ";
#else
    return "LD_PRELOAD=" + preload + " ";
#endif
}

// Runs command with sh, collecting standard output and error; returns the
// wait status.
inline int RunCommand(const std::string &command, std::string *output)
{
    output->clear();
    FILE *pipe = popen((command + " 2>&1").c_str(), "r");
    if (!pipe)
        return -1;
    char chunk[512];
    while (fgets(chunk, sizeof chunk, pipe))
        *output += chunk;
    return pclose(pipe);
}

// A test that runs whole programs under zelisp-sim-run: skipped where the
// runner is not built. A derived SetUp calls this one first and returns
// when IsSkipped().
class RunnerFixture : public SimTest {
protected:
    void SetUp() override
    {
        SimTest::SetUp();
        runner_ = RunnerPath();
        if (runner_.empty())
            GTEST_SKIP() << "zelisp-sim-run is not built next to the simulator library";
    }

    std::string runner_;
    std::string output_;
};

} // namespace zelisp_test

#endif
