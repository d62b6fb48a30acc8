#include "sim_fixture.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <regex>

namespace zelisp_test {

namespace {

// The fields of a line agree with its kind: a system-error line carries
// perror's label and errno and its text is what perror prints for them;
// the other lines carry neither. A camera's node is a video node path.
void CheckMessageFields(const zelvideo::_isp_message_t &message)
{
    ASSERT_NE(message.text, nullptr);
    if (message.kind == ISP_MESSAGE_SYSTEM_ERROR) {
        ASSERT_NE(message.label, nullptr) << message.text;
        EXPECT_EQ(std::string(message.text), std::string(message.label) + ": " + ErrorText(message.error_number));
    } else {
        EXPECT_TRUE(message.kind == ISP_MESSAGE_PROGRESS || message.kind == ISP_MESSAGE_FAILURE) << message.kind;
        EXPECT_EQ(message.label, nullptr) << message.text;
        EXPECT_EQ(message.error_number, 0) << message.text;
    }
    if (message.dev_path != nullptr) {
        EXPECT_TRUE(std::regex_match(message.dev_path, std::regex("/dev/video[0-9]+"))) << message.dev_path;
    }
}

// Prints a line the way the console does, from what the handler is given.
void ReplayOnConsole(const zelvideo::_isp_message_t *message, void *)
{
    CheckMessageFields(*message);
    // The group format refusal is the one line the console leaves open.
    const bool open_line = std::strcmp(message->text, "Only the same camera is supported") == 0;
    if (message->kind == ISP_MESSAGE_SYSTEM_ERROR) {
        fputs(message->text, stderr);
        fputc('\n', stderr);
    } else {
        // Through the C++ stream, which shares stdout's buffer unless a
        // test redirects it, as the console's camera lines do.
        std::cout << message->text << (open_line ? "" : "\n") << std::flush;
    }
}

} // namespace

void SimTest::SetUp()
{
    // A test that reached a real device would be meaningless and unsafe.
    ASSERT_TRUE(zsim::active()) << "the simulated ISP driver is not in front of libc";
    zsim::reset();
    // The second run of the library's tests: every line the tests expect on
    // the console must reach a message handler with the same text.
    const char *route = std::getenv("ZELISP_TEST_MESSAGES");
    if (route != nullptr && std::strcmp(route, "handler") == 0)
        isp_set_message_handler(ReplayOnConsole, nullptr);
}

void SimTest::TearDown()
{
    isp_set_message_handler(nullptr, nullptr);
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
