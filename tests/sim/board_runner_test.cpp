// Whole boards under zelisp-sim-run, as a rig of several boards on one
// machine is simulated: each board keeps its own clocks, the same in every
// process of the board and its children, and boards wired to one trigger
// line take their frames together, each stamping them with its own clock. The host's time is read with the
// clock_gettime system call, which no board shifts; the board probe
// (tests/sim/probe) prints what a board's programs read.
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "runner_command.h"

namespace {

constexpr int64_t kSecond = 1000000000;

int64_t Host(clockid_t clock)
{
    timespec now{};
    syscall(SYS_clock_gettime, clock, &now);
    return int64_t(now.tv_sec) * kSecond + now.tv_nsec;
}

// The host's clocks at one moment.
struct HostTime {
    int64_t monotonic, boottime, realtime, tai;
    static HostTime Now()
    {
        HostTime now;
        now.monotonic = Host(CLOCK_MONOTONIC);
        now.boottime = Host(CLOCK_BOOTTIME);
        now.realtime = Host(CLOCK_REALTIME);
        now.tai = Host(CLOCK_TAI);
        return now;
    }
};

// One "clocks" line of the probe, by key.
using Reading = std::map<std::string, int64_t>;

std::vector<Reading> Readings(const std::string &output)
{
    std::vector<Reading> readings;
    std::istringstream lines(output);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.compare(0, 6, "start=") != 0)
            continue;
        Reading reading;
        std::istringstream words(line);
        std::string word;
        while (words >> word) {
            const size_t equals = word.find('=');
            reading[word.substr(0, equals)] = std::stoll(word.substr(equals + 1));
        }
        readings.push_back(reading);
    }
    return readings;
}

struct Board {
    int64_t offset_ns;
    int64_t drift_ppb;
    std::string Ini() const
    {
        return "[board]\nclock_offset_ms = " + Decimal(offset_ns, 6) + "\nclock_drift_ppm = " + Decimal(drift_ppb, 3) +
               "\n";
    }
    // units / 10^decimals, written out exactly ("-750.000000").
    static std::string Decimal(int64_t units, int decimals)
    {
        char text[48];
        int64_t scale = 1;
        for (int i = 0; i < decimals; ++i)
            scale *= 10;
        const int64_t magnitude = units < 0 ? -units : units;
        std::snprintf(text, sizeof text, "%s%lld.%0*lld", units < 0 ? "-" : "", static_cast<long long>(magnitude / scale),
                      decimals, static_cast<long long>(magnitude % scale));
        return text;
    }
    // What the board reads when the host's clock reads `host`, the host's
    // monotonic clock `monotonic`, for a board started at `start`.
    int64_t Expected(int64_t host, int64_t monotonic, int64_t start) const
    {
        return host + offset_ns + int64_t(__int128(monotonic - start) * drift_ppb / kSecond);
    }
    // The host's monotonic time at which the board's monotonic clock read
    // `board`: what a recorder that knows the board's clock recovers.
    int64_t HostTime(int64_t board, int64_t start) const
    {
        return start + int64_t(__int128(board - offset_ns - start) * kSecond / (kSecond + drift_ppb));
    }
};

