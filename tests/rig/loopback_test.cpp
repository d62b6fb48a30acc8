// loopback_test.cpp - zelisp-rtsp's clock, group and encoder options and the
// recorder zelisp-rig, run as a user runs them: the server under
// zelisp-sim-run, the recorder beside it, over loopback, on an NTP clock the
// test serves itself. Judged by their exit status and their exact lines,
// the SDP the server sends, and the frame numbers the simulated sensors
// painted into the frames the recorder wrote.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <regex>

#include "ntp_responder.h"
#include "recording.h"
#include "rig_processes.h"

namespace {

using rigtest::Background;
using rigtest::Finished;
using rigtest::NtpResponder;
using rigtest::on_board;
using rigtest::run;
using rigtest::test_folder;

// Two cameras whose frames the ISP hands out at 320x180, 30 fps, on a board
// whose clocks are a quarter second ahead of this machine's.
const char *kBoard = "[cameras]\npresent = 0, 1\n"
                     "[camera 0]\nview0 = NV12 320x180\n"
                     "[camera 1]\nview0 = NV12 320x180\n"
                     "[board]\nclock_offset_ms = 250\n";

// One 90 kHz RTP clock tick: the resolution of a time that crossed RTP.
constexpr double kRtpTickUs = 1e6 / 90000;

std::string write_board(const std::string &folder, const char *text = kBoard)
{
    std::string path = folder + "/board.ini";
    std::ofstream(path) << text;
    return path;
}

std::string rig_command(const std::string &arguments)
{
    return "env ASAN_OPTIONS=detect_leaks=0 '" ZELISP_RIG "' " + arguments;
}

// zelisp-rtsp on the simulated board over loopback; `url` gets the group
// mount's URL once it serves.
struct Server {
    Background process;
    std::string url;

    Server(const std::string &folder, const std::string &options)
        : process(folder, "server",
                  on_board(write_board(folder), "'" ZELISP_RTSP "' --address 127.0.0.1 --port 0 " + options))
    {
        std::string line = process.wait_for_line("serving rtsp://.*/group", 90);
        std::smatch found;
        if (std::regex_search(line, found, std::regex("rtsp://\\S+")))
            url = found.str();
    }
};

// The session description a DESCRIBE request of `url` gets.
std::string describe(const std::string &url)
{
    std::smatch parts;
    if (!std::regex_match(url, parts, std::regex(R"(rtsp://127\.0\.0\.1:(\d+)(/.*))")))
        return "";
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    timeval limit{20, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(uint16_t(std::stoi(parts[1])));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::string reply;
    if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0) {
        std::string request = "DESCRIBE " + url + " RTSP/1.0\r\nCSeq: 1\r\nAccept: application/sdp\r\n\r\n";
        send(fd, request.data(), request.size(), 0);
        char chunk[4096];
        for (ssize_t got; (got = recv(fd, chunk, sizeof chunk, 0)) > 0;) {
            reply.append(chunk, size_t(got));
            std::smatch length;
            size_t body = reply.find("\r\n\r\n");
            if (body != std::string::npos && std::regex_search(reply, length, std::regex("Content-Length: (\\d+)")) &&
                reply.size() >= body + 4 + std::stoul(length[1]))
                break;
        }
    }
    close(fd);
    return reply;
}

std::vector<std::string> sdp_lines(const std::string &sdp, const std::string &prefix)
{
    std::vector<std::string> found;
    std::istringstream lines(sdp);
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (line.compare(0, prefix.size(), prefix) == 0)
            found.push_back(line);
    }
    return found;
}

