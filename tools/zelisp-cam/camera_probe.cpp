// camera_probe.cpp - frame rate and control ranges, asked of the node.
#include "camera_probe.h"

#include <linux/videodev2.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "zelisp.h"

namespace zcam {
namespace {

int node_request(unsigned long handle, unsigned long request, void *record)
{
    int64_t fd = -1;
    if (isp_camera_get_native_fd(handle, &fd) != ISP_OK) {
        errno = EBADF;
        return -1;
    }
    int err;
    do {
        err = ioctl(int(fd), request, record);
    } while (err == -1 && errno == EINTR);
    return err;
}

} // namespace

bool supported_combination(unsigned long handle, uint32_t *combination)
{
    struct v4l2_input input = {};
    if (node_request(handle, VIDIOC_ENUMINPUT, &input) != 0)
        return false;
    *combination = input.index;
    return true;
}

namespace {

std::string fps_text(double fps)
{
    char text[32];
    if (std::fabs(fps - std::round(fps)) < 0.005)
        snprintf(text, sizeof text, "%.0f fps", fps);
    else
        snprintf(text, sizeof text, "%.2f fps", fps);
    return text;
}

// Without a rate request: stream the smallest supported view for a few
// frames and take the rate from the frames' own capture times and sequence
// numbers (a frame lost in between does not bend it). No wall clock.
std::string measured_rate(unsigned long handle)
{
    uint32_t supported = 1;
    supported_combination(handle, &supported);
    uint32_t smallest = 0;
    uint64_t smallest_pixels = UINT64_MAX;
    for (uint32_t view = 0; view < ISP_VIEW_COUNT; ++view) {
        zelvideo::_view_format_t format = {};
        if ((supported & (1u << view)) && isp_get_view_format(handle, view, &format) == ISP_OK &&
            uint64_t(format.width) * format.height < smallest_pixels) {
            smallest = view;
            smallest_pixels = uint64_t(format.width) * format.height;
        }
    }
    if (isp_init_video(handle, 1u << smallest, 3) != ISP_OK || isp_start_capture(handle) != ISP_OK)
        return "unknown (the camera could not stream)";
    constexpr int kFrames = 4;
    uint32_t first_sequence = 0, last_sequence = 0;
    uint64_t first_time = 0, last_time = 0;
    int taken = 0;
    for (int attempt = 0; attempt < 3 * kFrames && taken < kFrames; ++attempt) {
        zelvideo::_isp_buf_t frame;
        if (isp_get_frame_buf(handle, &frame, 2000) != ISP_OK)
            continue;
        const zelvideo::_isp_view_buf_t &view = frame.views[smallest];
        if (taken++ == 0) {
            first_sequence = view.sequence;
            first_time = view.timestamp;
        }
        last_sequence = view.sequence;
        last_time = view.timestamp;
        isp_put_frame_buf(handle, &frame);
    }
    isp_stop_capture(handle);
    if (taken < 2 || last_time <= first_time)
        return "unknown (no frames to measure)";
    return fps_text(double(last_sequence - first_sequence) * 1e6 / double(last_time - first_time)) + " (measured)";
}

} // namespace

std::string frame_rate_text(unsigned long handle)
{
    struct v4l2_streamparm parm = {};
    parm.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    if (node_request(handle, VIDIOC_G_PARM, &parm) == 0) {
        const v4l2_fract &period = parm.parm.capture.timeperframe;
        if (period.numerator != 0 && period.denominator != 0)
            return fps_text(double(period.denominator) / period.numerator);
    }
    return measured_rate(handle);
}

std::string control_range_text(unsigned long handle, uint32_t control_id)
{
    if (control_id == 0)
        return "";
    struct v4l2_queryctrl query = {};
    query.id = control_id;
    if (node_request(handle, VIDIOC_QUERYCTRL, &query) != 0 || (query.flags & V4L2_CTRL_FLAG_DISABLED))
        return "";
    if (query.type == V4L2_CTRL_TYPE_INTEGER || query.type == V4L2_CTRL_TYPE_BOOLEAN ||
        query.type == V4L2_CTRL_TYPE_MENU)
        return std::to_string(query.minimum) + ".." + std::to_string(query.maximum) + ", default " +
               std::to_string(query.default_value);
    return "";
}

} // namespace zcam
