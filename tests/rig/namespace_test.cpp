// namespace_test.cpp - a rig of simulated boards on this machine
// (scripts/sim-rig.sh): every board in a network namespace of its own with
// its own clock offset and drift, all on one trigger line, a PTP
// grandmaster, zelisp-rtsp on every board and zelisp-rig recording them.
//
// The truth the recording is judged by: the trigger line pulses at the
// host's monotonic times k x period, so a frame recorded at time t on the
// PTP time line (the host's real-time clock, which ptp4l serves) was taken
// at pulse k = (t - (realtime - monotonic)) / period, rounded. Each camera
// numbers the frames it takes, and paints the number into the picture:
// along a stream the pulse and the painted number advance together (no frame
// lost or misplaced), and a frame set holds one pulse from every board.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <map>
#include <regex>
#include <set>

#include "recording.h"
#include "rig_processes.h"

namespace {

using rigtest::CsvRow;
using rigtest::read_text;

constexpr int kNotHere = 77; // sim-rig.sh: the rig cannot run on this machine
// A rig's whole run: the boards' clocks get 60 s to settle, the recording
// at most 15 s; the rest is a loaded machine's margin. On time out the
// script is sent SIGTERM and takes its namespaces and processes down.
constexpr int kMostSeconds = 240;

struct Rig {
    int status = -1;
    std::string dir;   // the script's output folder
    std::string err;   // the script's own lines
    int64_t period_ns = 0;
    int64_t realtime_minus_monotonic_ns = 0;

    std::string recording() const { return dir + "/recording"; }
    int recorder_status() const { return std::atoi(read_text(dir + "/recorder.status").c_str()); }
    std::string recorder_err() const { return read_text(dir + "/recorder.err"); }

    // The pulse of the trigger line a time on the PTP time line falls on,
    // and how far from it.
    int64_t pulse(int64_t time_ns, int64_t *residual_ns = nullptr) const
    {
        int64_t host = time_ns - realtime_minus_monotonic_ns;
        int64_t k = int64_t(std::llround(double(host) / double(period_ns)));
        if (residual_ns)
            *residual_ns = host - k * period_ns;
        return k;
    }
};

// Runs the rig; skips the test where namespaces cannot be made, except in
// CI, where the rig must run.
Rig run_rig(const std::string &folder, const std::string &options)
{
    Rig rig;
    rig.dir = folder + "/rig";
    rigtest::Finished run = rigtest::run(folder, std::string("'" SIM_RIG_SCRIPT "' --build '" BUILD_DIR "' --out '") +
                                                     rig.dir + "' " + options,
                                         kMostSeconds);
    rig.status = run.status;
    rig.err = run.err;
    std::ifstream env(rig.dir + "/rig.env");
    for (std::string line; std::getline(env, line);) {
        size_t equals = line.find('=');
        if (equals == std::string::npos)
            continue;
        int64_t value = std::stoll(line.substr(equals + 1));
        if (line.compare(0, equals, "period_ns") == 0)
            rig.period_ns = value;
        else if (line.compare(0, equals, "realtime_minus_monotonic_ns") == 0)
            rig.realtime_minus_monotonic_ns = value;
    }
    return rig;
}

#define RUN_RIG_OR_SKIP(rig)                                                                                      \
    do {                                                                                                          \
        if ((rig).status == kNotHere && !std::getenv("ZELISP_CI"))                                                \
            GTEST_SKIP() << (rig).err;                                                                            \
        ASSERT_EQ((rig).status, 0) << (rig).err;                                                                  \
    } while (0)

std::string board_stream(int board, int camera)
{
    return "10.88.0." + std::to_string(10 + board) + "-8554-group-" + std::to_string(camera);
}

// ptp4l's "selected local clock 5a71a7.fffe.4c84c7 as best master", as RFC
// 7273 writes a clock identity: 5A-71-A7-FF-FE-4C-84-C7.
std::string grandmaster(const std::string &ptp4l_log)
{
    std::smatch found;
    if (!std::regex_search(ptp4l_log, found, std::regex(R"(selected local clock ([0-9a-f]{6})\.([0-9a-f]{4})\.([0-9a-f]{6}))")))
        return "";
    std::string hex = found[1].str() + found[2].str() + found[3].str(), id;
    for (size_t i = 0; i < hex.size(); i += 2)
        id += (i ? "-" : "") + hex.substr(i, 2);
    std::transform(id.begin(), id.end(), id.begin(), ::toupper);
    return id;
}

int64_t percentile(std::vector<int64_t> values, double p)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    size_t rank = size_t(std::ceil(p / 100 * double(values.size())));
    return values[rank == 0 ? 0 : rank - 1];
}

