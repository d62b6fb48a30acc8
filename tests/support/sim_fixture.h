/*
 * sim_fixture.h - what every library test stands on: a fixture that checks
 * the simulated driver is in front of libc and starts it from its defaults,
 * and the one set of helpers that capture (or silence) the library's two
 * output streams.
 */
#ifndef ZELISP_TESTS_SIM_FIXTURE_H
#define ZELISP_TESTS_SIM_FIXTURE_H

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "zelisp.h"
#include "zelisp_sim/sim.h"

namespace zelisp_test {

// Starts each test with a default simulator and, at the end, checks that
// the program holds no simulated descriptor or mapping.
class SimTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    // Set to false by a test that deliberately keeps resources open.
    bool check_leaks_ = true;
};

// Captures stdout and stderr from construction until Stop() (flushing the
// stdio streams first), so a test can compare the library's exact lines.
class OutputCapture {
public:
    OutputCapture();
    ~OutputCapture();
    void Stop();
    const std::string &out() const { return out_; }
    const std::string &err() const { return err_; }

private:
    bool running_ = true;
    std::string out_;
    std::string err_;
};

// A call's result with what it printed on each stream.
struct Call {
    int result;
    std::string out;
    std::string err;
};
Call Captured(const std::function<int()> &call);

// Sends stdout and stderr to /dev/null until destroyed, so that thousands
// of faulted runs do not flood the log; findings are reported after it is
// gone.
class Quiet {
public:
    Quiet();
    ~Quiet();
    Quiet(const Quiet &) = delete;
    Quiet &operator=(const Quiet &) = delete;

private:
    int saved_out_;
    int saved_err_;
};

// The system's text for errno value err, as perror prints it.
std::string ErrorText(int err);

// perror's line: "label: <text of err>\n".
inline std::string Perror(const std::string &label, int err) { return label + ": " + ErrorText(err) + "\n"; }

} // namespace zelisp_test

#endif
