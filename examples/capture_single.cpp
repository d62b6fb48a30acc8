/*
 * capture_single - capture from one camera end to end: camera 0 with views
 * 0 and 2, for a few seconds (the first argument, default 3). Prints each
 * frame's sequence, capture time and per-view size, then the frame rate
 * and how many frames the library refused.
 */
#include <time.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>

#include "zelisp.h"

namespace {

constexpr uint32_t kViews = (1u << 0) | (1u << 2);
constexpr int kBuffers = 4;
constexpr int kFrameTimeoutMs = 1000;

double Seconds()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return double(now.tv_sec) + double(now.tv_nsec) / 1e9;
}

void PrintFrame(const zelvideo::_isp_buf_t &frame, const zelvideo::_view_format_t (&formats)[3])
{
    const zelvideo::_isp_view_buf_t &first = frame.views[0];
    printf("frame %6" PRIu32 "  t=%" PRIu64 " us", first.sequence, first.timestamp);
    for (int view = 0; view < 3; ++view) {
        if ((kViews & (1u << view)) == 0)
            continue;
        printf("  view %d %" PRIu32 "x%" PRIu32 " (%" PRIu32 " bytes)", view, formats[view].width,
               formats[view].height, frame.views[view].length);
    }
    printf("\n");
}

int Capture(unsigned long camera, double seconds)
{
    zelvideo::_view_format_t formats[3] = {};
    for (int view = 0; view < 3; ++view)
        isp_get_view_format(camera, uint32_t(view), &formats[view]);

    int result = isp_start_capture(camera);
    if (result != ISP_OK) {
        fprintf(stderr, "start capture: %s\n", isp_get_result_text(result));
        return result;
    }
    unsigned frames = 0;
    unsigned refused = 0;
    double start = Seconds();
    while (Seconds() - start < seconds) {
        zelvideo::_isp_buf_t frame;
        result = isp_get_frame_buf(camera, &frame, kFrameTimeoutMs);
        if (result == ISP_ERR_REQUEST) { // refused by the sequence or time check
            ++refused;
            continue;
        }
        if (result == ISP_ERR_NOT_READY)
            continue;
        if (result != ISP_OK) {
            fprintf(stderr, "get frame: %s\n", isp_get_result_text(result));
            break;
        }
        ++frames;
        PrintFrame(frame, formats);
        isp_put_frame_buf(camera, &frame);
    }
    double elapsed = Seconds() - start;
    isp_stop_capture(camera);
    printf("%u frames in %.2f s: %.1f fps, %u refused\n", frames, elapsed, frames / elapsed, refused);
    return result == ISP_OK || result == ISP_ERR_REQUEST || result == ISP_ERR_NOT_READY ? ISP_OK : result;
}

} // namespace

int main(int argc, char **argv)
{
    double seconds = argc > 1 ? atof(argv[1]) : 3.0;
    unsigned long camera = isp_open_video(0, 1);
    if (camera == 0) {
        fprintf(stderr, "camera 0 could not be opened\n");
        return 1;
    }
    int result = isp_init_video(camera, kViews, kBuffers);
    if (result == ISP_OK)
        result = Capture(camera, seconds);
    else
        fprintf(stderr, "init: %s\n", isp_get_result_text(result));
    isp_close_video(camera);
    return result == ISP_OK ? 0 : 1;
}
