// node_queries.cpp - the standard V4L2 read requests the elements send.
#include "node_queries.h"

#include <linux/videodev2.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <numeric>

namespace gstzelisp {
namespace {

// A signal may interrupt any request; it is sent again, as the library does.
int request(int fd, unsigned long code, void *arg)
{
    int result;
    do {
        result = ioctl(fd, code, arg);
    } while (result == -1 && errno == EINTR);
    return result;
}

NodeColorimetry read_colorimetry(int fd)
{
    NodeColorimetry found;
    v4l2_format format{};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    if (request(fd, VIDIOC_G_FMT, &format) != 0)
        return found;
    const v4l2_pix_format_mplane &mp = format.fmt.pix_mp;
    found.fourcc = mp.pixelformat;
    found.colorspace = mp.colorspace;
    found.ycbcr_enc = mp.ycbcr_enc;
    found.quantization = mp.quantization;
    found.xfer_func = mp.xfer_func;
    return found;
}

void read_rate(int fd, NodeFacts *facts)
{
    v4l2_streamparm parm{};
    parm.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    if (request(fd, VIDIOC_G_PARM, &parm) != 0 || !(parm.parm.capture.capability & V4L2_CAP_TIMEPERFRAME))
        return;
    // A frame period of N/D seconds is a rate of D/N frames a second.
    const v4l2_fract &period = parm.parm.capture.timeperframe;
    if (period.numerator == 0 || period.denominator == 0 || period.denominator > 0x7fffffff ||
        period.numerator > 0x7fffffff)
        return;
    uint32_t divisor = std::gcd(period.numerator, period.denominator);
    facts->fps_n = int(period.denominator / divisor);
    facts->fps_d = int(period.numerator / divisor);
}

void read_formats(int fd, NodeFacts *facts)
{
    // Bounded: a driver answers EINVAL past its last format.
    for (uint32_t index = 0; index < 64; ++index) {
        v4l2_fmtdesc description{};
        description.index = index;
        description.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
        if (request(fd, VIDIOC_ENUM_FMT, &description) != 0)
            break;
        facts->fourccs.push_back(description.pixelformat);
    }
}

void read_sizes(int fd, NodeFacts *facts)
{
    if (facts->fourccs.empty())
        return;
    v4l2_frmsizeenum size{};
    size.pixel_format = facts->fourccs[0];
    if (request(fd, VIDIOC_ENUM_FRAMESIZES, &size) != 0)
        return;
    FrameSizes &sizes = facts->sizes;
    if (size.type == V4L2_FRMSIZE_TYPE_DISCRETE) {
        // One size: what the sensor makes; the views cannot be chosen.
        return;
    }
    sizes.known = size.stepwise.max_width > 0 && size.stepwise.max_height > 0;
    sizes.min_width = size.stepwise.min_width;
    sizes.max_width = size.stepwise.max_width;
    sizes.min_height = size.stepwise.min_height;
    sizes.max_height = size.stepwise.max_height;
    sizes.step_width = size.type == V4L2_FRMSIZE_TYPE_STEPWISE ? std::max(1u, size.stepwise.step_width) : 1;
    sizes.step_height = size.type == V4L2_FRMSIZE_TYPE_STEPWISE ? std::max(1u, size.stepwise.step_height) : 1;
}

} // namespace

NodeFacts query_node(int fd)
{
    NodeFacts facts;
    facts.colorimetry = read_colorimetry(fd);
    read_rate(fd, &facts);
    read_formats(fd, &facts);
    read_sizes(fd, &facts);
    return facts;
}

} // namespace gstzelisp
