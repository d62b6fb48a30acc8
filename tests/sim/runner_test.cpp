// zelisp-sim-run puts the simulator in front of an unmodified program.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "runner_command.h"
#include "sim_fixture.h"

namespace {

using zelisp_test::RunCommand;
using zelisp_test::RunnerPath;

class RunnerTest : public zelisp_test::SimTest {};

TEST_F(RunnerTest, ListsASimulatedNodeAsACharacterDevice)
{
    const std::string runner = RunnerPath();
    if (runner.empty())
        GTEST_SKIP() << "zelisp-sim-run is not built next to the simulator library";
    std::string output;
    ASSERT_EQ(RunCommand(runner + " -- ls -l /dev/video0 /dev/isp_misc", &output), 0) << output;
    EXPECT_EQ(output.substr(0, 1), "c") << output;
    EXPECT_NE(output.find("81,   0"), std::string::npos) << output;
    EXPECT_NE(output.find("/dev/isp_misc"), std::string::npos) << output;

    // Without the runner the program sees the machine as it is.
    ASSERT_NE(RunCommand("ls -l /dev/video0", &output), 0) << output;
}

TEST_F(RunnerTest, PassesTheConfigurationAndKeepsAnExistingPreload)
{
    const std::string runner = RunnerPath();
    if (runner.empty())
        GTEST_SKIP() << "zelisp-sim-run is not built next to the simulator library";
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
    std::string output;
    ASSERT_EQ(RunCommand(existing + runner + " --config " + config +
                             " -- sh -c 'echo $LD_PRELOAD; ls /dev/video7 /dev/video19'",
                         &output),
              0)
        << output;
    if (!existing.empty()) {
        EXPECT_NE(output.find("libzelisp-sim.so:libm.so.6"), std::string::npos) << output;
    }
    EXPECT_NE(output.find("/dev/video19"), std::string::npos) << output;
    EXPECT_NE(RunCommand(runner + " --config " + config + " -- ls /dev/video0", &output), 0) << output;
    unlink(config.c_str());

    EXPECT_EQ(RunCommand(runner + " ls", &output), 2 << 8) << output; // no "--"
}

} // namespace