TEST(Loopback, ServerOptionsAreCheckedWithASentence)
{
    std::string folder = test_folder();
    std::string board = write_board(folder);
    const std::pair<std::string, std::string> refusals[] = {
        {"--clock ptb", "zelisp-rtsp: --clock: the clock is system, ptp[:DOMAIN] or ntp:HOST[:PORT], got 'ptb'\n"},
        {"--clock ptp:256", "zelisp-rtsp: --clock: the PTP domain is a number 0..255, got '256'\n"},
        {"--clock ntp:host:0",
         "zelisp-rtsp: --clock: ntp takes a server as ntp:HOST or ntp:HOST:PORT (port 1..65535), got 'ntp:host:0'\n"},
        {"--interface lo",
         "zelisp-rtsp: --interface chooses the network interface of the PTP clock: it needs --clock ptp\n"},
        {"--trigger external", "zelisp-rtsp: --trigger sets the group's trigger mode: it needs --group\n"},
        {"--group 0,1 --trigger sideways",
         "zelisp-rtsp: --trigger takes none, or internal or external with up to three numbers, got 'sideways'\n"},
        {"--group 1,1",
         "zelisp-rtsp: --group takes up to 8 different cameras 0..11 separated by commas, got '1,1'\n"},
        {"--size 321x180",
         "zelisp-rtsp: --size takes [MOUNT=]WIDTHxHEIGHT, MOUNT camN or group, even sizes 16..8192, got '321x180'\n"},
        {"--cameras 0 --size cam1=320x180", "zelisp-rtsp: --size cam1=...: no mount /cam1 is served\n"},
        {"--encoder v4l2",
         "zelisp-rtsp: --encoder v4l2: this board has no V4L2 memory-to-memory H.264 encoder (GStreamer lists no "
         "v4l2h264enc)\n"},
        {"--codec jpeg --encoder x264", "zelisp-rtsp: --encoder takes auto, v4l2, jpegenc with --codec jpeg, got 'x264'\n"},
        {"--sync-timeout 0", "zelisp-rtsp: --sync-timeout takes seconds, more than 0 and up to 3600\n"},
        {"--codec jpeg --size 320x180",
         "zelisp-rtsp: --size 320x180: JPEG over RTP takes sizes in steps of 8 pixels (320x176 or 320x184)\n"},
        {"--buffers 9", "zelisp-rtsp: --buffers takes 3..8 capture buffers per camera, got 9\n"},
    };
    Finished absent = run(folder, on_board(board, "'" ZELISP_RTSP "' --group 1,4"));
    EXPECT_EQ(absent.status, 1);
    EXPECT_EQ(absent.err, "zelisp-rtsp: --group: the platform lists no camera 4 (it lists 0,1)\n");
    for (const auto &refusal : refusals) {
        Finished server = run(folder, on_board(board, "'" ZELISP_RTSP "' " + refusal.first));
        EXPECT_EQ(server.status, 2) << refusal.first;
        EXPECT_EQ(server.err, refusal.second) << refusal.first;
        EXPECT_EQ(server.out, "") << refusal.first;
    }
}

TEST(Loopback, NtpClockIsSignalledInTheSdpAndItsStateIsReadable)
{
    std::string folder = test_folder();
    NtpResponder ntp;
    std::string clock = "ntp:127.0.0.1:" + std::to_string(ntp.port());
    Server server(folder, "--group 0,1 --trigger internal --clock " + clock + " --clock-status clock.json");
    ASSERT_FALSE(server.url.empty()) << server.process.err();
    EXPECT_EQ(server.process.out(), "zelisp-rtsp: serving " + server.url + "\n")
        << "the group's cameras have no mounts of their own";

    // Every stream of the session names the clock and ties its RTP time to it.
    std::string reply = describe(server.url);
    ASSERT_EQ(reply.compare(0, 15, "RTSP/1.0 200 OK"), 0) << reply;
    EXPECT_EQ(sdp_lines(reply, "m=video").size(), 2u) << reply;
    std::vector<std::string> refclk = sdp_lines(reply, "a=ts-refclk:");
    std::vector<std::string> mediaclk = sdp_lines(reply, "a=mediaclk:");
    ASSERT_EQ(refclk.size(), 2u) << reply;
    ASSERT_EQ(mediaclk.size(), 2u) << reply;
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(refclk[size_t(i)], "a=ts-refclk:ntp=127.0.0.1:" + std::to_string(ntp.port()));
        EXPECT_TRUE(std::regex_match(mediaclk[size_t(i)], std::regex("a=mediaclk:direct=\\d+"))) << mediaclk[size_t(i)];
    }

    // The state, told and kept: synced to our server, and the board's own
    // clock a quarter second ahead of it.
    std::string err = server.process.err();
    EXPECT_NE(err.find("zelisp-rtsp: H.264 encoder: x264enc (software: this board has no V4L2 memory-to-memory H.264 "
                       "encoder)\n"),
              std::string::npos)
        << err;
    EXPECT_TRUE(std::regex_search(err, std::regex("zelisp-rtsp: clock " + clock +
                                                  ": synced after [0-9.]+ s, offset -?\\d+ µs, path delay \\d+ µs; this "
                                                  "machine's real-time clock is 2[45]\\d\\.\\d{3} ms ahead of it\n")))
        << err;
    nlohmann::json status = rigtest::read_json(folder + "/clock.json");
    EXPECT_EQ(status["clock"], clock);
    EXPECT_EQ(status["synced"], true);
    EXPECT_EQ(status["interface"], nullptr);
    EXPECT_EQ(status["grandmaster"], nullptr);
    EXPECT_GT(status["seconds_to_sync"].get<double>(), 0);
    EXPECT_NEAR(status["system_offset_ns"].get<double>(), 250e6, 5e6);
    EXPECT_GT(ntp.answered(), 0);
    EXPECT_EQ(server.process.stop(), 0) << "SIGTERM ends the server cleanly";
}

