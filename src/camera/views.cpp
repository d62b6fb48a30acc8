/*
 * views.cpp - one view's format through the ISP's per-view convention on
 * G_FMT / S_FMT, and the DMA-buf descriptor of one view of one buffer.
 */
#include <cstdio>

#include "isp_video.h"
#include "v4l2_records.h"

namespace zelisp {

int IspVideo::GetViewFormat(int32_t view, zelvideo::_view_format_t *out)
{
    if (!StateAllows("GetViewFormat", StateBit(VIDEO_OPENED) | StateBit(VIDEO_INITED) | StateBit(VIDEO_CAPTURING)))
        return ISP_ERR_STATE;
    // Only plane_fmt[0..2] carry view formats; any other entry is not ours.
    if (view < 0 || view >= kMaxViews)
        return ISP_ERR_INVALID;

    // Asked anew each time: the driver's current word, not the one of Init.
    v4l2_format reply = FormatQuery();
    if (IoctlRetry(fd, VIDIOC_G_FMT, &reply) < 0) {
        DeviceMessage(" get view format failed");
        perror("get format");
        return ISP_ERR_REQUEST;
    }
    *out = ViewFormatFromReply(reply, view);
    return ISP_OK;
}

int IspVideo::SetViewFormat(int32_t view, zelvideo::_view_format_t format)
{
    // The buffers are sized from the formats, so no change while streaming.
    if (!StateAllows("SetViewFormat", StateBit(VIDEO_OPENED) | StateBit(VIDEO_INITED)))
        return ISP_ERR_STATE;

    v4l2_format request = ViewFormatRequest(view, format);
    if (IoctlRetry(fd, VIDIOC_S_FMT, &request) < 0) {
        DeviceMessage(" set view format failed");
        perror("set format");
        return ISP_ERR_REQUEST;
    }
    return ISP_OK;
}

int IspVideo::GetViewBufFd(int32_t buffer_index, uint32_t view)
{
    if (!StateAllows("GetViewBufFd", StateBit(VIDEO_INITED)))
        return ISP_ERR_STATE;
    if (buffer_index < 0 || buffer_index >= buffer_count || view >= uint32_t(kMaxViews))
        return ISP_ERR_INVALID;
    // A view that is not enabled has no plane and so no export; its entry
    // holds no descriptor of ours and must not be mistaken for one.
    if ((view_mask & (1u << view)) == 0)
        return -1;
    return buffers[buffer_index].views[view].fd;
}

} // namespace zelisp
