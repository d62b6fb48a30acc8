/*
 * rig_processes.h - the programs of a rig test, started as a user starts
 * them (zelisp-rtsp under zelisp-sim-run, zelisp-rig, scripts/sim-rig.sh),
 * with their output in files of the test's folder and every wait bounded.
 */
#ifndef ZELISP_TESTS_RIG_PROCESSES_H
#define ZELISP_TESTS_RIG_PROCESSES_H

#include <sys/types.h>

#include <string>

namespace rigtest {

// A folder of its own for the running test, emptied first.
std::string test_folder();

std::string read_text(const std::string &path);

struct Finished {
    int status = -1; // exit status, or 128 + signal
    std::string out;
    std::string err;
};

// Runs `command` (a shell command line) in `folder` to its end; `timeout`
// seconds bound a run that hangs, far beyond any normal run.
Finished run(const std::string &folder, const std::string &command, int timeout = 150);

// "zelisp-sim-run --config CONFIG -- PROGRAM..." as a command line, with
// the plugin of the build and no leak checks of GStreamer's.
std::string on_board(const std::string &config, const std::string &program);

// A program running in the background, its output in <folder>/<name>.out
// and .err.
class Background {
public:
    Background(const std::string &folder, const std::string &name, const std::string &command);
    ~Background();
    Background(const Background &) = delete;
    Background &operator=(const Background &) = delete;

    // The first output line matching `pattern` (a regular expression),
    // waited for at most `seconds`; empty when none came.
    std::string wait_for_line(const std::string &pattern, double seconds, bool error_stream = false);
    std::string out() const;
    std::string err() const;
    pid_t pid() const { return pid_; }
    // SIGTERM, then the exit status (128 + signal when killed); SIGKILL
    // after `seconds`.
    int stop(double seconds = 10);
    // Waits for its end by itself, at most `seconds`; -1 when it is still
    // running.
    int wait(double seconds);

private:
    pid_t pid_ = -1;
    int status_ = -1;
    std::string out_path_;
    std::string err_path_;
};

} // namespace rigtest

#endif