TEST(Loopback, RecorderLinesUpAGroupMountWhoseStreamsShareTheirTimes)
{
    std::string folder = test_folder();
    NtpResponder ntp;
    std::string clock = "ntp:127.0.0.1:" + std::to_string(ntp.port());
    Server server(folder, "--group 0,1 --trigger internal --codec jpeg --clock " + clock);
    ASSERT_FALSE(server.url.empty()) << server.process.err();
    Finished recorder = run(folder, rig_command("record --clock " + clock + " --seconds 3 --out take " + server.url));
    ASSERT_EQ(recorder.status, 0) << recorder.err;
    EXPECT_EQ(recorder.out, "");
    std::string port = server.url.substr(server.url.rfind(':') + 1, server.url.find('/', 7) - server.url.rfind(':') - 1);
    std::string name = "127.0.0.1-" + port + "-group";
    EXPECT_NE(recorder.err.find("zelisp-rig: recording 2 streams from 1 servers on clock " + clock + " into take\n"),
              std::string::npos)
        << recorder.err;

    nlohmann::json summary = rigtest::read_json(folder + "/take/summary.json");
    EXPECT_EQ(summary["exit_status"], 0);
    EXPECT_EQ(summary["problems"], nlohmann::json::array());
    EXPECT_EQ(summary["clock"]["clock"], clock);
    ASSERT_EQ(summary["servers"].size(), 1u);
    nlohmann::json streams = summary["servers"][0]["streams"];
    ASSERT_EQ(streams.size(), 2u);
    // The receiver saw the server's clock signalling, and recorded it.
    std::string sdp = rigtest::read_text(folder + "/take/" + name + ".sdp");
    EXPECT_EQ(sdp_lines(sdp, "a=ts-refclk:ntp=127.0.0.1:" + std::to_string(ntp.port())).size(), 2u) << sdp;

    std::vector<rigtest::CsvRow> rows = rigtest::read_framesets(folder + "/take/framesets.csv");
    std::map<std::string, std::vector<rigtest::DecodedFrame>> pictures;
    for (int stream = 0; stream < 2; ++stream) {
        std::string stream_name = name + "-" + std::to_string(stream);
        EXPECT_EQ(streams[stream]["name"], stream_name);
        EXPECT_EQ(streams[stream]["encoding"], "JPEG");
        EXPECT_EQ(streams[stream]["state"], "recorded");
        EXPECT_EQ(streams[stream]["lost_frames"], 0);
        EXPECT_EQ(streams[stream]["ts_refclk"], "ntp=127.0.0.1:" + std::to_string(ntp.port()));
        // Every frame recorded and in the CSV, numbered as the sensor
        // numbered them, none lost.
        std::vector<rigtest::DecodedFrame> frames = rigtest::decode_recording(folder + "/take", stream_name);
        std::vector<rigtest::CsvRow> listed = rigtest::of_stream(rows, stream_name);
        EXPECT_GE(frames.size(), 80u);
        ASSERT_EQ(frames.size(), listed.size());
        EXPECT_EQ(streams[stream]["frames"], frames.size());
        EXPECT_EQ(streams[stream]["bytes"], std::filesystem::file_size(folder + "/take/" + stream_name + "-00000.mkv"));
        for (size_t i = 0; i < frames.size(); ++i) {
            EXPECT_EQ(listed[i].frame, i);
            ASSERT_TRUE(frames[i].number.has_value()) << stream_name << " frame " << i;
            EXPECT_EQ(frames[i].width, 320);
            if (i > 0) {
                EXPECT_EQ(*frames[i].number, *frames[i - 1].number + 1) << stream_name << " frame " << i;
            }
        }
        pictures[stream_name] = frames;
    }
    // The members of the group are one frame set at a time: one time (to
    // the RTP clock's tick) and one frame number in every set.
    auto sets = rigtest::by_set(rows);
    EXPECT_GE(sets.size(), 80u);
    // The recording's start and its stop after 3 s can fall between the
    // two frames of one trigger: the first and the last set alone may hold
    // one frame, and name the other stream missing.
    ASSERT_FALSE(sets.empty());
    const uint64_t first_set = sets.begin()->first, last_set = sets.rbegin()->first;
    for (const auto &set : sets) {
        if ((set.first == first_set || set.first == last_set) && set.second.size() == 1) {
            std::string other = name + (set.second[0].stream == name + "-0" ? "-1" : "-0");
            EXPECT_EQ(set.second[0].missing, std::vector<std::string>{other});
            continue;
        }
        ASSERT_EQ(set.second.size(), 2u) << "set " << set.first;
        EXPECT_TRUE(set.second[0].missing.empty());
        EXPECT_LE(set.second[0].skew_us, kRtpTickUs) << "set " << set.first;
        const rigtest::CsvRow &a = set.second[0], &b = set.second[1];
        EXPECT_EQ(pictures[a.stream][a.frame].number, pictures[b.stream][b.frame].number) << "set " << set.first;
    }
    EXPECT_LE(summary["frame_sets"]["skew_ns"]["max"].get<double>(), kRtpTickUs * 1000);
    EXPECT_EQ(summary["frame_sets"]["frame_period_ns"], 33333333);
}

