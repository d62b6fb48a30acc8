// The simulator's configuration file: a good file describes the board
// through the same setters the tests use; a bad one names its line and
// changes nothing.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "driver/isp_requests.h"
#include "sim_fixture.h"

namespace {

class ConfigFileTest : public zelisp_test::SimTest {
protected:
    void TearDown() override
    {
        unlink(path_.c_str());
        SimTest::TearDown();
    }
    std::string Write(const std::string &text)
    {
        FILE *file = fopen(path_.c_str(), "w");
        EXPECT_NE(file, nullptr);
        fputs(text.c_str(), file);
        fclose(file);
        return path_;
    }
    static mode_t Kind(const char *path)
    {
        struct stat st {};
        return stat(path, &st) == 0 ? st.st_mode & S_IFMT : 0;
    }
    static int OpenErrno(const char *path)
    {
        const int fd = open(path, O_RDWR);
        if (fd < 0)
            return errno;
        close(fd);
        return 0;
    }
    static uint32_t ValidCount()
    {
        uint8_t table[488] = {};
        const int fd = open("/dev/isp_misc", O_RDWR);
        EXPECT_EQ(ioctl(fd, zelisp::GET_VAILED_CAMERA_INFO, table), 0);
        close(fd);
        return table[480];
    }

    std::string path_ = ::testing::TempDir() + "zelisp-sim-config-" + std::to_string(getpid()) + ".ini";
};

TEST_F(ConfigFileTest, GoodFileDescribesCamerasNodesAndPlatform)
{
    // Saved by an editor that marks UTF-8 files with a byte-order mark.
    Write("\xEF\xBB\xBF; a board with three cameras\n"
          "[cameras]\n"
          "present = 0, 2,5\n"
          "[camera 2]\n"
          "fps = 60\n"
          "view0 = YUYV 1280x720\n"
          "view2 = GREY 320x240   ; inline comment\n"
          "supported_combination = 5\n"
          "sensor = 1280x720\n"
          "max_buffers = 8\n"
          "mode = scripted\n"
          "drop_percent = 5\n"
          "error_every = 100\n"
          "disconnect_after = 3000\n"
          "[camera 5]\n"
          "[node /dev/video0]\n"
          "open_errno = EACCES\n"
          "[node /dev/video7]\n"
          "kind = regular\n"
          "[node /dev/video17]\n"
          "kind = missing\n"
          "[platform]\n"
          "valid_camera_count = 12\n"
          "trigger_mode = external\n"
          "[board]\n"
          "clock_offset_ms = -12.5\n"
          "clock_drift_ppm = +3.25\n"
          "trigger_line = rig.1\n"
          "trigger_delay_us = 12.5\n"
          "[trigger_line rig.1]\n"
          "fps = 29.97\n"
          "phase_us = 100\n"
          "[trigger_line spare]   ; lines the board is not wired to may be described too\n"
          "fps = 1\n");
    std::string error;
    ASSERT_TRUE(zsim::load_config(path_, &error)) << error;

    const zsim::CameraConfig two = zsim::camera_config(2);
    EXPECT_EQ(two.fps, 60u);
    EXPECT_EQ(two.views[0].fourcc, zsim::kYUYV);
    EXPECT_EQ(two.views[0].width, 1280u);
    EXPECT_EQ(two.views[1].width, 1280u); // the default view 1 fits the sensor
    EXPECT_EQ(two.views[2].fourcc, zsim::kGREY);
    EXPECT_EQ(two.views[2].height, 240u);
    EXPECT_EQ(two.supported_combination, 5u);
    EXPECT_EQ(two.sensor_width, 1280u);
    EXPECT_EQ(two.max_buffers, 8u);
    EXPECT_EQ(two.drop_percent, 5u);
    EXPECT_EQ(two.error_every, 100u);
    EXPECT_EQ(two.disconnect_after, 3000u);

    EXPECT_EQ(Kind("/dev/video1"), 0u); // not present any more
    EXPECT_EQ(Kind("/dev/video5"), mode_t(S_IFCHR));
    EXPECT_EQ(Kind("/dev/video17"), 0u); // node settings come after the cameras
    EXPECT_EQ(Kind("/dev/video7"), mode_t(S_IFREG));
    EXPECT_EQ(OpenErrno("/dev/video0"), EACCES);
    EXPECT_EQ(OpenErrno("/dev/video2"), 0);
    EXPECT_EQ(ValidCount(), 12u);
    EXPECT_EQ(zsim::board_clock().offset_ns, -12500000);
    EXPECT_EQ(zsim::board_clock().drift_ppb, 3250);
    const zsim::TriggerLine line = zsim::trigger_line();
    EXPECT_EQ(line.name, "rig.1");
    EXPECT_EQ(line.period_ns, 33366700u); // 1 / 29.97 Hz, to the nanosecond
    EXPECT_EQ(line.phase_ns, 100000u);
    EXPECT_EQ(line.delay_ns, 12500u);
    EXPECT_EQ(zsim::trigger_mode(), zsim::TriggerMode::External);
}

TEST_F(ConfigFileTest, ErrorsNameTheLineAndChangeNothing)
{
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"[camera 2]\nfps = 0\n", ":2: bad value '0' for fps: frames per second, 1 to 240"},
        {"[camera 12]\nfps = 30\n", ":1: camera number in [camera 12] must be 0 to 11"},
        {"[cameras]\npresent = 0,1,\n", ":2: bad value '0,1,' for present"},
        {"[camera 1]\nview1 = NV12 641x360\n", ":2: bad value 'NV12 641x360' for view1"},
        {"[camera 1]\nview0 = MJPG 640x360\n", ":2: bad value 'MJPG 640x360' for view0"},
        {"[camera 1]\n\nview0 = NV12 3840x2160\n", ":3: view0 3840x2160 of camera 1 is larger than its sensor 1920x1080"},
        {"[cameras]\npresent = 0\n[camera 3]\nfps = 30\n", ":3: [camera 3] is not listed in [cameras] present"},
        {"[node /dev/video24]\nkind = char\n", ":1: no simulated node /dev/video24"},
        {"[node /dev/isp_misc]\nopen_errno = EWHAT\n", ":2: bad value 'EWHAT' for open_errno"},
        {"[node /dev/video3]\nkind = pipe\n", ":2: bad value 'pipe' for kind"},
        {"[platform]\nvalid_camera_count = many\n", ":2: bad value 'many' for valid_camera_count"},
        {"[camera 0]\nfps = 30\ncolour = red\n", ":3: unknown key 'colour' in [camera 0]"},
        {"[cameras]\npresent = 1\nthis line has no value\n", ":3: syntax error"},
        {"[lights]\non = 1\n", ":1: unknown section [lights]"},
        {"fps = 30\n", ":1: key 'fps' outside a known section"},
        {"[camera 1]\nfps = 30\nmode = free\nfps = 60\n",
         ":4: duplicate key 'fps' in [camera 1], first given on line 2"},
        {"[camera 1]\nfps = 30\n[camera 01]\nfps = 60\n",
         ":4: duplicate key 'fps' in [camera 1], first given on line 2"},
        {"[platform]\nvalid_camera_count = 2\nvalid_camera_count = 3\n",
         ":3: duplicate key 'valid_camera_count' in [platform], first given on line 2"},
        {"[camera 1]\ndrop_percent = 101\n", ":2: bad value '101' for drop_percent: a percentage of frames, 0 to 100"},
        {"[camera 1]\nerror_every = -1\n", ":2: bad value '-1' for error_every: a number of frames, 0 for never"},
        {"[camera 1]\ndisconnect_after = soon\n", ":2: bad value 'soon' for disconnect_after"},
        {"[board]\nclock_offset_ms = 1.5x\n",
         ":2: bad value '1.5x' for clock_offset_ms: milliseconds, -86400000 to 86400000 (a day), to the nanosecond"},
        {"[board]\nclock_offset_ms = 86400000.000001\n", ":2: bad value '86400000.000001' for clock_offset_ms"},
        {"[board]\nclock_offset_ms = 5.\n", ":2: bad value '5.' for clock_offset_ms"},
        {"[board]\nclock_drift_ppm = -1000.001\n",
         ":2: bad value '-1000.001' for clock_drift_ppm: parts per million, -1000 to 1000, to the thousandth"},
        {"[board]\nclock_drift_ppm = 0.0005\n", ":2: bad value '0.0005' for clock_drift_ppm"},
        {"[board]\nclock = fast\n", ":2: unknown key 'clock' in [board]"},
        {"[board]\ntrigger_line = rig\n", ":2: trigger line 'rig' has no [trigger_line rig] section"},
        {"[board]\ntrigger_line = a b\n", ":2: bad value 'a b' for trigger_line: a line name"},
        {"[trigger_line rig]\nphase_us = 5\n", ":1: [trigger_line rig] needs fps, its pulses per second"},
        {"[trigger_line rig]\nfps = 100\n\nphase_us = 10000\n",
         ":4: phase_us of [trigger_line rig] must be less than its period, 10000 us"},
        {"[trigger_line r/g]\nfps = 1\n", ":1: trigger line name in [trigger_line r/g] must be letters"},
        {"[trigger_line rig]\nfps = 0\n", ":2: bad value '0' for fps: pulses per second, 0.001 to 1000"},
        {"[trigger_line rig]\nfps = 30\nwidth = 3\n", ":3: unknown key 'width' in [trigger_line rig]"},
        {"[board]\ntrigger_delay_us = 5\n", ":2: trigger_delay_us without a trigger_line the delay would apply to"},
        {"[board]\ntrigger_line = rig\ntrigger_delay_us = -1\n", ":3: bad value '-1' for trigger_delay_us"},
        {"[platform]\ntrigger_mode = sometimes\n", ":2: bad value 'sometimes' for trigger_mode: none, internal or external"},
    };
    for (const auto &[text, message] : cases) {
        std::string error;
        // Each file also has a good setting, which must not be applied.
        EXPECT_FALSE(zsim::load_config(Write(text + "[platform]\nvalid_camera_count = 1\n"), &error)) << text;
        const std::string expected = path_ + message;
        EXPECT_EQ(error.compare(0, expected.size(), expected), 0) << error << "\nexpected: " << expected;
    }
    EXPECT_EQ(ValidCount(), 4u);
    EXPECT_EQ(Kind("/dev/video1"), mode_t(S_IFCHR));
    EXPECT_EQ(zsim::camera_config(2).fps, 30u);
    EXPECT_EQ(zsim::board_clock().offset_ns, 0);
    EXPECT_TRUE(zsim::trigger_line().name.empty());
    EXPECT_EQ(zsim::trigger_mode(), zsim::TriggerMode::None);

    std::string error;
    EXPECT_FALSE(zsim::load_config("/nonexistent/zelisp.ini", &error));
    EXPECT_EQ(error, "/nonexistent/zelisp.ini: cannot open: No such file or directory");
}

