/*
 * format_negotiation.cpp - the formats a standard V4L2 client negotiates:
 * the list of pixel formats, the frame sizes, VIDIOC_TRY_FMT and the
 * standard form of VIDIOC_S_FMT.
 *
 * The ISP library names the view it sets in num_planes and leaves every
 * other field zero; that request keeps its own handling (video_node.cpp).
 * A generic client sees one image: view 0. Its S_FMT is adjusted to the
 * nearest format the ISP can produce, as V4L2 requires, and on the mode 1
 * node it selects view 0 alone, so the buffers carry the one plane the
 * client negotiated.
 */
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "client_requests.h"
#include "video_requests.h"

namespace zsim::detail {
namespace {

// The ISP's scaler works on pixel pairs, from this size up to the sensor's.
constexpr uint32_t kMinSide = 2;
constexpr uint32_t kStep = 2;

struct PixelFormat {
    uint32_t fourcc;
    uint32_t bytes_per_pixel; // of the first (or only) plane's lines
    const char *description;  // as the V4L2 core names the format
};

const PixelFormat kPixelFormats[] = {
    {kNV12, 1, "Y/CbCr 4:2:0"},
    {kNV21, 1, "Y/CrCb 4:2:0"},
    {kYUYV, 2, "YUYV 4:2:2"},
    {kRGB24, 3, "24-bit RGB 8-8-8"},
    {kGREY, 1, "8-bit Greyscale"},
};

const PixelFormat *find_pixel_format(uint32_t fourcc)
{
    for (const PixelFormat &format : kPixelFormats)
        if (format.fourcc == fourcc)
            return &format;
    return nullptr;
}

uint32_t nearest_side(uint32_t asked, uint32_t sensor)
{
    uint32_t largest = std::max(kMinSide, sensor / kStep * kStep);
    uint32_t even = asked > UINT32_MAX - 1 ? asked : (asked + 1) / kStep * kStep;
    return std::clamp(even, kMinSide, largest);
}

// The view a standard client's format request becomes.
ViewFormat nearest_view(const Camera &cam, const v4l2_pix_format_mplane &mp)
{
    ViewFormat view;
    view.fourcc = find_pixel_format(mp.pixelformat) ? mp.pixelformat : cam.config.views[0].fourcc;
    view.width = nearest_side(mp.width, cam.config.sensor_width);
    view.height = nearest_side(mp.height, cam.config.sensor_height);
    return view;
}

// A standard client's reply: the views' words are the ISP library's
// business and stay out of it.
void clear_view_words(v4l2_format *f)
{
    for (v4l2_plane_pix_format &plane : f->fmt.pix_mp.plane_fmt)
        std::memset(plane.reserved, 0, sizeof plane.reserved);
}

void apply_standard_format(State &s, int node, const v4l2_pix_format_mplane &mp)
{
    Camera &cam = s.cameras[camera_of_node(node)];
    cam.config.views[0] = nearest_view(cam, mp);
    if (node < kCameras)
        cam.input = 1;
}

std::string format_detail(const char *what, const v4l2_pix_format_mplane &mp)
{
    char text[96];
    char fourcc[5];
    for (int i = 0; i < 4; ++i) {
        char c = char((mp.pixelformat >> (8 * i)) & 0xff);
        fourcc[i] = (c >= ' ' && c <= '~') ? c : '?';
    }
    fourcc[4] = '\0';
    std::snprintf(text, sizeof text, "%s width=%u height=%u fourcc=%s", what, mp.width, mp.height, fourcc);
    return text;
}

} // namespace

uint32_t bytes_per_line(const ViewFormat &view)
{
    const PixelFormat *format = find_pixel_format(view.fourcc);
    return view.width * (format ? format->bytes_per_pixel : 1);
}

// The test pattern is painted with BT.601 limited-range YUV; its RGB form
// is the full-range conversion of the same colours.
void describe_colorimetry(uint32_t fourcc, v4l2_pix_format_mplane *mp)
{
    mp->colorspace = V4L2_COLORSPACE_SMPTE170M;
    mp->xfer_func = V4L2_XFER_FUNC_709;
    if (fourcc == kRGB24) {
        mp->ycbcr_enc = V4L2_YCBCR_ENC_601;
        mp->quantization = V4L2_QUANTIZATION_FULL_RANGE;
    } else {
        mp->ycbcr_enc = V4L2_YCBCR_ENC_601;
        mp->quantization = V4L2_QUANTIZATION_LIM_RANGE;
    }
}

bool is_view_request(const v4l2_format &f)
{
    const v4l2_pix_format_mplane &mp = f.fmt.pix_mp;
    if (mp.field != V4L2_FIELD_ANY || mp.colorspace || mp.flags || mp.ycbcr_enc ||
        mp.quantization || mp.xfer_func)
        return false;
    static const v4l2_plane_pix_format kZeroPlanes[VIDEO_MAX_PLANES] = {};
    return std::memcmp(mp.plane_fmt, kZeroPlanes, sizeof kZeroPlanes) == 0;
}

int enum_format(v4l2_fmtdesc *desc, LogNote *note)
{
    note->detail = "index=" + std::to_string(desc->index);
    if (desc->type != V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE || desc->index >= std::size(kPixelFormats))
        return EINVAL;
    const PixelFormat &format = kPixelFormats[desc->index];
    uint32_t index = desc->index;
    std::memset(desc, 0, sizeof *desc);
    desc->index = index;
    desc->type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    desc->pixelformat = format.fourcc;
    std::snprintf(reinterpret_cast<char *>(desc->description), sizeof desc->description, "%s",
                  format.description);
    return 0;
}

// The reply is the record G_FMT would give once the format is set, so that
// TRY_FMT and S_FMT agree.
int try_format(State &s, int node, v4l2_format *f, LogNote *note)
{
    note->detail = format_detail("asked", f->fmt.pix_mp);
    if (f->type != V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE)
        return EINVAL;
    Camera &cam = s.cameras[camera_of_node(node)];
    const Camera kept = cam;
    apply_standard_format(s, node, f->fmt.pix_mp);
    fill_format(s, node, f);
    clear_view_words(f);
    cam = kept;
    note->detail += " -> " + format_detail("got", f->fmt.pix_mp).substr(4);
    return 0;
}

int set_standard_format(State &s, int node, v4l2_format *f, LogNote *note)
{
    note->detail = format_detail("asked", f->fmt.pix_mp);
    if (f->type != V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE)
        return EINVAL;
    // The buffers are sized for the format in force, as with any driver on
    // the kernel's buffer framework.
    if (s.nodes[node].streaming || !s.nodes[node].buffers.empty())
        return EBUSY;
    apply_standard_format(s, node, f->fmt.pix_mp);
    fill_format(s, node, f);
    clear_view_words(f);
    note->detail += " -> " + format_detail("got", f->fmt.pix_mp).substr(4);
    return 0;
}

int enum_frame_sizes(const State &s, int node, v4l2_frmsizeenum *size, LogNote *note)
{
    note->detail = "index=" + std::to_string(size->index);
    if (size->index != 0 || !find_pixel_format(size->pixel_format))
        return EINVAL;
    const CameraConfig &config = s.cameras[camera_of_node(node)].config;
    uint32_t pixel_format = size->pixel_format;
    std::memset(size, 0, sizeof *size);
    size->pixel_format = pixel_format;
    size->type = V4L2_FRMSIZE_TYPE_STEPWISE;
    size->stepwise.min_width = kMinSide;
    size->stepwise.min_height = kMinSide;
    size->stepwise.max_width = std::max(kMinSide, config.sensor_width / kStep * kStep);
    size->stepwise.max_height = std::max(kMinSide, config.sensor_height / kStep * kStep);
    size->stepwise.step_width = kStep;
    size->stepwise.step_height = kStep;
    return 0;
}

} // namespace zsim::detail