// The frames of every stream against the recording: each recorded, in
// order, numbered by the sensor without a gap, each on the pulse that its
// number says. Returns each frame's pulse.
std::map<std::pair<std::string, uint64_t>, int64_t> check_stream(const Rig &rig, const std::vector<CsvRow> &rows,
                                                                 const std::string &name, size_t at_least,
                                                                 bool on_pulses = true)
{
    std::map<std::pair<std::string, uint64_t>, int64_t> pulse_of;
    std::vector<CsvRow> listed = rigtest::of_stream(rows, name);
    std::vector<rigtest::DecodedFrame> frames = rigtest::decode_recording(rig.recording(), name);
    EXPECT_EQ(frames.size(), listed.size()) << name;
    EXPECT_GE(listed.size(), at_least) << name;
    int64_t first_pulse = 0;
    for (size_t i = 0; i < listed.size() && i < frames.size(); ++i) {
        EXPECT_EQ(listed[i].frame, i) << name;
        if (!frames[i].number) {
            ADD_FAILURE() << name << " frame " << i << " carries no frame number";
            continue;
        }
        int64_t k = rig.pulse(listed[i].time_ns);
        if (i == 0)
            first_pulse = k - int64_t(*frames[i].number);
        if (on_pulses) {
            EXPECT_EQ(k - int64_t(*frames[i].number), first_pulse) << name << " frame " << i << " lost or misplaced";
        } else if (i > 0) {
            EXPECT_EQ(*frames[i].number, *frames[i - 1].number + 1) << name << " frame " << i << " lost";
        }
        pulse_of[{name, i}] = k;
    }
    return pulse_of;
}

TEST(Namespaces, PtpRigLinesUpEveryBoardOnThePulses)
{
    std::string folder = rigtest::test_folder();
    Rig rig = run_rig(folder, "--boards 3 --cameras 2 --size 320x180 --seconds 15 --offsets 37,-120,80 "
                              "--drifts 50,-50,20");
    RUN_RIG_OR_SKIP(rig);
    EXPECT_EQ(rig.recorder_status(), 0) << rig.recorder_err();
    nlohmann::json summary = rigtest::read_json(rig.recording() + "/summary.json");
    ASSERT_EQ(summary["servers"].size(), 3u);
    for (const auto &server : summary["servers"]) {
        for (const auto &stream : server["streams"]) {
            EXPECT_EQ(stream["state"], "recorded") << stream;
            EXPECT_EQ(stream["lost_frames"], 0) << stream;
        }
    }

    // Every server named the grandmaster ptp4l chose, and tied its RTP time
    // to it; every board saw its own clock's offset against it.
    std::string master = grandmaster(read_text(rig.dir + "/ptp4l.log"));
    ASSERT_FALSE(master.empty()) << read_text(rig.dir + "/ptp4l.log");
    const double own_clock_ms[] = {37, -120, 80}; // the boards' offsets (their drift adds a little)
    for (int board = 1; board <= 3; ++board) {
        std::string sdp = read_text(rig.recording() + "/10.88.0." + std::to_string(10 + board) + "-8554-group.sdp");
        std::regex signalled("a=ts-refclk:ptp=IEEE1588-2008:" + master + "\r?\na=mediaclk:direct=\\d+");
        EXPECT_EQ(std::distance(std::sregex_iterator(sdp.begin(), sdp.end(), signalled), std::sregex_iterator()), 2)
            << sdp;
        std::string board_err = read_text(rig.dir + "/board" + std::to_string(board) + ".err");
        std::smatch own;
        ASSERT_TRUE(std::regex_search(board_err, own,
                                      std::regex("zelisp-rtsp: clock ptp:0: synced after [0-9.]+ s to grandmaster " +
                                                 master + ", .*this machine's real-time clock is ([0-9.]+) ms "
                                                          "(ahead of|behind) it\n")))
            << board_err;
        double seen_ms = std::stod(own[1]) * (own[2] == "behind" ? -1 : 1);
        EXPECT_NEAR(seen_ms, own_clock_ms[board - 1], 3) << board_err;
        EXPECT_EQ(read_text(rig.dir + "/board" + std::to_string(board) + ".status"), "0\n")
            << "the server stops cleanly on SIGTERM\n" << board_err;
    }

    // Every frame, its painted number and its pulse; a frame set is one
    // pulse from every board, and its skew is the goal's.
    std::vector<CsvRow> rows = rigtest::read_framesets(rig.recording() + "/framesets.csv");
    std::map<std::pair<std::string, uint64_t>, int64_t> pulse_of;
    for (int board = 1; board <= 3; ++board)
        for (int camera = 0; camera < 2; ++camera) {
            auto pulses = check_stream(rig, rows, board_stream(board, camera), 400);
            pulse_of.insert(pulses.begin(), pulses.end());
        }
    std::vector<int64_t> skews;
    for (const auto &set : rigtest::by_set(rows)) {
        std::set<int64_t> pulses;
        for (const CsvRow &row : set.second)
            pulses.insert(pulse_of[{row.stream, row.frame}]);
        EXPECT_EQ(pulses.size(), 1u) << "set " << set.first;
        if (set.second.size() == 6)
            skews.push_back(int64_t(set.second[0].skew_us * 1000));
    }
    ASSERT_GE(skews.size(), 400u);
    // The boards' clocks follow the grandmaster through GStreamer's PTP
    // client, which stamps PTP messages in user space: a machine loaded far
    // beyond this rig delays those stamps and the clocks wander (the clock
    // lines and the load average say so).
    EXPECT_LT(percentile(skews, 99), 1000000)
        << "cross-board skew p99 within 1 ms; load average " << read_text("/proc/loadavg")
        << read_text(rig.dir + "/board1.err") << read_text(rig.dir + "/board2.err")
        << read_text(rig.dir + "/board3.err");
}