TEST(Loopback, SizeAndEncoderApplyPerMount)
{
    std::string folder = test_folder();
    // Sensors at 640x360; both mounts stream 384x216: the camera served
    // alone gets its size from the ISP, the group's member is scaled.
    const char *board = "[cameras]\npresent = 0, 1\n[camera 0]\nview0 = NV12 640x360\n[camera 1]\nview0 = NV12 640x360\n";
    Background server(folder, "server",
                      on_board(write_board(folder, board), "'" ZELISP_RTSP "' --address 127.0.0.1 --port 0 --cameras 0 "
                                                           "--group 1 --size 384x216 --codec jpeg --encoder jpegenc"));
    std::string group = server.wait_for_line("serving rtsp://.*/group", 90);
    ASSERT_FALSE(group.empty()) << server.err();
    std::string base = group.substr(group.find("rtsp://"), group.rfind('/') - group.find("rtsp://"));
    EXPECT_EQ(server.out(), "zelisp-rtsp: serving " + base + "/cam0\nzelisp-rtsp: serving " + base + "/group\n");
    EXPECT_NE(server.err().find("zelisp-rtsp: JPEG encoder: jpegenc (software)\n"), std::string::npos) << server.err();
    Finished recorder = run(folder, rig_command("record --seconds 2 --out take " + base + "/cam0 " + base + "/group"));
    ASSERT_EQ(recorder.status, 0) << recorder.err;
    std::string port = base.substr(base.rfind(':') + 1);
    for (const std::string &name : {"127.0.0.1-" + port + "-cam0-0", "127.0.0.1-" + port + "-group-0"}) {
        std::vector<rigtest::DecodedFrame> frames = rigtest::decode_recording(folder + "/take", name);
        ASSERT_GE(frames.size(), 30u) << name;
        EXPECT_EQ(frames[0].width, 384) << name;
        EXPECT_EQ(frames[0].height, 216) << name;
        // The simulated ISP paints the frame number for the size it makes:
        // it reads back only where the ISP made the size, not where the
        // group's frames were scaled after it.
        EXPECT_EQ(frames.back().number.has_value(), name.find("cam0") != std::string::npos) << name;
    }
}

