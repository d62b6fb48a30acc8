// launch_test.cpp - whole pipelines as a user runs them: gst-launch-1.0,
// gst-inspect-1.0, the RTP example scripts and zelisp-rtsp, each started
// under zelisp-sim-run, judged by their exit status, their output and the
// frame numbers the simulated sensor painted into the images they wrote.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>

#include "../tools/tool_run.h"

namespace fs = std::filesystem;
using zelisp_tool_test::files_in;
using zelisp_tool_test::frame_number;
using zelisp_tool_test::read_png_luma;
using zelisp_tool_test::read_raw_luma;
using zelisp_tool_test::test_folder;

namespace {

// Every command runs on the simulated driver, as "zelisp-sim-run -- ...":
// also the clients, so that every process loading the plugin has the same
// preloads (a sanitizer build needs its runtime first in each of them).
// GStreamer itself is not ours to check for leaks.
std::string on_simulator(const std::string &command, const std::string &config = "")
{
    std::string prefix = "env ASAN_OPTIONS=detect_leaks=0 ";
    if (!config.empty())
        prefix += "ZELISP_SIM_CONFIG='" + config + "' ";
    return prefix + "'" ZELISP_SIM_RUN "' -- " + command;
}

struct Launch {
    int status = -1;
    std::string out;
};

std::string read_text(const std::string &path)
{
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

// Runs a command in `folder` with stdout and stderr together; `timeout 120`
// bounds a run that hangs, far beyond any normal run.
Launch run(const std::string &folder, const std::string &command)
{
    std::string log = folder + "/output.txt";
    std::string line = "cd '" + folder + "' && timeout 120 " + command + " >'" + log + "' 2>&1 </dev/null";
    int status = std::system(line.c_str());
    Launch result;
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    result.out = read_text(log);
    return result;
}

std::string write_config(const std::string &folder, const std::string &text)
{
    std::string path = folder + "/sim.ini";
    std::ofstream(path) << text;
    return path;
}

std::vector<uint32_t> painted_numbers(const std::vector<std::string> &files)
{
    std::vector<uint32_t> numbers;
    for (const std::string &file : files) {
        auto image = read_png_luma(file);
        EXPECT_TRUE(image.has_value()) << file;
        auto number = image ? frame_number(*image) : std::nullopt;
        EXPECT_TRUE(number.has_value()) << file << " carries no frame number";
        numbers.push_back(number.value_or(0));
    }
    return numbers;
}

// fakesink silent=false -v: (sink name, offset) -> pts text of every buffer.
std::map<std::pair<std::string, uint64_t>, std::string> chained_buffers(const std::string &out)
{
    std::map<std::pair<std::string, uint64_t>, std::string> buffers;
    std::regex chain(R"(chain   \*+ \((\w+):sink\) \(\d+ bytes, dts: [^,]+, pts: ([0-9:.]+), [^)]*offset: (\d+),)");
    for (std::sregex_iterator it(out.begin(), out.end(), chain), end; it != end; ++it)
        buffers[{(*it)[1].str(), std::stoull((*it)[3].str())}] = (*it)[2].str();
    return buffers;
}

int free_port(int type)
{
    int fd = socket(AF_INET, type, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address);
    getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length);
    close(fd);
    return ntohs(address.sin_port);
}

// A process in the background with its output on a pipe.
struct Background {
    pid_t pid = -1;
    FILE *out = nullptr;