TEST(Namespaces, ABoardSwitchedOffMidRunIsReportedAndTheRestRecordedWhole)
{
    std::string folder = rigtest::test_folder();
    Rig rig = run_rig(folder, "--clock system --boards 2 --cameras 2 --size 320x180 --seconds 8 --offsets 0,0 --drifts 0,0 "
                              "--kill-board 2 "
                              "--kill-after 3");
    RUN_RIG_OR_SKIP(rig);
    EXPECT_EQ(rig.recorder_status(), 1) << rig.recorder_err();
    std::string err = rig.recorder_err();
    EXPECT_TRUE(std::regex_search(err, std::regex("zelisp-rig: lost rtsp://10\\.88\\.0\\.12:8554/group after [0-9.]+ s: "
                                                  "the connection to the server broke \\(.+\\); 2 other streams "
                                                  "record on\n")))
        << err;
    nlohmann::json summary = rigtest::read_json(rig.recording() + "/summary.json");
    EXPECT_EQ(summary["exit_status"], 1);
    ASSERT_EQ(summary["problems"].size(), 1u);
    for (int board = 1; board <= 2; ++board) {
        for (const auto &stream : summary["servers"][board - 1]["streams"]) {
            EXPECT_EQ(stream["state"], board == 1 ? "recorded" : "lost") << stream;
            EXPECT_EQ(stream["lost_frames"], 0) << stream;
        }
    }
    // What was recorded is whole, on both boards: every frame in its file
    // and in the CSV, none missing before the end. (On the boards' own
    // clocks the senders' reports move the frames' times while the
    // recording starts: their pulses are not judged here.)
    std::vector<CsvRow> rows = rigtest::read_framesets(rig.recording() + "/framesets.csv");
    for (int camera = 0; camera < 2; ++camera) {
        check_stream(rig, rows, board_stream(1, camera), 200, false);
        check_stream(rig, rows, board_stream(2, camera), 40, false);
    }
}

TEST(Namespaces, UnsynchronisedRigShowsEachBoardsOwnClock)
{
    std::string folder = rigtest::test_folder();
    // No PTP: each server stamps on its board's own clock, 37 ms ahead of
    // the host's or 120 ms behind it, and the recorder has only the
    // servers' reports (RTCP) to place their frames by.
    Rig rig = run_rig(folder, "--clock system --boards 2 --cameras 1 --size 320x180 --seconds 10 --offsets 37,-120 "
                              "--drifts 0,0");
    RUN_RIG_OR_SKIP(rig);
    EXPECT_EQ(rig.recorder_status(), 0) << rig.recorder_err();
    std::vector<CsvRow> rows = rigtest::read_framesets(rig.recording() + "/framesets.csv");
    // Where a board's frames land between the pulses, once the reports have
    // moved each stream onto its sender's clock (the second half).
    std::vector<int64_t> landing;
    for (int board = 1; board <= 2; ++board) {
        std::vector<CsvRow> listed = rigtest::of_stream(rows, board_stream(board, 0));
        ASSERT_GE(listed.size(), 200u);
        std::vector<int64_t> residuals;
        for (size_t i = listed.size() / 2; i < listed.size(); ++i) {
            int64_t residual = 0;
            rig.pulse(listed[i].time_ns, &residual);
            residuals.push_back(residual);
        }
        landing.push_back(percentile(residuals, 50));
    }
    // The boards' clocks are 157 ms apart: frames of one pulse land that
    // far apart, modulo the period.
    double period_ms = double(rig.period_ns) / 1e6;
    double apart_ms = std::remainder(double(landing[0] - landing[1]) / 1e6, period_ms);
    EXPECT_NEAR(apart_ms, std::remainder(37.0 - -120.0, period_ms), 2.0);
    nlohmann::json summary = rigtest::read_json(rig.recording() + "/summary.json");
    EXPECT_GT(summary["frame_sets"]["skew_ns"]["p50"].get<double>(), 5e6) << "the boards' clocks show as skew";
}

TEST(Namespaces, ARecorderWhoseClockNeverAnswersSaysSo)
{
    std::string folder = rigtest::test_folder();
    // The servers run on their own clocks; the recorder asks for PTP, which
    // no one serves on this network.
    Rig rig = run_rig(folder, "--clock system --boards 1 --cameras 1 --size 320x180 --seconds 5 "
                              "--recorder-clock ptp:0 --recorder-sync-timeout 3");
    RUN_RIG_OR_SKIP(rig);
    EXPECT_EQ(rig.recorder_status(), 3);
    EXPECT_NE(rig.recorder_err().find("zelisp-rig: the ptp:0 clock did not sync within 3 s: no PTP grandmaster "
                                      "answered on domain 0 on veth0 (is ptp4l running, and is there a multicast "
                                      "route, 224.0.0.0/4, on that interface?)\n"),
              std::string::npos)
        << rig.recorder_err();
}

} // namespace
