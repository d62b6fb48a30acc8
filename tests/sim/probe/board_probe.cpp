/*
 * board_probe.cpp - a program of a simulated board, for the simulator's
 * tests that run whole boards under zelisp-sim-run:
 *
 *     zelisp-sim-board-probe clocks
 *         one line: the board's start instant and what every clock reads
 *     zelisp-sim-board-probe frames CAMERA COUNT [internal|external]
 *         COUNT lines "frame SEQUENCE TIMESTAMP_US" of the camera's view 0,
 *         through libzelisp, in the given trigger mode
 *
 * It uses the library's public interface only, as an application would.
 */
#include <sys/time.h>

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

int PrintFrames(uint32_t camera, int count, const std::string &trigger)
{
    const unsigned long handle = isp_open_video(camera, 1);
    if (!handle)
        return Fail("isp_open_video", ISP_ERR_OPEN);
    int result = 0;
    if (trigger == "external")
        result = isp_set_external_trigger(handle, 0, 0, 0);
    else if (trigger == "internal")
        result = isp_set_internal_trigger(handle, 0, 0, 0);
    if (!result)
        result = isp_init_video(handle, 1, 4);
    if (!result)
        result = isp_start_capture(handle);
    for (int i = 0; i < count && !result; ++i) {
        zelvideo::_isp_buf_t frame{};
        result = isp_get_frame_buf(handle, &frame, 10000);
        if (result)
            break;
        std::printf("frame %u %" PRIu64 "\n", frame.views[0].sequence, frame.views[0].timestamp);
        result = isp_put_frame_buf(handle, &frame);
    }
    std::fflush(stdout);
    isp_stop_capture(handle);
    isp_close_video(handle);
    return result ? Fail("capture", result) : 0;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc == 2 && std::strcmp(argv[1], "clocks") == 0)
        return PrintClocks();
    if ((argc == 4 || argc == 5) && std::strcmp(argv[1], "frames") == 0)
        return PrintFrames(uint32_t(std::atoi(argv[2])), std::atoi(argv[3]), argc == 5 ? argv[4] : "");
    std::fprintf(stderr, "usage: zelisp-sim-board-probe clocks | frames CAMERA COUNT [internal|external]\n");
    return 2;
}
