// Whole programs on one board under zelisp-sim-run, as on the board
// itself: v4l2-ctl finds the value another program set, and while a program
// streams a camera through the library, another library program and
// v4l2-ctl cannot take the camera over (EBUSY) but can tune it, which shows
// in the streaming program's frames; a program that ends, even killed,
// releases the camera. The streaming program is the board probe
// (tests/sim/probe), which prints each frame's mean luma.
#include <unistd.h>

#include <sstream>
#include <string>
#include <vector>

#include "runner_command.h"

namespace {

class SharedBoardRunnerTest : public zelisp_test::RunnerFixture {
protected:
    void SetUp() override
    {
        RunnerFixture::SetUp();
        if (IsSkipped())
            return;
        if (access("/usr/bin/v4l2-ctl", X_OK) != 0)
            GTEST_SKIP() << "v4l2-ctl is not installed (Debian package v4l-utils, see scripts/setup.sh)";
        probe_ = zelisp_test::BesideTests("zelisp-sim-board-probe");
        ASSERT_FALSE(probe_.empty()) << "the board probe is built with the simulator's tests";
        dir_ = ::testing::TempDir() + "shared-board-" + std::to_string(getpid());
        ASSERT_EQ(system(("mkdir -p " + dir_ + " && printf '[camera 0]\\nfps = 60\\n' > " + dir_ + "/board.ini").c_str()),
                  0);
    }
    void TearDown() override
    {
        if (!dir_.empty())
            system(("rm -rf " + dir_).c_str());
        RunnerFixture::TearDown();
    }
    // Runs a shell script on one board, in the test's folder.
    int Board(const std::string &script)
    {
        return zelisp_test::RunCommand("cd " + dir_ + " && " + runner_ + " --config board.ini -- sh -c '" + script + "'",
                                       &output_);
    }
    std::string Read(const std::string &name)
    {
        std::string text;
        zelisp_test::RunCommand("cat " + dir_ + "/" + name, &text);
        return text;
    }
    bool Says(const std::string &text) const { return output_.find(text) != std::string::npos; }
    // The luma of each frame the probe printed, in order.
    static std::vector<unsigned> Lumas(const std::string &frames)
    {
        std::vector<unsigned> lumas;
        std::istringstream lines(frames);
        std::string line;
        while (std::getline(lines, line)) {
            unsigned sequence, luma;
            unsigned long long stamp;
            if (std::sscanf(line.c_str(), "frame %u %llu %u", &sequence, &stamp, &luma) == 3)
                lumas.push_back(luma);
        }
        return lumas;
    }
    // Starts the probe streaming camera 0 in the background and waits (at
    // most 30 s) for its first frame.
    std::string StartStreaming() const
    {
        return probe_ + " stream 0 stop 60 > frames.txt 2>&1 & " +
               "i=0; until grep -q ^frame frames.txt; do i=$((i+1)); [ $i -gt 600 ] && break; sleep 0.05; done; ";
    }

    std::string probe_;
    std::string dir_;
};

TEST_F(SharedBoardRunnerTest, AValueSetByOneProgramShowsInTheNext)
{
    ASSERT_EQ(Board("v4l2-ctl -c brightness=200; v4l2-ctl -C brightness"), 0) << output_;
    EXPECT_EQ(output_, "brightness: 200\n");
    // Through the library in one program, through the camera's other node in the next.
    ASSERT_EQ(Board(probe_ + " brightness 0 180 | grep ^brightness; v4l2-ctl -d /dev/video12 -C brightness"), 0)
        << output_;
    EXPECT_EQ(output_, "brightness 180\nbrightness: 180\n");
    // Another runner is another board, on the driver's defaults.
    ASSERT_EQ(Board("v4l2-ctl -C brightness"), 0) << output_;
    EXPECT_EQ(output_, "brightness: 128\n");
}

TEST_F(SharedBoardRunnerTest, ASecondStreamerGetsEbusyWhileOthersTuneTheStreamingProgramsPicture)
{
    // Three programs: the probe streams camera 0 through the library;
    // v4l2-ctl and a second probe try to take the camera, then tune it.
    ASSERT_EQ(Board(StartStreaming() +
                    "v4l2-ctl -d /dev/video0 --set-fmt-video=width=640,height=360; "
                    "v4l2-ctl -d /dev/video0 --stream-mmap --stream-count=1; " +
                    probe_ + " frames 0 1; echo second streamer $?; " + probe_ +
                    " brightness 0 230 | grep ^brightness; "
                    "v4l2-ctl -d /dev/video0 -c contrast=140 && echo contrast set; "
                    "touch stop; wait; echo first streamer $?"),
              0)
        << output_;
    EXPECT_TRUE(Says("VIDIOC_S_FMT: failed: Device or resource busy")) << output_;
    EXPECT_TRUE(Says("VIDIOC_REQBUFS returned -1 (Device or resource busy)")) << output_;
    EXPECT_TRUE(Says("set input: Device or resource busy\n")) << output_; // the library's second streamer
    EXPECT_TRUE(Says("second streamer 1\n")) << output_;
    EXPECT_TRUE(Says("brightness 230\ncontrast set\n")) << output_;
    EXPECT_TRUE(Says("first streamer 0\n")) << output_;
    // The streaming program's frames brightened: the last ones show the
    // other programs' controls.
    const std::vector<unsigned> lumas = Lumas(Read("frames.txt"));
    ASSERT_GE(lumas.size(), 61u) << Read("frames.txt");
    EXPECT_GE(lumas.back(), lumas.front() + 60) << Read("frames.txt");

    // A program that ended released the camera.
    ASSERT_EQ(Board(StartStreaming() + "touch stop; wait; v4l2-ctl -d /dev/video0 --stream-mmap --stream-count=3"), 0)
        << output_;
    EXPECT_TRUE(Says("<<<")) << output_;
}

TEST_F(SharedBoardRunnerTest, AKilledStreamerReleasesTheCamera)
{
    ASSERT_EQ(Board(StartStreaming() + "v4l2-ctl -d /dev/video0 --stream-mmap --stream-count=1; "
                                       "kill -9 $!; wait; "
                                       "v4l2-ctl -d /dev/video0 --stream-mmap --stream-count=3"),
              0)
        << output_;
    EXPECT_TRUE(Says("VIDIOC_REQBUFS returned -1 (Device or resource busy)")) << output_; // while it lived
    EXPECT_TRUE(Says("<<<")) << output_;                                                  // once killed
    EXPECT_FALSE(Lumas(Read("frames.txt")).empty());
}

} // namespace
