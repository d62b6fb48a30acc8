// A V4L2 client we did not write runs on the simulated camera: it finds the
// device through sysfs, probes requests the ISP lacks, and streams with
// blocking dequeues.
#include <unistd.h>

#include <algorithm>
#include <string>

#include "runner_command.h"
#include "sim_fixture.h"

namespace {

using zelisp_test::RunCommand;
using zelisp_test::RunnerPath;

class V4l2CtlTest : public zelisp_test::SimTest {
protected:
    void SetUp() override
    {
        SimTest::SetUp();
        if (access("/usr/bin/v4l2-ctl", X_OK) != 0)
            GTEST_SKIP() << "v4l2-ctl is not installed (Debian package v4l-utils, see scripts/setup.sh)";
        runner_ = RunnerPath();
        if (runner_.empty())
            GTEST_SKIP() << "zelisp-sim-run is not built next to the simulator library";
    }
    std::string runner_;
};

TEST_F(V4l2CtlTest, AllReportsTheCaptureDeviceItsInputAndFormat)
{
    std::string output;
    ASSERT_EQ(RunCommand(runner_ + " -- v4l2-ctl -d /dev/video0 --all", &output), 0) << output;
    for (const char *line : {"Driver name      : zelisp-isp", "Video Capture Multiplanar", "Video input : 7",
                             "Width/Height      : 1920/1080", "Pixel Format      : 'NV12'",
                             "Number of planes  : 3"})
        EXPECT_NE(output.find(line), std::string::npos) << line << "\nin:\n" << output;
}

TEST_F(V4l2CtlTest, StreamsSixtyFramesWithMemoryMapping)
{
    std::string output;
    ASSERT_EQ(RunCommand(runner_ + " -- v4l2-ctl -d /dev/video0 --stream-mmap --stream-count=60", &output), 0)
        << output;
    EXPECT_EQ(std::count(output.begin(), output.end(), '<'), 60) << output;
    // The mode 2 node streams its single plane too.
    ASSERT_EQ(RunCommand(runner_ + " -- v4l2-ctl -d /dev/video12 --stream-mmap --stream-count=10", &output), 0)
        << output;
}

} // namespace
