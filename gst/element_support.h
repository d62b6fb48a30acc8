/*
 * element_support.h - what the source elements share: the library's words
 * in element errors, whether a camera exists, running time on the pipeline
 * clock, the wait for a camera node that a state change can interrupt, and
 * the buffers made from one view of one frame.
 */
#ifndef GST_ZELISP_ELEMENT_SUPPORT_H
#define GST_ZELISP_ELEMENT_SUPPORT_H

#include <gst/gst.h>
#include <gst/video/video.h>

#include <string>
#include <vector>

#include "frame_memory.h"
#include "zelisp.h"

namespace gstzelisp {

// "isp_init_video: a driver request failed, or the frame was refused (-11)"
std::string library_error_text(const char *call, int result);
void post_library_error(GstElement *element, const char *call, int result);
// A refused property value: the element's warning, the old value kept.
void refuse_property(GObject *object, const char *property, const std::string &reason);

// NULL to READY: false, after posting the error, when the platform does not
// list `camera` (or, without a platform node, its video node is missing).
bool check_camera_present(GstElement *element, int camera, int mode);

// The running time on `clock` with `base_time` `age_us` microseconds ago;
// GST_CLOCK_TIME_NONE without a clock, 0 for a moment before the start.
GstClockTime running_time_ago(GstClock *clock, GstClockTime base_time, gint64 age_us);

// Waits until the node's descriptor is readable (a filled buffer waits).
enum class WaitResult { Ready, TimedOut, Flushing, Failed };
WaitResult wait_readable(GstPoll *poll, GstClockTime timeout);
// Whether a node has hung up: its camera was unplugged (the kernel
// unregistered the node) or its queue is in error. Every request on it
// fails from then on, so a failed take is no refused frame to retry.
bool node_hung_up(const std::vector<GstPollFD> &fds);

// One view as it leaves the element: its pad, layout and memory choice.
struct ViewOutput {
    int view = 0;
    zelvideo::_view_format_t format{};
    GstVideoInfo info{};
    bool dmabuf = false;
    CopyPool copies;
};

// The buffer of one view of `buf`, held as `frame`: its wrapped plane or,
// when `copy`, a pooled copy of it (at most `most_copies` held downstream);
// with the ISP's plane layout in a video meta, the sequence number as
// offset. NULL when the plane cannot hold the image, or with *copy_limit set
// when every copy is held downstream.
GstBuffer *view_buffer(Stream *stream, Stream::Frame *frame, const zelvideo::_isp_buf_t &buf, ViewOutput &output,
                       bool copy, int most_copies, bool *copy_limit);

} // namespace gstzelisp

#endif
