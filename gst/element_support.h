/*
 * element_support.h - what both source elements share: the library's words
 * in element errors, the capture time on the pipeline clock, the wait for a
 * camera node that a state change can interrupt, and the buffers made from
 * one view of one frame.
 */
#ifndef GST_ZELISP_ELEMENT_SUPPORT_H
#define GST_ZELISP_ELEMENT_SUPPORT_H

#include <gst/gst.h>
#include <gst/video/video.h>

#include <string>

#include "frame_memory.h"
#include "zelisp.h"

namespace gstzelisp {

// "isp_init_video: a driver request failed, or the frame was refused (-11)"
std::string library_error_text(const char *call, int result);
void post_library_error(GstElement *element, const char *call, int result);
// A refused property value: the element's warning, the old value kept.
void refuse_property(GObject *object, const char *property, const std::string &reason);

// The capture time (CLOCK_MONOTONIC microseconds) as running time of the
// element's pipeline; GST_CLOCK_TIME_NONE without a clock. A capture that
// precedes the pipeline's start becomes 0.
GstClockTime capture_running_time(GstElement *element, uint64_t timestamp_us);

// Waits until the node's descriptor is readable (a filled buffer waits).
enum class WaitResult { Ready, TimedOut, Flushing, Failed };
WaitResult wait_readable(GstPoll *poll, GstClockTime timeout);

// One view as it leaves the element: its pad, layout and memory choice.
struct ViewOutput {
    int view = 0;
    zelvideo::_view_format_t format{};
    GstVideoInfo info{};
    bool dmabuf = false;
    CopyPool copies;
};

// The buffer of one view of `frame`: its wrapped plane or, when `copy`, a
// pooled copy of it; with the ISP's plane layout in a video meta, the
// sequence number as offset. NULL when the plane cannot hold the image.
GstBuffer *view_buffer(Stream *stream, Stream::Frame *frame, ViewOutput &output, bool copy);

} // namespace gstzelisp

#endif
