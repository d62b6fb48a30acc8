#include "sim_fixture.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

namespace zelisp_test {

void SimTest::SetUp()
{
    // A test that reached a real device would be meaningless and unsafe.
    ASSERT_TRUE(zsim::active()) << "the simulated ISP driver is not in front of libc";
    zsim::reset();
}

void SimTest::TearDown()
{
    if (check_leaks_) {
        EXPECT_EQ(zsim::live_descriptors(), 0u) << "simulated descriptors leaked";
        EXPECT_EQ(zsim::live_mappings(), 0u) << "simulated mappings leaked";
    }
}

OutputCapture::OutputCapture()
{
    fflush(stdout);
    fflush(stderr);
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
}

OutputCapture::~OutputCapture() { Stop(); }

void OutputCapture::Stop()
{
    if (!running_)
        return;
    running_ = false;
    fflush(stdout);
    fflush(stderr);
    out_ = ::testing::internal::GetCapturedStdout();
    err_ = ::testing::internal::GetCapturedStderr();
}

Call Captured(const std::function<int()> &call)
{
    OutputCapture output;
    const int result = call();
    output.Stop();
    return {result, output.out(), output.err()};
}

Quiet::Quiet()
{
    fflush(stdout);
    fflush(stderr);
    saved_out_ = dup(STDOUT_FILENO);
    saved_err_ = dup(STDERR_FILENO);
    int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(null, STDOUT_FILENO);
    dup2(null, STDERR_FILENO);
    close(null);
}

Quiet::~Quiet()
{
    fflush(stdout);
    fflush(stderr);
    dup2(saved_out_, STDOUT_FILENO);
    dup2(saved_err_, STDERR_FILENO);
    close(saved_out_);
    close(saved_err_);
}

std::string ErrorText(int err) { return std::strerror(err); }

} // namespace zelisp_test
