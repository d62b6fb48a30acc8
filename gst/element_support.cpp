// element_support.cpp - errors, clock mapping, waits and view buffers of the
// source elements.
#include "element_support.h"

#include <sys/mman.h>

#include <cerrno>

namespace gstzelisp {

std::string library_error_text(const char *call, int result)
{
    return std::string(call) + ": " + isp_get_result_text(result) + " (" + std::to_string(result) + ")";
}

void post_library_error(GstElement *element, const char *call, int result)
{
    std::string text = library_error_text(call, result);
    GST_ELEMENT_ERROR(element, RESOURCE, FAILED, ("%s", text.c_str()), (nullptr));
}

void refuse_property(GObject *object, const char *property, const std::string &reason)
{
    g_warning("%s: refused %s: %s; the value stays as it was", GST_OBJECT_NAME(object), property, reason.c_str());
}

GstClockTime capture_running_time(GstElement *element, uint64_t timestamp_us)
{
    GstClock *clock = gst_element_get_clock(element);
    if (!clock)
        return GST_CLOCK_TIME_NONE;
    // Read both clocks back to back: the capture happened (now_monotonic -
    // capture) ago on the pipeline clock as well.
    GstClockTime now = gst_clock_get_time(clock);
    gint64 monotonic_ns = g_get_monotonic_time() * 1000;
    gst_object_unref(clock);
    gint64 age = monotonic_ns - gint64(timestamp_us * 1000);
    GstClockTime base = gst_element_get_base_time(element);
    if (age < 0)
        age = 0;
    if (now < base + GstClockTime(age))
        return 0;
    return now - GstClockTime(age) - base;
}

WaitResult wait_readable(GstPoll *poll, GstClockTime timeout)
{
    for (;;) {
        gint ready = gst_poll_wait(poll, timeout);
        if (ready > 0)
            return WaitResult::Ready;
        if (ready == 0)
            return WaitResult::TimedOut;
        if (errno == EBUSY)
            return WaitResult::Flushing;
        if (errno != EINTR && errno != EAGAIN)
            return WaitResult::Failed;
    }
}

GstBuffer *view_buffer(Stream *stream, Stream::Frame *frame, ViewOutput &output, bool copy)
{
    const zelvideo::_isp_view_buf_t &plane = frame->buf.views[output.view];
    gsize size = GST_VIDEO_INFO_SIZE(&output.info);
    if (plane.length < size || !plane.addr || plane.addr == MAP_FAILED)
        return nullptr;
    GstBuffer *buffer = nullptr;
    if (copy) {
        buffer = output.copies.copy(plane.addr, size, output.dmabuf);
    } else {
        GstMemory *memory = stream->wrap(frame, output.view, size, output.dmabuf);
        if (memory) {
            buffer = gst_buffer_new();
            gst_buffer_append_memory(buffer, memory);
        }
    }
    if (!buffer)
        return nullptr;
    const GstVideoInfo &info = output.info;
    gst_buffer_add_video_meta_full(buffer, GST_VIDEO_FRAME_FLAG_NONE, GST_VIDEO_INFO_FORMAT(&info),
                                   GST_VIDEO_INFO_WIDTH(&info), GST_VIDEO_INFO_HEIGHT(&info),
                                   GST_VIDEO_INFO_N_PLANES(&info), const_cast<gsize *>(info.offset),
                                   const_cast<gint *>(info.stride));
    GST_BUFFER_OFFSET(buffer) = plane.sequence;
    GST_BUFFER_OFFSET_END(buffer) = guint64(plane.sequence) + 1;
    return buffer;
}

} // namespace gstzelisp
