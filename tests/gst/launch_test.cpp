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
#include "launch_support.h"

namespace fs = std::filesystem;
using zelisp_tool_test::files_in;
using zelisp_tool_test::frame_number;
using zelisp_tool_test::read_png_luma;
using zelisp_tool_test::read_raw_luma;
using zelisp_tool_test::test_folder;

namespace {

using namespace zelisp_launch_test;

// fakesink silent=false -v: (sink name, offset) -> pts text of every buffer.
std::map<std::pair<std::string, uint64_t>, std::string> chained_buffers(const std::string &out)
{
    std::map<std::pair<std::string, uint64_t>, std::string> buffers;
    std::regex chain(R"(chain   \*+ \((\w+):sink\) \(\d+ bytes, dts: [^,]+, pts: ([0-9:.]+), [^)]*offset: (\d+),)");
    for (std::sregex_iterator it(out.begin(), out.end(), chain), end; it != end; ++it)
        buffers[{(*it)[1].str(), std::stoull((*it)[3].str())}] = (*it)[2].str();
    return buffers;
}

const char *kSmallCamera = "[camera 0]\nview0 = NV12 640x360\n[camera 1]\nview0 = NV12 640x360\nfps = 10\n";

TEST(GstLaunch, InspectDescribesBothElementsFromTheBuildTree)
{
    std::string folder = test_folder();
    Launch source = run(folder, on_simulator("gst-inspect-1.0 zelispsrc"));
    ASSERT_EQ(source.status, 0) << source.out;
    for (const char *text : {"ISP camera source", "Filename                 " GST_PLUGIN_DIR "/libgstzelisp.so",
                             "Rank                     primary + 1 (257)", "License                  LGPL",
                             "Origin URL               https://github.com/libzelisp/libzelisp",
                             "GstColorBalance", "colorimetry         :", "wb-gains            :",
                             "controllable",
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

// The frame numbers of raw NV12 frames laid end to end in a file.
std::vector<std::optional<uint32_t>> raw_frame_numbers(const std::string &path, uint32_t width, uint32_t height)
{
    std::string bytes = read_text(path);
    const size_t frame = size_t(width) * height * 3 / 2;
    std::vector<std::optional<uint32_t>> numbers;
    for (size_t at = 0; at + frame <= bytes.size(); at += frame) {
        zelisp_tool_test::LumaImage image;
        image.width = width;
        image.height = height;
        image.luma.assign(bytes.begin() + long(at), bytes.begin() + long(at + size_t(width) * height));
        numbers.push_back(frame_number(image));
    }
    return numbers;
}

TEST(GstLaunch, FdsinkOnStandardOutputGetsTheFramesAndNothingElse)
{
    std::string folder = test_folder();
    Launch launch = run(folder, "sh -c \"" +
                                    on_simulator("gst-launch-1.0 -q zelispsrc view=2 num-buffers=3 ! fdsink fd=1") +
                                    " >frames.yuv\"");
    ASSERT_EQ(launch.status, 0) << launch.out;
    std::string frames = read_text(folder + "/frames.yuv");
    ASSERT_EQ(frames.size(), 3u * 640 * 360 * 3 / 2) << frames.substr(0, 200);
    std::vector<std::optional<uint32_t>> numbers = raw_frame_numbers(folder + "/frames.yuv", 640, 360);
    ASSERT_EQ(numbers.size(), 3u);
    for (const auto &number : numbers)
        ASSERT_TRUE(number.has_value()) << "a frame that is not a frame";
    EXPECT_GT(*numbers[1], *numbers[0]);
    EXPECT_GT(*numbers[2], *numbers[1]);
}

TEST(GstLaunch, CtrlCStopsAPlayingPipelineAtAnyMomentWithOrWithoutEos)
{
    std::string folder = test_folder();
    for (int round = 0; round < 6; ++round) {
        const bool eos = round % 2 == 1;
        const bool after_frames = round >= 2;
        // A sink that syncs to the clock and prerolls again on the way down:
        // what used to hold the stop for good.
        Background launch(folder, on_simulator(std::string("gst-launch-1.0 -v ") + (eos ? "-e " : "") +
                                               "zelispsrc ! fakesink sync=true silent=false"));
        ASSERT_TRUE(launch.line_with("New clock")) << read_text(launch.err_path);
        for (int frame = 0; after_frames && frame < 3; ++frame) {
            ASSERT_TRUE(launch.line_with("last-message = chain")) << read_text(launch.err_path);
        }
        kill(launch.pid, SIGINT);
        // A limit far past a normal stop (well under a second) that a
        // deadlocked one never meets.
        std::optional<int> status = launch.finish(20);
        ASSERT_TRUE(status.has_value()) << "round " << round << ": still running 20 s after Ctrl-C";
        EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0)
            << "round " << round << ": wait status " << *status << "\n" << read_text(launch.err_path);
    }
}

TEST(GstLaunch, AutovideosrcPicksTheCameraAndFallsBackWithoutOne)
{
    std::string folder = test_folder();
    Launch board = run(folder, on_simulator("gst-launch-1.0 -v autovideosrc ! fakesink num-buffers=2"));
    ASSERT_EQ(board.status, 0) << board.out;
    EXPECT_NE(board.out.find("/GstAutoVideoSrc:autovideosrc0/GstZelispSrc:"), std::string::npos) << board.out;
    std::string none = write_config(folder, "[cameras]\npresent =\n[node /dev/isp_misc]\nkind = missing\n");
    Launch elsewhere = run(folder, on_simulator("gst-launch-1.0 -v autovideosrc ! fakesink num-buffers=2", none));
    ASSERT_EQ(elsewhere.status, 0) << elsewhere.out;
    EXPECT_EQ(elsewhere.out.find("GstZelispSrc:autovideosrc0-actual-src-zelis.GstPad"), std::string::npos);
    EXPECT_NE(elsewhere.out.find("camera 0 does not exist: /dev/video0 is missing"), std::string::npos)
        << elsewhere.out;
}

TEST(GstLaunch, DeviceMonitorListsTheCamerasWithCapsAndLaunchLines)
{
    std::string folder = test_folder();
    std::string config = write_config(folder, "[camera 1]\nview0 = NV12 640x360\nfps = 10\n");
    Launch monitor = run(folder, on_simulator("gst-device-monitor-1.0 Video/Source", config));
    ASSERT_EQ(monitor.status, 0) << monitor.out;
    for (const char *text :
         {"\tname  : ISP camera 0\n", "\tname  : ISP camera 3\n",
          "\tname  : ISP camera 1\n\tclass : Video/Source\n\tcaps  : video/x-raw, format=NV12, colorimetry=bt601, "
          "width=640, height=360, framerate=[ 1/12, 10/1 ]\n",
          "\t\tdevice.path = /dev/video1\n", "\tgst-launch-1.0 zelispsrc ! ...\n",
          "\tgst-launch-1.0 zelispsrc camera=1 ! ...\n"})
        EXPECT_NE(monitor.out.find(text), std::string::npos) << text << "\n" << monitor.out;
    EXPECT_EQ(monitor.out.find("ISP camera 4"), std::string::npos);
}

TEST(GstLaunch, BehindASlowConsumerMemoryStaysFlatAndFramesAreDroppedNotHoarded)
{
    // A queue with no limits in front of a consumer three times slower than
    // the camera: it would hold a copy of every frame. The copies stop at
    // max-copies, so the peak memory of a run five times longer stays
    // where the short run's was (each 1080p copy is 3 MB).
    std::string folder = test_folder();
    std::string config = write_config(folder, "[camera 0]\nfps = 60\n");
    long peak_kb[2] = {0, 0};
    const int frames[2] = {20, 100};
    for (int i = 0; i < 2; ++i) {
        Background launch(folder, on_simulator("gst-launch-1.0 -q zelispsrc name=cam buffers=3 max-copies=6 "
                                               "num-buffers=" + std::to_string(frames[i]) +
                                                   " ! queue max-size-buffers=0 max-size-bytes=0 max-size-time=0 ! "
                                                   "identity sleep-time=50000 ! fakesink",
                                               config));
        rusage usage{};
        std::optional<int> status = launch.finish(120, &usage);
        ASSERT_TRUE(status.has_value());
        ASSERT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << read_text(launch.err_path);
        peak_kb[i] = usage.ru_maxrss;
    }
    EXPECT_LT(peak_kb[1] - peak_kb[0], 40 * 1024) << "short run " << peak_kb[0] << " kB, long run " << peak_kb[1]
                                                   << " kB";
}

} // namespace
