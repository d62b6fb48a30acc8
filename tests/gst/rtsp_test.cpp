// rtsp_test.cpp - zelisp-rtsp as a user runs it, with the clients users
// point at it: rtspsrc, ffprobe and ffmpeg over UDP and TCP. Clients come
// and go in every way they do (a clean teardown, a kill -9 mid-stream), and
// the server keeps serving; connections that never start a session cannot
// crowd clients out; SIGINT and SIGTERM stop it.
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>
#include <regex>

#include "../tools/tool_run.h"
#include "launch_support.h"

namespace {

using namespace zelisp_launch_test;
using zelisp_tool_test::frame_number;
using zelisp_tool_test::read_png_luma;
using zelisp_tool_test::test_folder;

const char *kSmallCameras = "[camera 0]\nview0 = NV12 640x360\n[camera 1]\nview0 = NV12 640x360\nfps = 10\n";

bool have_ffmpeg() { return std::system("command -v ffmpeg >/dev/null && command -v ffprobe >/dev/null") == 0; }

// The server on any free port, and the URL of its first mount.
struct Server {
    Background process;
    std::string url;
    std::vector<std::string> lines;

    Server(const std::string &folder, const std::string &options, const std::string &config)
        : process(folder, on_simulator("'" ZELISP_RTSP "' --port 0 " + options, config), "server.err")
    {
    }
    // Reads `mounts` serving lines.
    bool started(int mounts)
    {
        std::regex serving(R"(zelisp-rtsp: serving (rtsp://127\.0\.0\.1:\d+/cam\d+)\n)");
        for (int i = 0; i < mounts; ++i) {
            lines.push_back(process.line());
            std::smatch match;
            if (!std::regex_match(lines.back(), match, serving))
                return false;
            if (url.empty())
                url = match[1].str();
        }
        return true;
    }
    std::string port() const
    {
        size_t colon = url.rfind(':') + 1;
        return url.substr(colon, url.find('/', colon) - colon);
    }
    // Sends `signal` and waits: success when the server exits with status 0.
    testing::AssertionResult stops_on(int signal)
    {
        kill(process.pid, signal);
        std::optional<int> status = process.finish(30);
        if (!status)
            return testing::AssertionFailure() << "still running 30 s after " << strsignal(signal);
        if (!WIFEXITED(*status) || WEXITSTATUS(*status) != 0)
            return testing::AssertionFailure() << "wait status " << *status << "\n" << read_text(process.err_path);
        return testing::AssertionSuccess();
    }
};

// gst-launch's exit status once its sink has ended the stream (a snapshot,
// a count of buffers) is rtspsrc's shutdown as much as the server's: while
// the pipeline stops, rtspsrc pauses and tears the session down, and now and
// then it finds the connection already closed by then ("Could not send
// message. (Received end-of-file)" from rtspsrc) and gst-launch exits 1,
// although every buffer asked for came. Such a run counts as played to its
// end; any other error, or an error before the end of stream, does not.
bool played_to_its_end(const Launch &client)
{
    if (client.status == 0)
        return true;
    size_t end_of_stream = client.out.find("Got EOS from element \"pipeline0\"");
    if (end_of_stream == std::string::npos)
        return false;
    const std::string closed_error = "ERROR: from element /GstPipeline:pipeline0/GstRTSPSrc:rtspsrc0: Could not "
                                     "write to resource.";
    bool closed_connection_only = client.out.find("(Received end-of-file)") != std::string::npos;
    for (size_t at = client.out.find("ERROR:"); at != std::string::npos; at = client.out.find("ERROR:", at + 1))
        closed_connection_only = closed_connection_only && at > end_of_stream &&
                                 client.out.compare(at, closed_error.size(), closed_error) == 0;
    return client.status == 1 && closed_connection_only;
}

// ffprobe's answer: the mount plays (DESCRIBE, SETUP, PLAY, TEARDOWN).
std::string probe_width(const std::string &folder, const std::string &url)
{
    Launch probe = run(folder, "ffprobe -v error -show_entries stream=width -of csv=p=0 " + url);
    return probe.status == 0 ? probe.out : "failed (" + std::to_string(probe.status) + "): " + probe.out;
}

TEST(ZelispRtsp, ServesTheCamerasThatExistAndStopsOnSigterm)
{
    std::string folder = test_folder();
    std::string config = write_config(folder, kSmallCameras);
    Server server(folder, "--cameras 1,5,0", config);
    ASSERT_TRUE(server.started(2)) << testing::PrintToString(server.lines) << read_text(server.process.err_path);
    EXPECT_NE(server.lines[0].find("/cam1\n"), std::string::npos);
    EXPECT_NE(server.lines[1].find("/cam0\n"), std::string::npos);
    Launch client = run(folder, on_simulator("gst-launch-1.0 rtspsrc location=" + server.url +
                                             " ! rtph264depay ! h264parse ! decodebin ! videoconvert ! "
                                             "pngenc snapshot=true ! filesink location=cam1.png"));
    ASSERT_TRUE(played_to_its_end(client)) << client.out;
    auto image = read_png_luma(folder + "/cam1.png");
    ASSERT_TRUE(image.has_value());
    EXPECT_EQ(image->width, 640u);
    EXPECT_TRUE(frame_number(*image).has_value());
    // A second server on the same port says why it cannot listen.
    std::string port = server.port();
    Launch second = run(folder, on_simulator("'" ZELISP_RTSP "' --cameras 0 --port " + port, config));
    EXPECT_EQ(second.status, 1);
    EXPECT_EQ(second.out, "zelisp-rtsp: H.264 encoder: x264enc (software: this board has no V4L2 memory-to-memory "
                          "H.264 encoder)\nzelisp-rtsp: cannot listen on 0.0.0.0:" + port +
                              ": Error binding to address 0.0.0.0:" + port + ": Address already in use\n");
    EXPECT_TRUE(server.stops_on(SIGTERM));
    EXPECT_EQ(read_text(server.process.err_path),
              "zelisp-rtsp: camera 5 skipped: the platform lists no such camera (it lists 0,1,2,3)\n"
              "zelisp-rtsp: H.264 encoder: x264enc (software: this board has no V4L2 memory-to-memory H.264 "
              "encoder)\n");

    Launch refused = run(folder, on_simulator("'" ZELISP_RTSP "' --cameras 12"));
    EXPECT_EQ(refused.status, 2);
    EXPECT_EQ(refused.out, "zelisp-rtsp: --cameras takes numbers 0..11 separated by commas, got '12'\n");
    Launch none = run(folder, on_simulator("'" ZELISP_RTSP "' --cameras 7", config));
    EXPECT_EQ(none.status, 1);
    EXPECT_EQ(none.out, "zelisp-rtsp: camera 7 skipped: the platform lists no such camera (it lists 0,1,2,3)\n"
                        "zelisp-rtsp: no camera to serve\n");
    // A platform node that cannot be opened: nothing to serve, and a group
    // is refused with the reason rather than left out in silence.
    std::string closed = write_config(folder, "[node /dev/isp_misc]\nopen_errno = EACCES\n");
    Launch unread = run(folder, on_simulator("'" ZELISP_RTSP "' --group 0,1", closed));
    EXPECT_EQ(unread.status, 1);
    EXPECT_EQ(unread.out, "zelisp-rtsp: --group: the ISP platform's camera table cannot be read (/dev/isp_misc)\n");
}

TEST(ZelispRtsp, EveryKindOfClientLeavingLeavesItServing)
{
    if (!have_ffmpeg())
        GTEST_SKIP() << "ffmpeg and ffprobe are not installed (scripts/setup.sh installs them)";
    std::string folder = test_folder();
    std::string config = write_config(folder, kSmallCameras);
    Server server(folder, "--cameras 0", config);
    ASSERT_TRUE(server.started(1)) << read_text(server.process.err_path);
    const char *kinds[] = {"ffprobe", "ffmpeg over UDP, killed", "ffmpeg over TCP, killed", "rtspsrc"};
    for (int round = 0; round < 10; ++round) {
        const std::string kind = kinds[round % 4];
        if (kind == "ffprobe") {
            ASSERT_EQ(probe_width(folder, server.url), "640\n") << "round " << round;
        } else if (kind == "rtspsrc") {
            Launch client = run(folder, on_simulator("gst-launch-1.0 rtspsrc location=" + server.url +
                                                     " ! rtph264depay ! h264parse ! fakesink num-buffers=5"));
            ASSERT_TRUE(played_to_its_end(client)) << "round " << round << "\n" << client.out;
        } else {
            // Killed once it has decoded a frame: mid-stream.
            std::string transport = kind.find("UDP") != std::string::npos ? "udp" : "tcp";
            Background client(folder, "ffmpeg -v error -rtsp_transport " + transport + " -i " + server.url +
                                          " -f rawvideo -pix_fmt gray -", "client.err");
            std::vector<char> frame(640 * 360);
            ASSERT_EQ(std::fread(frame.data(), 1, frame.size(), client.out), frame.size())
                << "round " << round << ": " << read_text(client.err_path);
            kill(client.pid, SIGKILL);
            ASSERT_TRUE(client.finish(30).has_value());
        }
        // Serving again, for a new client.
        EXPECT_EQ(probe_width(folder, server.url), "640\n") << "after " << kind << ", round " << round;
    }
    EXPECT_TRUE(server.stops_on(SIGINT));
}

// A TCP connection to 127.0.0.1:port whose reads give up after a minute; -1 when refused.
int connect_idle(int port)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(uint16_t(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    timeval minute{60, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &minute, sizeof minute);
    if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// The server closed the connection without a word (not a read timing out).
bool closed_by_server(int fd)
{
    char byte;
    return recv(fd, &byte, 1, 0) == 0;
}

TEST(ZelispRtsp, IdleConnectionsCannotCrowdOutClients)
{
    if (!have_ffmpeg())
        GTEST_SKIP() << "ffmpeg and ffprobe are not installed (scripts/setup.sh installs them)";
    std::string folder = test_folder();
    std::string config = write_config(folder, kSmallCameras);
    Server server(folder, "--cameras 0 --max-clients 4", config);
    ASSERT_TRUE(server.started(1)) << read_text(server.process.err_path);
    int port = std::stoi(server.port());
    // A viewer plays through all of it.
    Background player(folder, "ffmpeg -v error -rtsp_transport tcp -i " + server.url + " -f rawvideo -pix_fmt gray -",
                      "player.err");
    std::vector<char> frame(640 * 360);
    ASSERT_EQ(std::fread(frame.data(), 1, frame.size(), player.out), frame.size()) << read_text(player.err_path);

    // Three connections that say nothing fill the four places; a fifth is
    // closed at once, before any of them.
    std::vector<pollfd> idle;
    for (int i = 0; i < 4; ++i) {
        idle.push_back({connect_idle(port), POLLIN, 0});
        ASSERT_GE(idle.back().fd, 0);
    }
    ASSERT_EQ(poll(idle.data(), idle.size(), 60000), 1);
    EXPECT_NE(idle[3].revents, 0);
    EXPECT_TRUE(closed_by_server(idle[3].fd));
    // The others are closed when their time to start a session is up.
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(closed_by_server(idle[i].fd)) << "connection " << i;
    for (const pollfd &connection : idle)
        close(connection.fd);

    // The viewer still plays, and a new client gets in.
    ASSERT_EQ(std::fread(frame.data(), 1, frame.size(), player.out), frame.size()) << read_text(player.err_path);
    EXPECT_EQ(probe_width(folder, server.url), "640\n");
    kill(player.pid, SIGKILL);
    ASSERT_TRUE(player.finish(30).has_value());
    EXPECT_TRUE(server.stops_on(SIGTERM));
    EXPECT_EQ(read_text(server.process.err_path),
              "zelisp-rtsp: H.264 encoder: x264enc (software: this board has no V4L2 memory-to-memory H.264 "
              "encoder)\n"
              "zelisp-rtsp: a new client was closed: 4 clients are connected already (--max-clients)\n");

    Launch refused = run(folder, on_simulator("'" ZELISP_RTSP "' --max-clients 0"));
    EXPECT_EQ(refused.status, 2);
    EXPECT_EQ(refused.out, "zelisp-rtsp: --max-clients takes 1..512, got 0\n");
}

TEST(ZelispRtsp, SigintStopsItWhileAClientPlays)
{
    if (!have_ffmpeg())
        GTEST_SKIP() << "ffmpeg is not installed (scripts/setup.sh installs it)";
    std::string folder = test_folder();
    std::string config = write_config(folder, kSmallCameras);
    Server server(folder, "--cameras 1 --codec jpeg", config);
    ASSERT_TRUE(server.started(1)) << read_text(server.process.err_path);
    Background client(folder, "ffmpeg -v error -rtsp_transport tcp -i " + server.url + " -f rawvideo -pix_fmt gray -",
                      "client.err");
    std::vector<char> frame(640 * 360);
    ASSERT_EQ(std::fread(frame.data(), 1, frame.size(), client.out), frame.size()) << read_text(client.err_path);
    EXPECT_TRUE(server.stops_on(SIGINT));
}

} // namespace
