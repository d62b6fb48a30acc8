/*
 * launch_support.h - running whole programs as a user runs them, on the
 * simulated driver: gst-launch-1.0, gst-inspect-1.0, gst-device-monitor-1.0,
 * the example scripts, zelisp-rtsp and its clients, in the foreground or in
 * the background, with their output, exit status and peak memory.
 */
#ifndef ZELISP_TESTS_GST_LAUNCH_SUPPORT_H
#define ZELISP_TESTS_GST_LAUNCH_SUPPORT_H

#include <sys/resource.h>
#include <sys/types.h>

#include <cstdint>
#include <cstdio>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace zelisp_launch_test {

// "zelisp-sim-run -- command", with the simulator configured by the file
// `config` when given. Every process that loads the plugin runs so, with the
// same preloads (a sanitizer build needs its runtime first in each of them);
// GStreamer itself is not ours to check for leaks.
std::string on_simulator(const std::string &command, const std::string &config = "");

struct Launch {
    int status = -1;
    std::string out;
};

std::string read_text(const std::string &path);
// Runs a command in `folder` with stdout and stderr together; `timeout 120`
// bounds a run that hangs, far beyond any normal run.
Launch run(const std::string &folder, const std::string &command);
std::string write_config(const std::string &folder, const std::string &text);
std::vector<uint32_t> painted_numbers(const std::vector<std::string> &png_files);
int free_port(int type);

// A process in the background with its standard output on a pipe and its
// standard error in a file.
struct Background {
    pid_t pid = -1;
    FILE *out = nullptr;
    std::string err_path;

    Background(const std::string &folder, const std::string &command, const std::string &err_name = "background.err");
    Background(const Background &) = delete;
    Background &operator=(const Background &) = delete;
    // The next line it prints ("" when it ended).
    std::string line();
    // Reads lines until one contains `text`; false when it ended first.
    bool line_with(const std::string &text);
    // Waits up to `seconds` for it to end: its wait status, or nullopt (it
    // is still running). With usage, its resources (peak memory).
    std::optional<int> finish(int seconds, rusage *usage = nullptr);
    // SIGTERM, then its wait status.
    int stop();
    ~Background();
};

} // namespace zelisp_launch_test

#endif