class BoardRunnerTest : public zelisp_test::RunnerFixture {
protected:
    void SetUp() override
    {
        RunnerFixture::SetUp();
        if (IsSkipped())
            return;
        probe_ = zelisp_test::BesideTests("zelisp-sim-board-probe");
        ASSERT_FALSE(probe_.empty()) << "the board probe is built with the simulator's tests";
        dir_ = ::testing::TempDir() + "board-runner-" + std::to_string(getpid());
        ASSERT_EQ(system(("mkdir -p " + dir_).c_str()), 0);
    }
    void TearDown() override
    {
        if (!dir_.empty())
            system(("rm -rf " + dir_).c_str());
        RunnerFixture::TearDown();
    }
    std::string Config(const std::string &name, const std::string &text)
    {
        const std::string path = dir_ + "/" + name;
        FILE *file = fopen(path.c_str(), "w");
        EXPECT_NE(file, nullptr);
        fputs(text.c_str(), file);
        fclose(file);
        return path;
    }
    // Every reading of every clock lies between what the board should read
    // at the host times taken before and after the programs ran.
    static void ExpectBoardTime(const Reading &read, const Board &board, const HostTime &before, const HostTime &after)
    {
        const int64_t start = read.at("start");
        const struct {
            const char *key;
            int64_t HostTime::*clock;
            int64_t unit; // of the reading, in nanoseconds
        } clocks[] = {{"monotonic", &HostTime::monotonic, 1},     {"boottime", &HostTime::boottime, 1},
                      {"realtime", &HostTime::realtime, 1},       {"tai", &HostTime::tai, 1},
                      {"timespec_get", &HostTime::realtime, 1},   {"timeofday_us", &HostTime::realtime, 1000},
                      {"time_s", &HostTime::realtime, kSecond}};
        for (const auto &clock : clocks) {
            const int64_t low = board.Expected(before.*clock.clock, before.monotonic, start);
            const int64_t high = board.Expected(after.*clock.clock, after.monotonic, start);
            const int64_t value = read.at(clock.key) * clock.unit;
            EXPECT_GE(value, low - clock.unit - 1000) << clock.key; // a unit's truncation, a microsecond's rounding
            EXPECT_LE(value, high + 1000) << clock.key;
        }
    }

    std::string probe_;
    std::string dir_;
};

TEST_F(BoardRunnerTest, EachBoardKeepsItsOwnClocksInEveryProcess)
{
    const Board boards[] = {{1500000000, 40000}, {-750000000, -25000}};
    for (const Board &board : boards) {
        SCOPED_TRACE(board.Ini());
        const std::string config = Config("clock.ini", board.Ini());
        const HostTime before = HostTime::Now();
        // The shell and the two programs it starts are one board.
        ASSERT_EQ(zelisp_test::RunCommand(runner_ + " --config " + config + " -- sh -c '" + probe_ + " clocks; " + probe_ +
                                 " clocks'",
                             &output_),
                  0)
            << output_;
        const HostTime after = HostTime::Now();
        const std::vector<Reading> readings = Readings(output_);
        ASSERT_EQ(readings.size(), 2u) << output_;
        // The board started when its runner did.
        EXPECT_EQ(readings[0].at("start"), readings[1].at("start"));
        EXPECT_GE(readings[0].at("start"), before.monotonic);
        EXPECT_LE(readings[0].at("start"), after.monotonic);
        for (const Reading &read : readings)
            ExpectBoardTime(read, board, before, after);
    }

    // Without a [board] section the board is on the host's time.
    const HostTime before = HostTime::Now();
    ASSERT_EQ(zelisp_test::RunCommand(runner_ + " -- " + probe_ + " clocks", &output_), 0) << output_;
    const HostTime after = HostTime::Now();
    ASSERT_EQ(Readings(output_).size(), 1u) << output_;
    ExpectBoardTime(Readings(output_)[0], Board{0, 0}, before, after);
}

TEST_F(BoardRunnerTest, DriftGrowsFromTheBoardsStartAndChildrenInheritIt)
{
    const Board board{250000000, 40000};
    const std::string config = Config("drift.ini", board.Ini());
    // A board that started eleven days ago has drifted 40 s at 40 ppm:
    // far beyond what the time the programs take could blur.
    const int64_t long_ago = Host(CLOCK_MONOTONIC) - 1000000 * kSecond;
    const std::string by_hand = zelisp_test::PreloadByHand() + "ZELISP_SIM_CONFIG=" + config + " ";
    HostTime before = HostTime::Now();
    ASSERT_EQ(zelisp_test::RunCommand(by_hand + "ZELISP_SIM_BOARD_START=" + std::to_string(long_ago) + " sh -c '" + probe_ +
                             " clocks; " + probe_ + " clocks'",
                         &output_),
              0)
        << output_;
    HostTime after = HostTime::Now();
    std::vector<Reading> readings = Readings(output_);
    ASSERT_EQ(readings.size(), 2u) << output_;
    for (const Reading &read : readings) {
        EXPECT_EQ(read.at("start"), long_ago);
        ExpectBoardTime(read, board, before, after);
        EXPECT_GT(read.at("monotonic") - after.monotonic, 40 * kSecond);
    }

    // A process started by hand outside any board (this test program is
    // one) starts a board and hands its start down to the programs it runs.
    before = HostTime::Now();
    ASSERT_EQ(zelisp_test::RunCommand(by_hand + "env -u ZELISP_SIM_BOARD_START sh -c 'echo start=$ZELISP_SIM_BOARD_START; " + probe_ + " clocks'", &output_), 0)
        << output_;
    readings = Readings(output_);
    ASSERT_EQ(readings.size(), 2u) << output_;
    EXPECT_EQ(readings[0].at("start"), readings[1].at("start"));
    EXPECT_GE(readings[1].at("start"), before.monotonic);
}