    explicit Background(const std::string &folder, const std::string &command)
    {
        int pipe_fds[2];
        if (pipe(pipe_fds) != 0)
            return;
        pid = fork();
        if (pid == 0) {
            dup2(pipe_fds[1], 1);
            close(pipe_fds[0]);
            close(pipe_fds[1]);
            std::string line = "cd '" + folder + "' && exec " + command + " 2>'" + folder + "/background.err'";
            execl("/bin/sh", "sh", "-c", line.c_str(), static_cast<char *>(nullptr));
            _exit(127);
        }
        close(pipe_fds[1]);
        out = fdopen(pipe_fds[0], "r");
    }
    // The next line it prints ("" when it ended).
    std::string line()
    {
        char text[512];
        return out && std::fgets(text, sizeof text, out) ? std::string(text) : std::string();
    }
    int stop()
    {
        int status = -1;
        if (pid > 0) {
            kill(pid, SIGTERM);
            waitpid(pid, &status, 0);
            pid = -1;
        }
        if (out)
            std::fclose(out);
        out = nullptr;
        return status;
    }
    ~Background() { stop(); }
};

const char *kSmallCamera = "[camera 0]\nview0 = NV12 640x360\n[camera 1]\nview0 = NV12 640x360\nfps = 10\n";

TEST(GstLaunch, InspectDescribesBothElementsFromTheBuildTree)
{
    std::string folder = test_folder();
    Launch source = run(folder, on_simulator("gst-inspect-1.0 zelispsrc"));
    ASSERT_EQ(source.status, 0) << source.out;
    for (const char *text : {"ISP camera source", "Filename                 " GST_PLUGIN_DIR "/libgstzelisp.so",
                             "SRC template: 'src_%u'", "Availability: On request", "drop                :",
                             "denoise-luma        :", "video/x-raw(memory:DMABuf)", "format: { (string)NV12"})
        EXPECT_NE(source.out.find(text), std::string::npos) << text << "\n" << source.out;
    Launch group = run(folder, on_simulator("gst-inspect-1.0 zelispgroupsrc"));
    ASSERT_EQ(group.status, 0) << group.out;
    for (const char *text : {"ISP camera group source", "Availability: Sometimes", "trigger             :",
                             "cameras             :", "max-skew-us"})
        EXPECT_NE(group.out.find(text), std::string::npos) << text << "\n" << group.out;
}

TEST(GstLaunch, PngOfCameraOneShowsThePaintedFrameNumbers)
{
    std::string folder = test_folder();
    Launch launch = run(folder, on_simulator("gst-launch-1.0 zelispsrc camera=1 num-buffers=3 ! videoconvert ! "
                                          "pngenc ! multifilesink location=frame-%d.png"));
    ASSERT_EQ(launch.status, 0) << launch.out;
    EXPECT_NE(launch.out.find("Got EOS from element \"pipeline0\"."), std::string::npos) << launch.out;
    std::vector<std::string> files = files_in(folder, "frame-");
    ASSERT_EQ(files.size(), 3u);
    std::vector<uint32_t> numbers = painted_numbers(files);
    // The sensor runs freely: a slow PNG encoder may miss frames, never
    // reorder them.
    EXPECT_LT(numbers[0], numbers[1]);
    EXPECT_LT(numbers[1], numbers[2]);
}

TEST(GstLaunch, TwoViewsOfOneFrameCarryTheSameFrameNumber)
{
    std::string folder = test_folder();
    Launch launch = run(folder, on_simulator("gst-launch-1.0 zelispsrc camera=0 num-buffers=3 name=cam "
                                          "cam.src_2 ! queue ! videoconvert ! pngenc ! multifilesink "
                                          "location=small-%d.png "
                                          "cam. ! queue ! videoconvert ! pngenc ! multifilesink location=full-%d.png"));
    ASSERT_EQ(launch.status, 0) << launch.out;
    std::vector<std::string> full = files_in(folder, "full-"), small = files_in(folder, "small-");
    ASSERT_EQ(full.size(), 3u);
    ASSERT_EQ(small.size(), 3u);
    EXPECT_EQ(read_png_luma(small[0])->width, 640u);
    EXPECT_EQ(painted_numbers(full), painted_numbers(small));
}

TEST(GstLaunch, ADownstreamHoldingBuffersNeitherDeadlocksNorLosesAFrame)
{
    std::string folder = test_folder();
    // The queue keeps 12 frames before it lets any go; the camera has 3
    // buffers, so all but one frame must be copies. Every buffer that
    // leaves the queue is written to a file of its own, so each one is
    // counted (a sink's -v notifications skip buffers that come in a burst),
    // and its frame number is read from the pixels. The sensor runs freely
    // at a slow rate, so a loaded machine has periods to spare.
    std::string config = write_config(folder, "[camera 0]\nview0 = NV12 640x360\nfps = 10\n");
    Launch launch = run(folder, on_simulator("gst-launch-1.0 zelispsrc camera=0 buffers=3 num-buffers=20 ! "
                                          "queue min-threshold-buffers=12 max-size-buffers=0 max-size-bytes=0 "
                                          "max-size-time=0 ! multifilesink location=held-%02d.raw",
                                          config));
    ASSERT_EQ(launch.status, 0) << launch.out;
    std::vector<std::string> files = files_in(folder, "held-");
    ASSERT_EQ(files.size(), 20u) << launch.out;
    std::vector<uint32_t> numbers;
    for (const std::string &file : files) {
        auto image = read_raw_luma(file, 640, 360);
        auto number = image ? frame_number(*image) : std::nullopt;
        ASSERT_TRUE(number.has_value()) << file << " carries no frame number";
        numbers.push_back(*number);
    }
    for (size_t i = 1; i < numbers.size(); ++i)
        EXPECT_EQ(numbers[i], numbers[0] + i) << "frame lost before " << numbers[i];
}

TEST(GstLaunch, GroupBuffersOfOneFrameSetShareTheirPts)
{
    std::string folder = test_folder();
    Launch launch = run(folder, on_simulator("gst-launch-1.0 -v zelispgroupsrc name=g cameras=0,1 trigger=internal "
                                          "num-buffers=5 g.src_0 ! queue ! fakesink name=left silent=false "
                                          "g.src_1 ! queue ! fakesink name=right silent=false"));
    ASSERT_EQ(launch.status, 0) << launch.out;
    // -v shows each sink's last-message through a property notification, which
    // skips a buffer when the next one arrives before the notification is
    // printed; so every frame seen on both pads is compared here, and the exact
    // count of frame sets is the in-process group test's to check.
    auto buffers = chained_buffers(launch.out);
    int compared = 0;
    for (const auto &[key, pts] : buffers)
        if (key.first == "left") {
            auto right = buffers.find({"right", key.second});
            if (right == buffers.end())
                continue;
            EXPECT_EQ(right->second, pts) << "frame " << key.second;
            ++compared;
        }
    EXPECT_GE(compared, 1) << launch.out;
}

TEST(GstLaunch, RtpJpegExampleReachesItsReceiverOverLoopback)
{
    std::string folder = test_folder();
    std::string config = write_config(folder, kSmallCamera);
    int port = free_port(SOCK_DGRAM);
    Background receiver(folder, on_simulator("env SINK='pngenc snapshot=true ! filesink location=received.png' "
                                             "'" EXAMPLES_DIR "/rtp-receive.sh' " + std::to_string(port)));
    // Bounded: the sender stops by itself after 30 s of frames.
    Background sender(folder, on_simulator("env NUM_BUFFERS=300 '" EXAMPLES_DIR "/rtp-send.sh' 1 127.0.0.1 " +
                                               std::to_string(port),
                                           config));
    int status = -1;
    waitpid(receiver.pid, &status, 0);
    receiver.pid = -1;
    sender.stop();
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << read_text(folder + "/background.err");
    std::vector<uint32_t> numbers = painted_numbers({folder + "/received.png"});
    EXPECT_LT(numbers[0], 300u);
}

TEST(GstLaunch, ZelispRtspServesACameraToRtspsrc)
{
    std::string folder = test_folder();
    std::string config = write_config(folder, kSmallCamera);
    Background server(folder, on_simulator("'" ZELISP_RTSP "' --cameras 1,0 --port 0", config));
    std::string first = server.line(), second = server.line();
    std::smatch url;
    ASSERT_TRUE(std::regex_match(first, url, std::regex(R"(zelisp-rtsp: serving (rtsp://127\.0\.0\.1:\d+/cam1)\n)")))
        << first;
    EXPECT_NE(second.find("/cam0"), std::string::npos) << second;
    Launch client = run(folder, on_simulator("gst-launch-1.0 rtspsrc location=" + url[1].str() +
                                          " ! rtph264depay ! h264parse ! decodebin ! videoconvert ! "
                                          "pngenc snapshot=true ! filesink location=cam1.png"));
    ASSERT_EQ(client.status, 0) << client.out;
    auto image = read_png_luma(folder + "/cam1.png");
    ASSERT_TRUE(image.has_value());
    EXPECT_EQ(image->width, 640u);
    EXPECT_TRUE(frame_number(*image).has_value());
    EXPECT_EQ(server.stop(), 0) << "SIGTERM ends the server cleanly";

    Launch refused = run(folder, on_simulator("'" ZELISP_RTSP "' --cameras 12"));
    EXPECT_EQ(refused.status, 2);
    EXPECT_EQ(refused.out, "zelisp-rtsp: --cameras takes numbers 0..11 separated by commas, got '12'\n");
}

} // namespace
