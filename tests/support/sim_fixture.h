/*
 * sim_fixture.h - what every library test stands on: a fixture that checks
 * the simulated driver is in front of libc and starts it from its defaults,
 * and helpers that capture the library's two output streams.
 */
#ifndef ZELISP_TESTS_SIM_FIXTURE_H
#define ZELISP_TESTS_SIM_FIXTURE_H

#include <gtest/gtest.h>

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

// The system's text for errno value err, as perror prints it.
std::string ErrorText(int err);

} // namespace zelisp_test

#endif
