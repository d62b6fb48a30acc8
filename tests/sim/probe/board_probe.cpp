/*
 * board_probe.cpp - a program of a simulated board, for the simulator's
 * tests that run whole boards under zelisp-sim-run:
 *
 *     zelisp-sim-board-probe clocks
 *         one line: the board's start instant and what every clock reads
 *     zelisp-sim-board-probe frames CAMERA COUNT [internal|external]
 *         COUNT lines "frame SEQUENCE TIMESTAMP_US LUMA" of the camera's
 *         view 0, through libzelisp, in the given trigger mode; LUMA is the
 *         mean luma of the picture's middle rows
 *     zelisp-sim-board-probe stream CAMERA STOP_FILE AFTER
 *         the same lines until STOP_FILE exists, then AFTER frames more
 *         (at most ten minutes of frames in all)
 *     zelisp-sim-board-probe brightness CAMERA VALUE
 *         sets the camera's brightness and prints "brightness N" as read back
 *
 * It uses the library's public interface only, as an application would,
 * and sends the library's lines to standard error, so that standard output
 * carries its own lines alone.
 */
#include <sys/time.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "zelisp.h"

namespace {

int64_t Read(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return int64_t(now.tv_sec) * 1000000000 + now.tv_nsec;
}

int PrintClocks()
{
    const char *start = std::getenv("ZELISP_SIM_BOARD_START");
    timeval day{};
    gettimeofday(&day, nullptr);
    timespec utc{};
    timespec_get(&utc, TIME_UTC);
    std::printf("start=%s monotonic=%" PRId64 " boottime=%" PRId64 " realtime=%" PRId64 " tai=%" PRId64
                " timeofday_us=%" PRId64 " timespec_get=%" PRId64 " time_s=%" PRId64 "\n",
                start ? start : "none", Read(CLOCK_MONOTONIC), Read(CLOCK_BOOTTIME), Read(CLOCK_REALTIME),
                Read(CLOCK_TAI), int64_t(day.tv_sec) * 1000000 + day.tv_usec,
                int64_t(utc.tv_sec) * 1000000000 + utc.tv_nsec, int64_t(time(nullptr)));
    return 0;
}

int Fail(const char *what, int result)
{
    std::fprintf(stderr, "board probe: %s: %s (%d)\n", what, isp_get_result_text(result), result);
    return 1;
}

// The mean luma of the middle tenth of an NV12 view's rows, away from the
// frame number and the moving block at the top.
unsigned MiddleLuma(const zelvideo::_isp_view_buf_t &view, uint32_t width, uint32_t height)
{
    const auto *luma = static_cast<const uint8_t *>(view.addr);
    uint64_t sum = 0, count = 0;
    for (uint32_t y = height * 9 / 20; y < height * 11 / 20; ++y)
        for (uint32_t x = 0; x < width; x += 4, ++count)
            sum += luma[size_t(y) * width + x];
    return count ? unsigned(sum / count) : 0;
}

// Frames until `more` says to stop; each line flushed at once, since a test
// reads them while the probe still streams.
template <typename More>
int PrintFrames(uint32_t camera, const std::string &trigger, More more)
{
    const unsigned long handle = isp_open_video(camera, 1);
    if (!handle)
        return Fail("isp_open_video", ISP_ERR_OPEN);
    int result = 0;
    if (trigger == "external")
        result = isp_set_external_trigger(handle, 0, 0, 0);
    else if (trigger == "internal")
        result = isp_set_internal_trigger(handle, 0, 0, 0);
    zelvideo::_view_format_t format{};
    if (!result)
        result = isp_init_video(handle, 1, 4);
    if (!result)
        result = isp_get_view_format(handle, 0, &format);
    if (!result)
        result = isp_start_capture(handle);
    for (int i = 0; !result && more(i); ++i) {
        zelvideo::_isp_buf_t frame{};
        result = isp_get_frame_buf(handle, &frame, 10000);
        if (result)
            break;
        std::printf("frame %u %" PRIu64 " %u\n", frame.views[0].sequence, frame.views[0].timestamp,
                    MiddleLuma(frame.views[0], format.width, format.height));
        std::fflush(stdout);
        result = isp_put_frame_buf(handle, &frame);
    }
    isp_stop_capture(handle);
    isp_close_video(handle);
    return result ? Fail("capture", result) : 0;
}

int SetBrightness(uint32_t camera, uint32_t value)
{
    const unsigned long handle = isp_open_video(camera, 1);
    if (!handle)
        return Fail("isp_open_video", ISP_ERR_OPEN);
    uint32_t read = 0;
    int result = isp_camera_set_brightness(handle, value);
    if (!result)
        result = isp_camera_get_brightness(handle, &read);
    isp_close_video(handle);
    if (result)
        return Fail("brightness", result);
    std::printf("brightness %u\n", read);
    return 0;
}

} // namespace

void ToStandardError(const zelvideo::_isp_message_t *message, void *)
{
    std::fprintf(stderr, "%s\n", message->text);
}

int main(int argc, char **argv)
{
    isp_set_message_handler(ToStandardError, nullptr);
    const std::string mode = argc > 1 ? argv[1] : "";
    if (argc == 2 && mode == "clocks")
        return PrintClocks();
    if ((argc == 4 || argc == 5) && mode == "frames") {
        const int count = std::atoi(argv[3]);
        return PrintFrames(uint32_t(std::atoi(argv[2])), argc == 5 ? argv[4] : "", [count](int i) { return i < count; });
    }
    if (argc == 5 && mode == "stream") {
        const std::string stop = argv[3];
        const int after = std::atoi(argv[4]);
        int stop_seen = -1;
        return PrintFrames(uint32_t(std::atoi(argv[2])), "", [&](int i) {
            if (stop_seen < 0 && access(stop.c_str(), F_OK) == 0)
                stop_seen = i;
            return i < 240 * 600 && (stop_seen < 0 || i < stop_seen + after);
        });
    }
    if (argc == 4 && mode == "brightness")
        return SetBrightness(uint32_t(std::atoi(argv[2])), uint32_t(std::atoi(argv[3])));
    std::fprintf(stderr, "usage: zelisp-sim-board-probe clocks | frames CAMERA COUNT [internal|external] |\n"
                         "       stream CAMERA STOP_FILE AFTER | brightness CAMERA VALUE\n");
    return 2;
}
