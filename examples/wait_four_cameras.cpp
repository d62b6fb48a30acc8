/*
 * wait_four_cameras - serve four cameras from one thread: open cameras 0 to
 * 3 with view 0, start them all, then sleep in isp_camera_wait_for_data
 * until one or more has a frame, take a frame from each camera that is
 * ready and give it straight back. Runs for a few seconds (the first
 * argument, default 3) and prints how many frames each camera delivered.
 */
#include <sys/time.h>
#include <time.h>

#include <cstdio>
#include <cstdlib>

#include "zelisp.h"

namespace {

constexpr int kCameras = 4;
constexpr uint32_t kViews = 1u << 0;
constexpr int kBuffers = 4;

double Seconds()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return double(now.tv_sec) + double(now.tv_nsec) / 1e9;
}

// Opens, sets up and starts every camera; on a failure closes what it made.
bool StartAll(unsigned long (&cameras)[kCameras])
{
    for (int i = 0; i < kCameras; ++i) {
        cameras[i] = isp_open_video(uint32_t(i), 1);
        int result = cameras[i] == 0 ? ISP_ERR_OPEN : isp_init_video(cameras[i], kViews, kBuffers);
        if (result == ISP_OK)
            result = isp_start_capture(cameras[i]);
        if (result != ISP_OK) {
            fprintf(stderr, "camera %d: %s\n", i, isp_get_result_text(result));
            for (int opened = 0; opened <= i; ++opened)
                if (cameras[opened] != 0)
                    isp_close_video(cameras[opened]);
            return false;
        }
    }
    return true;
}

// Takes the ready frame of one camera, if the library accepts it, and
// queues its buffer again at once. Returns 1 for a frame, 0 otherwise.
int TakeFrame(unsigned long camera)
{
    zelvideo::_isp_buf_t frame;
    if (isp_get_frame_buf(camera, &frame, 0) != ISP_OK)
        return 0;
    isp_put_frame_buf(camera, &frame);
    return 1;
}

} // namespace

int main(int argc, char **argv)
{
    const double seconds = argc > 1 ? atof(argv[1]) : 3.0;
    unsigned long cameras[kCameras];
    if (!StartAll(cameras))
        return 1;

    unsigned frames[kCameras] = {};
    unsigned wakeups = 0;
    int result = ISP_OK;
    const double start = Seconds();
    while (Seconds() - start < seconds) {
        int ready[kCameras];
        timeval timeout = {1, 0};
        result = isp_camera_wait_for_data(cameras, ready, kCameras, &timeout);
        if (result < 0) {
            fprintf(stderr, "wait: %s\n", isp_get_result_text(result));
            break;
        }
        ++wakeups;
        for (int i = 0; i < kCameras; ++i)
            if (ready[i])
                frames[i] += TakeFrame(cameras[i]);
    }
    const double elapsed = Seconds() - start;

    for (int i = 0; i < kCameras; ++i) {
        printf("camera %d: %u frames (%.1f fps)\n", i, frames[i], frames[i] / elapsed);
        isp_stop_capture(cameras[i]);
        isp_close_video(cameras[i]);
    }
    printf("%u wake-ups in %.2f s\n", wakeups, elapsed);
    return result < 0 ? 1 : 0;
}
