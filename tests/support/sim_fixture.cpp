#include "sim_fixture.h"

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

std::string ErrorText(int err) { return std::strerror(err); }

} // namespace zelisp_test
