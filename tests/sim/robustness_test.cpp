// The simulator behaves as a driver where a process is under stress: a
// fork while another thread sets controls leaves the child usable, and a
// frame thread that cannot start fails STREAMON with ENOMEM instead of
// ending the program.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <thread>

#include "sim_fixture.h"
#include "video_test_node.h"

namespace {

using zelisp_test::VideoNode;

class SimulatorRobustnessTest : public zelisp_test::SimTest {};

// Runs body in a child process; its exit status, or -1 if it did not exit.
template <typename Body>
int InChild(Body body)
{
    pid_t child = fork();
    if (child == 0) {
        alarm(60); // a deadlocked child ends instead of hanging the suite
        _exit(body());
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child)
        return -2;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(SimulatorRobustnessTest, ForkWhileAnotherThreadSetsControlsLeavesTheChildUsable)
{
    VideoNode node("/dev/video0");
    std::atomic<bool> stop{false};
    std::thread setter([&] {
        v4l2_control control{V4L2_CID_BRIGHTNESS, 0};
        for (int i = 0; !stop; ++i) {
            control.value = i & 0xff;
            zelisp_test::Request(node.fd(), VIDIOC_S_CTRL, &control);
        }
    });
    int failures = 0;
    for (int i = 0; i < 200; ++i) {
        int status = InChild([&] {
            v4l2_control control{V4L2_CID_CONTRAST, 0};
            return zelisp_test::Request(node.fd(), VIDIOC_G_CTRL, &control) == 0 && control.value == 128 ? 0 : 1;
        });
        failures += status != 0;
    }
    stop = true;
    setter.join();
    EXPECT_EQ(failures, 0);
}

TEST_F(SimulatorRobustnessTest, StreamOnAnswersEnomemWhenTheFrameThreadCannotStart)
{
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "AddressSanitizer reserves more address space than the limit this test sets";
#else
    int status = InChild([] {
        VideoNode node("/dev/video1");
        uint32_t count = 2;
        if (node.RequestBuffers(&count) != 0)
            return 10;
        // Room for nothing as large as a thread's stack.
        long pages = 0;
        FILE *statm = fopen("/proc/self/statm", "r");
        if (!statm || fscanf(statm, "%ld", &pages) != 1)
            return 11;
        fclose(statm);
        rlimit limit{};
        limit.rlim_cur = limit.rlim_max = rlim_t(pages) * rlim_t(sysconf(_SC_PAGESIZE)) + (1 << 20);
        if (setrlimit(RLIMIT_AS, &limit) != 0)
            return 12;
        int err = node.Stream(VIDIOC_STREAMON);
        if (err != ENOMEM)
            return 20 + err;
        return 0;
    });
    EXPECT_EQ(status, 0) << "20 + errno: STREAMON answered otherwise; -1: the child was killed";
#endif
}

} // namespace
