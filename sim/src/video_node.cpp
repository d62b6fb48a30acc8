/*
 * video_node.cpp - the ISP camera driver's answers on a video node: its
 * identity, the view formats, the view combination (the V4L2 input) and the
 * resize request; buffer and stream requests go to buffers.cpp and
 * streaming.cpp.
 *
 * The ISP's conventions on the standard requests: the input number is the
 * combination of enabled views; G_FMT reports every view's format in the
 * reserved words of plane_fmt[view] (fourcc in words 0-1, width in word 2,
 * height in word 3); S_FMT names the view it sets in num_planes.
 */
#include <algorithm>
#include <cerrno>
#include <iterator>
#include <cstdio>
#include <cstring>

#include <linux/videodev2.h>

#include "client_requests.h"
#include "core.h"
#include "driver/isp_requests.h"
#include "video_requests.h"

namespace zsim::detail {
namespace {

constexpr uint32_t VIDIOC_ISP_SET_RESIZE = uint32_t(zelisp::VIDIOC_ISP_SET_RESIZE);

struct FormatInfo {
    uint32_t fourcc;
    uint32_t bytes_per_pixel_line; // bytes of one line per pixel of width (luma plane)
    const char *description;
};

const FormatInfo kFormats[] = {
    {kNV12, 1, "Y/UV 4:2:0"},
    {kNV21, 1, "Y/VU 4:2:0"},
    {kYUYV, 2, "YUYV 4:2:2"},
    {kRGB24, 3, "24-bit RGB 8-8-8"},
    {kGREY, 1, "8-bit Greyscale"},
};

const FormatInfo *find_format(uint32_t fourcc)
{
    for (const FormatInfo &format : kFormats)
        if (format.fourcc == fourcc)
            return &format;
    return nullptr;
}

std::string fourcc_text(uint32_t fourcc)
{
    std::string text;
    for (int i = 0; i < 4; ++i) {
        char c = char((fourcc >> (8 * i)) & 0xff);
        text += (c >= ' ' && c <= '~') ? c : '?';
    }
    return text;
}

int query_capability(int node, v4l2_capability *cap)
{
    std::memset(cap, 0, sizeof *cap);
    int camera = camera_of_node(node);
    std::snprintf(reinterpret_cast<char *>(cap->driver), sizeof cap->driver, "zelisp-isp");
    std::snprintf(reinterpret_cast<char *>(cap->card), sizeof cap->card, "ISP camera %d%s", camera,
                  node >= kCameras ? " view 0" : "");
    std::snprintf(reinterpret_cast<char *>(cap->bus_info), sizeof cap->bus_info, "platform:zelisp-isp.%d", node);
    cap->version = 0x050a00; // the board's kernel, 5.10
    cap->device_caps = V4L2_CAP_VIDEO_CAPTURE_MPLANE | V4L2_CAP_STREAMING | V4L2_CAP_EXT_PIX_FORMAT;
    cap->capabilities = cap->device_caps | V4L2_CAP_DEVICE_CAPS;
    return 0;
}

} // namespace

// The whole format record as G_FMT (and S_FMT's reply) reports it: the
// standard fields describe the planes of the current combination, the
// reserved words every view.
void fill_format(const State &s, int node, v4l2_format *f)
{
    const Camera &cam = s.cameras[camera_of_node(node)];
    std::vector<int> views = views_of_node(s, node);
    std::memset(&f->fmt, 0, sizeof f->fmt);
    v4l2_pix_format_mplane &mp = f->fmt.pix_mp;
    const ViewFormat first = delivered_view(cam, views.empty() ? 0 : views[0]);
    mp.width = first.width;
    mp.height = first.height;
    mp.pixelformat = first.fourcc;
    mp.field = V4L2_FIELD_NONE;
    describe_colorimetry(first.fourcc, &mp);
    mp.num_planes = uint8_t(views.size());
    for (size_t j = 0; j < views.size(); ++j) {
        const ViewFormat view = delivered_view(cam, views[j]);
        mp.plane_fmt[j].sizeimage = uint32_t(image_size(view));
        mp.plane_fmt[j].bytesperline = bytes_per_line(view);
    }
    for (int v = 0; v < kMaxPlanes; ++v) {
        const ViewFormat view = delivered_view(cam, v);
        mp.plane_fmt[v].reserved[0] = uint16_t(view.fourcc & 0xffff);
        mp.plane_fmt[v].reserved[1] = uint16_t(view.fourcc >> 16);
        mp.plane_fmt[v].reserved[2] = uint16_t(view.width);
        mp.plane_fmt[v].reserved[3] = uint16_t(view.height);
    }
}

namespace {

int get_format(const State &s, int node, v4l2_format *f, LogNote *note)
{
    note->detail = "type=" + std::to_string(f->type);
    if (f->type != V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE)
        return EINVAL;
    fill_format(s, node, f);
    return 0;
}

// The ISP scales in steps of two pixels and cannot exceed its sensor.
int check_view_format(const CameraConfig &config, const v4l2_pix_format_mplane &mp)
{
    if (mp.width == 0 || mp.height == 0 || (mp.width & 1) || (mp.height & 1))
        return EINVAL;
    if (mp.width > config.sensor_width || mp.height > config.sensor_height)
        return EINVAL;
    return find_format(mp.pixelformat) ? 0 : EINVAL;
}

int set_format(State &s, int node, v4l2_format *f, LogNote *note)
{
    const v4l2_pix_format_mplane &mp = f->fmt.pix_mp;
    unsigned view = mp.num_planes;
    char detail[96];
    std::snprintf(detail, sizeof detail, "view=%u width=%u height=%u fourcc=%s", view, mp.width, mp.height,
                  fourcc_text(mp.pixelformat).c_str());
    note->detail = detail;
    if (f->type != V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE || view >= unsigned(kMaxPlanes))
        return EINVAL;
    if (s.nodes[node].streaming)
        return EBUSY;
    Camera &cam = s.cameras[camera_of_node(node)];
    if (int err = check_view_format(cam.config, mp))
        return err;
    cam.config.views[view] = ViewFormat{mp.pixelformat, mp.width, mp.height};
    fill_format(s, node, f);
    return 0;
}

// The driver reports its one input, whose number is the combination of
// views it supports. A client enumerating from 0 gets that input and stops
// at the next number.
int enum_input(const State &s, int node, v4l2_input *input, LogNote *note)
{
    uint32_t supported = s.cameras[camera_of_node(node)].config.supported_combination;
    note->detail = "index=" + std::to_string(input->index) + " supported=" + std::to_string(supported);
    if (input->index != 0 && input->index != supported)
        return EINVAL;
    std::memset(input, 0, sizeof *input);
    input->index = supported;
    std::snprintf(reinterpret_cast<char *>(input->name), sizeof input->name, "ISP views %u", supported);
    input->type = V4L2_INPUT_TYPE_CAMERA;
    return 0;
}

int get_input(const State &s, int node, int *input, LogNote *note)
{
    *input = int(s.cameras[camera_of_node(node)].input);
    note->detail = "input=" + std::to_string(*input);
    return 0;
}

int set_input(State &s, int node, const int *input, LogNote *note)
{
    note->detail = "input=" + std::to_string(*input);
    Camera &cam = s.cameras[camera_of_node(node)];
    if (uint32_t(*input) & ~cam.config.supported_combination)
        return EINVAL;
    if (s.nodes[node].streaming)
        return EBUSY;
    cam.input = uint32_t(*input);
    return 0;
}

// IspResizeRegs: first crop top, bottom, left, right; second crop top,
// bottom, left, right; scaled width, height; reserved. The second crop is
// taken from the scaled image, so it must lie inside it.
int set_resize(const void *arg, LogNote *note)
{
    uint16_t r[11];
    std::memcpy(r, arg, sizeof r);
    char detail[160];
    std::snprintf(detail, sizeof detail,
                  "crop_before=[top=%u bottom=%u left=%u right=%u] crop_after=[top=%u bottom=%u left=%u "
                  "right=%u] scale=%ux%u",
                  r[0], r[1], r[2], r[3], r[4], r[5], r[6], r[7], r[8], r[9]);
    note->detail = detail;
    if (r[0] > r[1] || r[2] > r[3] || r[4] > r[5] || r[6] > r[7])
        return EINVAL;
    if (r[5] > r[9] || r[7] > r[8])
        return EINVAL;
    return 0;
}

} // namespace

std::vector<int> views_of_node(const State &s, int node)
{
    if (node >= kCameras)
        return {0}; // mode 2 carries view 0 alone
    std::vector<int> views;
    uint32_t input = s.cameras[camera_of_node(node)].input;
    for (int v = 0; v < kMaxPlanes; ++v)
        if (input & (1u << v))
            views.push_back(v);
    return views;
}

bool handle_video_request(CoreLock &held, int node, const OpenFile &file, uint32_t request, void *arg,
                          int *error, LogNote *note)
{
    static const uint32_t kOwnRequests[] = {
        VIDIOC_QUERYCAP, VIDIOC_G_FMT,    VIDIOC_S_FMT,  VIDIOC_ENUMINPUT, VIDIOC_G_INPUT,
        VIDIOC_S_INPUT,  VIDIOC_REQBUFS,     VIDIOC_QUERYBUF, VIDIOC_EXPBUF, VIDIOC_QBUF,      VIDIOC_DQBUF,
        VIDIOC_STREAMON, VIDIOC_STREAMOFF,   VIDIOC_ISP_SET_RESIZE,
    };
    if (std::find(std::begin(kOwnRequests), std::end(kOwnRequests), request) == std::end(kOwnRequests))
        return false;
    if (!arg) {
        *error = EFAULT;
        return true;
    }
    State &s = state();
    switch (request) {
    case uint32_t(VIDIOC_QUERYCAP):
        *error = query_capability(node, static_cast<v4l2_capability *>(arg));
        return true;
    case uint32_t(VIDIOC_G_FMT):
        *error = get_format(s, node, static_cast<v4l2_format *>(arg), note);
        return true;
    case uint32_t(VIDIOC_S_FMT):
        *error = set_format(s, node, static_cast<v4l2_format *>(arg), note);
        return true;
    case uint32_t(VIDIOC_ENUMINPUT):
        *error = enum_input(s, node, static_cast<v4l2_input *>(arg), note);
        return true;
    case uint32_t(VIDIOC_G_INPUT):
        *error = get_input(s, node, static_cast<int *>(arg), note);
        return true;
    case uint32_t(VIDIOC_S_INPUT):
        *error = set_input(s, node, static_cast<const int *>(arg), note);
        return true;
    case VIDIOC_ISP_SET_RESIZE:
        *error = set_resize(arg, note);
        if (!*error) {
            set_view_resize(s.cameras[camera_of_node(node)], static_cast<const uint16_t *>(arg));
            s.cameras[camera_of_node(node)].resize_mine = true;
        }
        return true;
    case uint32_t(VIDIOC_REQBUFS):
        *error = request_buffers(s, node, static_cast<v4l2_requestbuffers *>(arg), note);
        if (!*error)
            prepare_node_buffers(held, node);
        return true;
    case uint32_t(VIDIOC_QUERYBUF):
        *error = query_buffer(s, node, static_cast<v4l2_buffer *>(arg), note);
        return true;
    case uint32_t(VIDIOC_EXPBUF):
        *error = export_buffer(s, node, static_cast<v4l2_exportbuffer *>(arg), note);
        return true;
    case uint32_t(VIDIOC_QBUF):
        *error = queue_buffer(s, node, static_cast<v4l2_buffer *>(arg), note);
        return true;
    case uint32_t(VIDIOC_DQBUF):
        *error = dequeue_buffer(held, node, file, static_cast<v4l2_buffer *>(arg), note);
        return true;
    case uint32_t(VIDIOC_STREAMON):
        *error = stream_on(s, node, static_cast<const int *>(arg), note);
        return true;
    case uint32_t(VIDIOC_STREAMOFF):
        *error = stream_off(s, node, static_cast<const int *>(arg), note);
        return true;
    default:
        return false;
    }
}

} // namespace zsim::detail
