// zelisp-sim-run puts the simulator in front of unmodified programs: ls sees
// a character device, and v4l2-ctl, a V4L2 client we did not write, finds
// the device through sysfs, probes requests the ISP lacks and streams with
// blocking dequeues.
#include <unistd.h>

#include <algorithm>
#include <string>

#include "runner_command.h"

namespace {

class RunnerTest : public zelisp_test::RunnerFixture {
protected:
    int Run(const std::string &command) { return zelisp_test::RunCommand(command, &output_); }
    static bool HaveV4l2Ctl() { return access("/usr/bin/v4l2-ctl", X_OK) == 0; }
};

TEST_F(RunnerTest, LsShowsASimulatedNodeAsACharacterDevice)
{
    ASSERT_EQ(Run(runner_ + " -- ls -l /dev/video0 /dev/isp_misc"), 0) << output_;
    EXPECT_EQ(output_.substr(0, 1), "c") << output_;
    EXPECT_NE(output_.find("81,   0"), std::string::npos) << output_;
    EXPECT_EQ(Run(runner_ + " ls"), 2 << 8) << output_; // no "--"
}

TEST_F(RunnerTest, PassesTheConfigurationAndKeepsAnExistingPreload)
{
    std::string config = ::testing::TempDir() + "runner-" + std::to_string(getpid()) + ".ini";
    FILE *file = fopen(config.c_str(), "w");
    ASSERT_NE(file, nullptr);
    fputs("[cameras]\npresent = 7\n", file);
    fclose(file);
#ifdef __SANITIZE_ADDRESS__
    const std::string existing = ""; // a sanitized runner refuses any library preloaded before its runtime
#else
    const std::string existing = "LD_PRELOAD=libm.so.6 ";
#endif
    ASSERT_EQ(Run(existing + runner_ + " --config " + config + " -- sh -c 'echo $LD_PRELOAD; ls /dev/video19'"), 0)
        << output_;
    if (!existing.empty()) {
        EXPECT_NE(output_.find("libzelisp-sim.so:libm.so.6"), std::string::npos) << output_;
    }
    EXPECT_NE(Run(runner_ + " --config " + config + " -- ls /dev/video0"), 0) << output_;
    unlink(config.c_str());
}

TEST_F(RunnerTest, V4l2CtlReportsTheCaptureDeviceAndStreams)
{
    if (!HaveV4l2Ctl())
        GTEST_SKIP() << "v4l2-ctl is not installed (Debian package v4l-utils, see scripts/setup.sh)";
    ASSERT_EQ(Run(runner_ + " -- v4l2-ctl -d /dev/video0 --all"), 0) << output_;
    for (const char *line : {"Driver name      : zelisp-isp", "Video Capture Multiplanar", "Video input : 7",
                             "Width/Height      : 1920/1080", "Pixel Format      : 'NV12'",
                             "Number of planes  : 3"})
        EXPECT_NE(output_.find(line), std::string::npos) << line << "\nin:\n" << output_;

    ASSERT_EQ(Run(runner_ + " -- v4l2-ctl -d /dev/video0 --stream-mmap --stream-count=60"), 0) << output_;
    EXPECT_EQ(std::count(output_.begin(), output_.end(), '<'), 60) << output_;
    // The mode 2 node streams its single plane too.
    ASSERT_EQ(Run(runner_ + " -- v4l2-ctl -d /dev/video12 --stream-mmap --stream-count=10"), 0) << output_;
}

TEST_F(RunnerTest, ConfigurationErrorsStopTheProgramBeforeItStarts)
{
    std::string config = ::testing::TempDir() + "runner-bad-" + std::to_string(getpid()) + ".ini";
    FILE *file = fopen(config.c_str(), "w");
    ASSERT_NE(file, nullptr);
    fputs("[cameras]\npresent = 0\n[camera 0]\nfps = 999\n", file);
    fclose(file);
    const std::string message = config + ":4: bad value '999' for fps: frames per second, 1 to 240\n";
    EXPECT_EQ(Run(runner_ + " --config " + config + " -- echo main ran"), 2 << 8) << output_;
    EXPECT_EQ(output_, message); // once, and the program never started

    // The old behaviour on request: the message, then the program on the
    // defaults (camera 1 present).
    EXPECT_EQ(Run(runner_ + " --config " + config + " --config-errors=warn -- sh -c 'echo main ran; ls /dev/video1'"), 0)
        << output_;
    EXPECT_EQ(output_, message + "main ran\n/dev/video1\n");
    unlink(config.c_str());

    EXPECT_EQ(Run(runner_ + " --config /dev/zero -- echo main ran"), 2 << 8) << output_;
    EXPECT_EQ(output_, "/dev/zero: is not a regular file\n");
    EXPECT_EQ(Run(runner_ + " --config-errors=maybe -- true"), 2 << 8) << output_;
}

} // namespace