// The frames a board's probe printed, each as the host's monotonic time
// its board's stamp stands for.
std::vector<int64_t> FrameHostTimes(const std::string &output, const Board &board)
{
    std::vector<int64_t> times;
    std::istringstream lines(output);
    std::string line;
    int64_t start = 0;
    while (std::getline(lines, line)) {
        if (line.compare(0, 6, "start=") == 0)
            start = std::stoll(line.substr(6));
        unsigned sequence;
        long long stamp_us;
        if (std::sscanf(line.c_str(), "frame %u %lld", &sequence, &stamp_us) == 2)
            times.push_back(board.HostTime(stamp_us * 1000, start));
    }
    return times;
}

TEST_F(BoardRunnerTest, BoardsOnOneTriggerLineTakeTheirFramesOnItsPulses)
{
    // Two boards far apart in time, one wired with a longer cable, on a
    // 60 Hz line; cameras at the line's rate take every pulse.
    const std::string line = "[trigger_line rig]\nfps = 60\nphase_us = 1234.5\n[camera 0]\nfps = 60\n";
    const Board near{1500000000, 40000}, far{-750000000, -25000};
    const int64_t delay_ns = 250000, period_ns = (kSecond + 30) / 60, phase_ns = 1234500;
    const std::string near_ini = Config("near.ini", near.Ini() + "trigger_line = rig\n" + line);
    const std::string far_ini =
        Config("far.ini", far.Ini() + "trigger_line = rig\ntrigger_delay_us = 250\n" + line);
    const std::string program = "sh -c 'echo start=$ZELISP_SIM_BOARD_START; " + probe_ + " frames 0 120 external'";
    ASSERT_EQ(zelisp_test::RunCommand(runner_ + " --config " + near_ini + " -- " + program + " > " + dir_ +
                                          "/near.txt & " + runner_ + " --config " + far_ini + " -- " + program +
                                          " > " + dir_ + "/far.txt; wait $!",
                                      &output_),
              0)
        << output_;
    std::string near_output, far_output;
    ASSERT_EQ(zelisp_test::RunCommand("cat " + dir_ + "/near.txt", &near_output), 0);
    ASSERT_EQ(zelisp_test::RunCommand("cat " + dir_ + "/far.txt", &far_output), 0);
    const std::vector<int64_t> near_times = FrameHostTimes(near_output, near);
    const std::vector<int64_t> far_times = FrameHostTimes(far_output, far);
    ASSERT_EQ(near_times.size(), 120u) << near_output;
    ASSERT_EQ(far_times.size(), 120u) << far_output;

    // Corrected by its board's known clock, every frame falls on a pulse
    // of the line (the far board's a cable's delay later).
    auto off_pulse = [&](int64_t at, int64_t delay) {
        const int64_t from = ((at - phase_ns - delay) % period_ns + period_ns) % period_ns;
        return std::min(from, period_ns - from);
    };
    for (const int64_t at : near_times)
        EXPECT_LE(off_pulse(at, 0), 2000);
    for (const int64_t at : far_times)
        EXPECT_LE(off_pulse(at, delay_ns), 2000);
    // Frames of one pulse on the two boards are the delay apart: the true
    // skew a recorder should recover.
    size_t together = 0;
    for (const int64_t at : near_times)
        for (const int64_t other : far_times)
            if (std::llabs(other - at - delay_ns) < period_ns / 2) {
                EXPECT_LE(std::llabs(other - at - delay_ns), 100000) << "frames of one pulse 100 us apart or more";
                ++together;
            }
    EXPECT_GE(together, 10u) << "the two boards' captures did not overlap";
}

} // namespace
