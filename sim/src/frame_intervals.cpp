/*
 * frame_intervals.cpp - the camera's frame rate as standard clients read
 * and set it: VIDIOC_ENUM_FRAMEINTERVALS, VIDIOC_G_PARM and VIDIOC_S_PARM.
 *
 * The sensor runs at a whole number of frames per second, 1 to 240. The
 * listed intervals are the usual rates and the one in force; S_PARM takes
 * any interval and rounds it to the nearest whole rate the sensor has, as
 * V4L2 lets a driver adjust. The rate belongs to the camera, so both of its
 * nodes report it, and it cannot change while either streams.
 */
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "client_requests.h"

namespace zsim::detail {
namespace {

constexpr uint32_t kMaxFps = 240;
constexpr uint32_t kUsualRates[] = {240, 120, 60, 50, 30, 25, 15, 10, 5, 1};

// Fastest first, so the intervals come shortest first.
std::vector<uint32_t> listed_rates(uint32_t current)
{
    std::vector<uint32_t> rates(std::begin(kUsualRates), std::end(kUsualRates));
    if (std::find(rates.begin(), rates.end(), current) == rates.end())
        rates.push_back(current);
    std::sort(rates.rbegin(), rates.rend());
    return rates;
}

bool camera_streams(const State &s, int node)
{
    int camera = camera_of_node(node);
    return s.nodes[camera].streaming || s.nodes[camera + kCameras].streaming;
}

// The single-planar type is accepted too, as the V4L2 core accepts it for
// multi-planar drivers: v4l2-ctl -P and --set-parm send it.
bool capture_type(uint32_t type)
{
    return type == V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE || type == V4L2_BUF_TYPE_VIDEO_CAPTURE;
}

void fill_capture_parameters(uint32_t fps, v4l2_streamparm *parm)
{
    std::memset(&parm->parm, 0, sizeof parm->parm);
    parm->parm.capture.capability = V4L2_CAP_TIMEPERFRAME;
    parm->parm.capture.timeperframe.numerator = 1;
    parm->parm.capture.timeperframe.denominator = fps;
}

} // namespace

int enum_frame_intervals(const State &s, int node, v4l2_frmivalenum *interval, LogNote *note)
{
    note->detail = "index=" + std::to_string(interval->index);
    v4l2_frmsizeenum size{};
    size.pixel_format = interval->pixel_format;
    LogNote unused;
    if (enum_frame_sizes(s, node, &size, &unused))
        return EINVAL;
    // Only the sizes the ISP can produce have intervals.
    const auto &step = size.stepwise;
    if (interval->width < step.min_width || interval->width > step.max_width || interval->width % step.step_width ||
        interval->height < step.min_height || interval->height > step.max_height ||
        interval->height % step.step_height)
        return EINVAL;
    std::vector<uint32_t> rates = listed_rates(s.cameras[camera_of_node(node)].config.fps);
    if (interval->index >= rates.size())
        return EINVAL;
    interval->type = V4L2_FRMIVAL_TYPE_DISCRETE;
    interval->discrete.numerator = 1;
    interval->discrete.denominator = rates[interval->index];
    std::memset(interval->reserved, 0, sizeof interval->reserved);
    return 0;
}

int get_stream_parameters(const State &s, int node, v4l2_streamparm *parm, LogNote *note)
{
    note->detail = "type=" + std::to_string(parm->type);
    if (!capture_type(parm->type))
        return EINVAL;
    fill_capture_parameters(s.cameras[camera_of_node(node)].config.fps, parm);
    note->detail += " fps=" + std::to_string(parm->parm.capture.timeperframe.denominator);
    return 0;
}

int set_stream_parameters(State &s, int node, v4l2_streamparm *parm, LogNote *note)
{
    const v4l2_fract asked = parm->parm.capture.timeperframe;
    note->detail = "type=" + std::to_string(parm->type) + " timeperframe=" + std::to_string(asked.numerator) + "/" +
                   std::to_string(asked.denominator);
    if (!capture_type(parm->type))
        return EINVAL;
    CameraConfig &config = s.cameras[camera_of_node(node)].config;
    // A zero fraction asks for the driver's default: keep the rate.
    if (asked.numerator && asked.denominator) {
        uint64_t rounded = (uint64_t(asked.denominator) * 2 + asked.numerator) / (uint64_t(asked.numerator) * 2);
        uint32_t fps = uint32_t(std::clamp<uint64_t>(rounded, 1, kMaxFps));
        if (fps != config.fps && camera_streams(s, node))
            return EBUSY;
        config.fps = fps;
    }
    fill_capture_parameters(config.fps, parm);
    note->detail += " fps=" + std::to_string(config.fps);
    return 0;
}

} // namespace zsim::detail