TEST(Loopback, RecorderSaysWhyItCannotRecord)
{
    std::string folder = test_folder();
    // The command line.
    Finished bad_url = run(folder, rig_command("record --out take http://127.0.0.1:8554/group"));
    EXPECT_EQ(bad_url.status, 2);
    EXPECT_EQ(bad_url.err, "zelisp-rig: 'http://127.0.0.1:8554/group' is not an RTSP URL: write rtsp://HOST[:PORT]/PATH, "
                           "as zelisp-rtsp prints it\n");
    Finished no_url = run(folder, rig_command("record --out take"));
    EXPECT_EQ(no_url.status, 2);
    EXPECT_EQ(no_url.err, "zelisp-rig: no URL to record: give the servers' rtsp:// URLs (see zelisp-rig --help)\n");
    Finished no_out = run(folder, rig_command("record rtsp://127.0.0.1:1/group"));
    EXPECT_EQ(no_out.err, "zelisp-rig: --out FOLDER is missing: the recording needs a folder\n");
    Finished no_command = run(folder, rig_command("rtsp://127.0.0.1:1/group"));
    EXPECT_EQ(no_command.status, 2);
    Finished twice =
        run(folder, rig_command("record --out take rtsp://127.0.0.1:8554/group rtsp://127.0.0.1:8554/group/"));
    EXPECT_EQ(twice.status, 2);
    EXPECT_EQ(twice.err, "zelisp-rig: 'rtsp://127.0.0.1:8554/group/' names the same streams as "
                         "'rtsp://127.0.0.1:8554/group': give each server once\n");
    Finished bad_number = run(folder, rig_command("record --seconds soon --out take rtsp://127.0.0.1:1/group"));
    EXPECT_EQ(bad_number.err,
              "zelisp-rig: --seconds takes seconds to record, 0 for until interrupted, got 'soon'\n");

    // A clock that never answers.
    int silent = rigtest::unused_udp_port();
    std::string clock = "ntp:127.0.0.1:" + std::to_string(silent);
    Finished unsynced =
        run(folder, rig_command("record --clock " + clock + " --sync-timeout 2 --out take rtsp://127.0.0.1:1/group"));
    EXPECT_EQ(unsynced.status, 3);
    EXPECT_NE(unsynced.err.find("zelisp-rig: the " + clock +
                                " clock did not sync within 2 s: no answer from the NTP server 127.0.0.1 port " +
                                std::to_string(silent) + "\n"),
              std::string::npos)
        << unsynced.err;
    // A clock server whose name does not resolve is named as the problem.
    Finished unnamed = run(folder, rig_command("record --clock ntp:no-such-host.invalid --out elsewhere "
                                               "rtsp://127.0.0.1:1/group"));
    EXPECT_EQ(unnamed.status, 3);
    EXPECT_EQ(unnamed.err.rfind("zelisp-rig: the NTP server's name 'no-such-host.invalid' does not resolve (", 0), 0u)
        << unnamed.err;
    nlohmann::json summary = rigtest::read_json(folder + "/take/summary.json");
    EXPECT_EQ(summary["exit_status"], 3);
    EXPECT_EQ(summary["clock"]["synced"], false);

    // The folder holds that attempt's summary: it is not written over.
    Finished again = run(folder, rig_command("record --out take rtsp://127.0.0.1:1/group"));
    EXPECT_EQ(again.status, 4);
    EXPECT_EQ(again.err, "zelisp-rig: take already holds a recording (summary.json): choose another folder\n");

    // No server at that port: tried again for a second, then given up.
    int closed = rigtest::unused_udp_port();
    std::string url = "rtsp://127.0.0.1:" + std::to_string(closed) + "/group";
    Finished refused = run(folder, rig_command("record --connect-seconds 1 --out refused " + url));
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.err.find("zelisp-rig: cannot record " + url +
                               ": the server cannot be reached (Could not open resource for reading and writing."),
              std::string::npos)
        << refused.err;
}

