/*
 * stream_setup.cpp - Init: choose the ISP's views, give each enabled view
 * the format the driver reports for it, apply a stored resize, then hand
 * over to the buffer phase.
 *
 * On this ISP the V4L2 input number is the view combination (bit k enables
 * view k) and every enabled view becomes one plane of each capture buffer.
 * Nothing is undone on failure: the driver keeps what it accepted, and the
 * camera stays opened so that Init can be tried again.
 */
#include <cstring>

#include "driver/driver_request.h"
#include "isp_video.h"
#include "library/messages.h"
#include "v4l2_records.h"

namespace zelisp {

namespace {

int SelectInput(IspVideo &video, uint32_t combination)
{
    // The ISP overwrites index with the combination it supports; the
    // record is sent zeroed and nothing else is read from it.
    v4l2_input supported;
    std::memset(&supported, 0, sizeof(supported));
    int result = ReportedRequest(video.fd, video.dev_path, VIDIOC_ENUMINPUT, &supported, "enum input",
                                 " enum view input combination failed");
    if (result != ISP_OK)
        return result;
    video.DeviceMessage(ISP_MESSAGE_PROGRESS, " view input supported combination: %u", supported.index);

    int input = int(combination);
    result = ReportedRequest(video.fd, video.dev_path, VIDIOC_S_INPUT, &input, "set input",
                             " set view input combination %d failed", int(combination));
    if (result != ISP_OK)
        return result;

    // Read back for the console only; the caller's combination is in force.
    int selected = 0;
    result = ReportedRequest(video.fd, video.dev_path, VIDIOC_G_INPUT, &selected, "get input",
                             " get view input combination failed");
    if (result != ISP_OK)
        return result;
    video.DeviceMessage(ISP_MESSAGE_PROGRESS, " view input combination: %d", selected);
    return ISP_OK;
}

int ReadDriverFormats(IspVideo &video)
{
    v4l2_format reply = FormatQuery();
    const int result =
        ReportedRequest(video.fd, video.dev_path, VIDIOC_G_FMT, &reply, "get format", " get view format failed");
    if (result != ISP_OK)
        return result;
    for (int view = 0; view < kMaxViews; ++view)
        video.view_formats[view] = ViewFormatFromReply(reply, view);
    return ISP_OK;
}

// Confirms each enabled view's format to the driver, in view order, which
// is also the order of the planes. A view is counted before its request, so
// a failure leaves the count reached.
int SetEnabledViewFormats(IspVideo &video, uint32_t combination)
{
    video.plane_count = 0;
    for (int view = 0; view < kMaxViews; ++view) {
        if ((combination & (1u << view)) == 0)
            continue;
        ++video.plane_count;
        v4l2_format request = ViewFormatRequest(view, video.view_formats[view]);
        const int result = ReportedRequest(video.fd, video.dev_path, VIDIOC_S_FMT, &request, "set format",
                                           " set view index %d format failed", view);
        if (result != ISP_OK)
            return result;
    }
    return ISP_OK;
}

bool ResizeStored(const zelvideo::_resize_param_t &record)
{
    static const zelvideo::_resize_param_t none = {};
    return std::memcmp(&record, &none, sizeof(record)) != 0;
}

} // namespace

int IspVideo::Init(uint32_t combination, int32_t buffer_num)
{
    if (!StateAllows("Init", StateBit(VIDEO_OPENED)))
        return ISP_ERR_STATE;
    if (uint32_t(buffer_num) < uint32_t(kMinBuffers) || uint32_t(buffer_num) > uint32_t(kMaxBuffers)) {
        DeviceMessage(ISP_MESSAGE_FAILURE, "request buffer number invalid");
        return ISP_ERR_BUFFER_COUNT;
    }

    // The mode 2 node carries view 0 alone, with its format fixed by the
    // driver: no input, format or resize to choose.
    if (mode != 1) {
        plane_count = 1;
        view_mask = 1;
        return SetupBuffers(buffer_num);
    }

    int result = SelectInput(*this, combination);
    if (result == ISP_OK)
        result = ReadDriverFormats(*this);
    if (result == ISP_OK)
        result = SetEnabledViewFormats(*this, combination);
    if (result != ISP_OK)
        return result;

    view_mask = combination;
    // The first crop works on the ISP's input, which view 1 reports.
    if (ResizeStored(resize_param) &&
        ApplyResize(resize_param, int32_t(view_formats[1].width), int32_t(view_formats[1].height)) != ISP_OK) {
        EmitSystemError("Resize Failed\n", dev_path);
        return ISP_ERR_REQUEST;
    }
    return SetupBuffers(buffer_num);
}

} // namespace zelisp