TEST_F(ConfigFileTest, HostileFilesAreRefusedQuicklyWithTheRightLine)
{
    std::string error;
    // A long line is one line: the error names it, and the next line is
    // still counted as the file's line 3.
    const std::string long_comment = "; " + std::string(197, 'x') + "\n"; // 199 characters
    EXPECT_TRUE(zsim::load_config(Write("[cameras]\n" + long_comment + "present = 1\n"), &error)) << error;
    EXPECT_FALSE(zsim::load_config(Write("[cameras]\n;" + long_comment + "[camera 1]\nfps = 0\n"), &error));
    EXPECT_EQ(error, path_ + ":2: line of 200 characters or more");
    EXPECT_FALSE(zsim::load_config(Write("[cameras]\npresent = 1\n" + std::string(300, 'y')), &error));
    EXPECT_EQ(error, path_ + ":3: line of 200 characters or more"); // the last line, without a line end

    // Not regular files: each would hang or spin before main().
    const std::string fifo = path_ + ".fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const std::vector<std::pair<std::string, std::string>> files = {
        {::testing::TempDir(), "is a directory, not a configuration file"},
        {"/dev/zero", "is not a regular file"},
        {"/dev/urandom", "is not a regular file"},
        {fifo, "is not a regular file"},
    };
    for (const auto &[file, message] : files) {
        EXPECT_FALSE(zsim::load_config(file, &error)) << file;
        EXPECT_EQ(error, file + ": " + message);
    }
    unlink(fifo.c_str());

    ASSERT_EQ(truncate(Write("[cameras]\n").c_str(), (1 << 20) + 1), 0);
    EXPECT_FALSE(zsim::load_config(path_, &error));
    EXPECT_EQ(error, path_ + ": is larger than 1024 KiB");
    EXPECT_EQ(zsim::camera_config(1).fps, 30u); // nothing was applied
    EXPECT_EQ(Kind("/dev/video1"), mode_t(S_IFCHR));
}

} // namespace