TEST(Loopback, AMountTheServerDoesNotHaveAndAStalledServerAreReported)
{
    std::string folder = test_folder();
    Server server(folder, "--group 0,1 --trigger internal --codec jpeg");
    ASSERT_FALSE(server.url.empty()) << server.process.err();
    std::string missing = server.url.substr(0, server.url.rfind('/')) + "/cam7";
    Finished not_found = run(folder, rig_command("record --out missing " + missing));
    EXPECT_EQ(not_found.status, 1);
    EXPECT_TRUE(std::regex_search(not_found.err, std::regex("zelisp-rig: cannot record " + missing +
                                                            ": the server has no such stream \\(.*[Nn]ot [Ff]ound")))
        << not_found.err;

    // The board hangs: its connection stays open, no frame comes.
    Background recorder(folder, "recorder", rig_command("record --stall-seconds 1 --out stalled " + server.url));
    ASSERT_FALSE(recorder.wait_for_line("zelisp-rig: recording 2 streams", 60, true).empty()) << recorder.err();
    ASSERT_FALSE(recorder.wait_for_line("zelisp-rig: [0-9.]+ s ", 60, true).empty()) << recorder.err();
    kill(server.process.pid(), SIGSTOP);
    int status = recorder.wait(60);
    kill(server.process.pid(), SIGCONT);
    EXPECT_EQ(status, 1) << recorder.err();
    std::string port = server.url.substr(server.url.rfind(':') + 1, server.url.find('/', 7) - server.url.rfind(':') - 1);
    EXPECT_TRUE(std::regex_search(recorder.err(), std::regex("zelisp-rig: lost 127\\.0\\.0\\.1-" + port +
                                                             "-group-0 after [0-9.]+ s: no frame for 1 s\n")))
        << recorder.err();
    nlohmann::json summary = rigtest::read_json(folder + "/stalled/summary.json");
    EXPECT_EQ(summary["exit_status"], 1);
    EXPECT_EQ(summary["servers"][0]["streams"][0]["state"], "lost");
    EXPECT_EQ(summary["servers"][0]["streams"][0]["reason"], "no frame for 1 s");
    // What came before the stall is recorded whole.
    std::vector<rigtest::DecodedFrame> frames =
        rigtest::decode_recording(folder + "/stalled", "127.0.0.1-" + port + "-group-0");
    EXPECT_EQ(nlohmann::json(frames.size()), summary["servers"][0]["streams"][0]["frames"]);
}

TEST(Loopback, ARecordingInterruptedWhileItsClockWaitsLeavesNoFolder)
{
    std::string folder = test_folder();
    int silent = rigtest::unused_udp_port();
    Background recorder(folder, "recorder",
                        rig_command("record --clock ntp:127.0.0.1:" + std::to_string(silent) +
                                    " --sync-timeout 120 --out takes/first rtsp://127.0.0.1:1/group"));
    ASSERT_FALSE(recorder.wait_for_line("zelisp-rig: clock ntp:", 60, true).empty()) << recorder.err();
    kill(recorder.pid(), SIGINT);
    EXPECT_EQ(recorder.wait(30), 128 + SIGINT) << recorder.err();
    EXPECT_FALSE(std::filesystem::exists(folder + "/takes")) << "neither the folder nor its parent is made";

    // The folder is still checked before the wait: a file in its place is
    // refused at once.
    std::ofstream(folder + "/taken") << "not a folder";
    Finished blocked = run(folder, rig_command("record --clock ntp:127.0.0.1:" + std::to_string(silent) +
                                               " --sync-timeout 120 --out taken rtsp://127.0.0.1:1/group"));
    EXPECT_EQ(blocked.status, 4);
    EXPECT_EQ(blocked.err, "zelisp-rig: cannot create the folder taken: File exists\n");
}

TEST(Loopback, AnInterruptedRecordingClosesItsFilesAndSaysSo)
{
    std::string folder = test_folder();
    Server server(folder, "--group 0,1 --trigger internal --codec jpeg");
    ASSERT_FALSE(server.url.empty()) << server.process.err();
    Background recorder(folder, "recorder", rig_command("record --out take " + server.url));
    ASSERT_FALSE(recorder.wait_for_line("zelisp-rig: [0-9.]+ s ", 60, true).empty()) << recorder.err();
    kill(recorder.pid(), SIGINT);
    EXPECT_EQ(recorder.wait(30), 0) << recorder.err();
    nlohmann::json summary = rigtest::read_json(folder + "/take/summary.json");
    EXPECT_EQ(summary["interrupted"], true);
    EXPECT_EQ(summary["exit_status"], 0);
    for (const auto &stream : summary["servers"][0]["streams"]) {
        std::vector<rigtest::DecodedFrame> frames =
            rigtest::decode_recording(folder + "/take", stream["name"].get<std::string>());
        EXPECT_GT(frames.size(), 0u);
        EXPECT_EQ(nlohmann::json(frames.size()), stream["frames"]) << "every counted frame is in the closed file";
    }
}

} // namespace
