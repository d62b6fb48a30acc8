/*
 * views.cpp - one view's format through the ISP's per-view convention on
 * G_FMT / S_FMT, and the DMA-buf descriptor of one view of one buffer.
 */
#include "driver/driver_request.h"
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
    const int result = ReportedRequest(fd, dev_path, VIDIOC_G_FMT, &reply, "get format", " get view format failed");
    if (result != ISP_OK)
        return result;
    *out = ViewFormatFromReply(reply, view);
    return ISP_OK;
}

int IspVideo::SetViewFormat(int32_t view, zelvideo::_view_format_t format)
{
    // The buffers are sized from the formats, so no change while streaming.
    if (!StateAllows("SetViewFormat", StateBit(VIDEO_OPENED) | StateBit(VIDEO_INITED)))
        return ISP_ERR_STATE;
    // The ISP reads the view from one byte of the record: a wider number
    // would be cut and name another view. Views 3..255 are the driver's to
    // refuse.
    if (!ViewFitsRequest(view))
        return ISP_ERR_INVALID;

    v4l2_format request = ViewFormatRequest(view, format);
    return ReportedRequest(fd, dev_path, VIDIOC_S_FMT, &request, "set format", " set view format failed");
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
