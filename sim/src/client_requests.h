/*
 * client_requests.h - the requests of a video node that only standard V4L2
 * clients send (GStreamer's v4l2src, v4l2-ctl, v4l2-compliance): format
 * negotiation, frame intervals, access priority and events. The ISP's own
 * library never sends them, so none of them changes what it sees.
 *
 * Each function is called with the core lock held and returns 0 or the
 * errno to answer with, putting the decoded fields in note->detail.
 */
#ifndef ZELISP_SIM_CLIENT_REQUESTS_H
#define ZELISP_SIM_CLIENT_REQUESTS_H

#include <linux/videodev2.h>

#include "core.h"

namespace zsim::detail {

// Routes one of the requests above; false when request is none of them
// (the ISP driver's own requests, the controls).
bool handle_client_request(State &s, int node, OpenFile &file, uint32_t request, void *arg, int *error,
                           LogNote *note);

// ---- format_negotiation.cpp
// True when a VIDIOC_S_FMT record is the ISP's per-view request: every
// field but width, height, pixelformat and num_planes (the view) is zero,
// as the ISP library sends it; a view above 2 is refused there. Anything
// else (a field order, a colorspace, a plane's line size) is a standard
// request.
bool is_view_request(const v4l2_format &f);
int enum_format(v4l2_fmtdesc *desc, LogNote *note);
int try_format(State &s, int node, v4l2_format *f, LogNote *note);
int set_standard_format(State &s, int node, v4l2_format *f, LogNote *note);
int enum_frame_sizes(const State &s, int node, v4l2_frmsizeenum *size, LogNote *note);
// Colorimetry and line sizes of a painted view, for every format reply.
void describe_colorimetry(uint32_t fourcc, v4l2_pix_format_mplane *mp);
uint32_t bytes_per_line(const ViewFormat &view);

// ---- frame_intervals.cpp
int enum_frame_intervals(const State &s, int node, v4l2_frmivalenum *interval, LogNote *note);
int get_stream_parameters(const State &s, int node, v4l2_streamparm *parm, LogNote *note);
int set_stream_parameters(State &s, int node, v4l2_streamparm *parm, LogNote *note);

// ---- queue_ownership.cpp
// EBUSY when request uses the node's buffer queue and another open file or
// another process of the board owns it, or changes the camera's set-up
// while another process streams it; a REQBUFS for buffers claims the queue
// for this process. A successful REQBUFS makes `file` the owner (count 0:
// no owner); after any REQBUFS the process's claim follows its buffers.
int check_queue_owner(State &s, int node, const std::shared_ptr<OpenFile> &file, uint32_t request,
                      const void *arg);
void note_queue_owner(State &s, int node, const std::shared_ptr<OpenFile> &file, uint32_t request,
                      const void *arg);
void settle_queue_claim(State &s, int node);
// Requests that change the camera's set-up, which the board's processes share.
bool changes_setup(uint32_t request);

// ---- access_priority.cpp
// EBUSY when request changes the device and another open file of the node
// holds a higher priority than file, as the kernel's V4L2 core checks.
int check_priority(const State &s, int node, const OpenFile &file, uint32_t request);
int get_priority(const State &s, int node, uint32_t *priority, LogNote *note);
int set_priority(const State &s, int node, OpenFile &file, const uint32_t *priority, LogNote *note);

// ---- control_events.cpp
int subscribe_event(State &s, int node, OpenFile &file, const v4l2_event_subscription *sub, LogNote *note);
int unsubscribe_event(OpenFile &file, const v4l2_event_subscription *sub, LogNote *note);
int dequeue_event(OpenFile &file, v4l2_event *event, LogNote *note);
// After a control request of `file` succeeded: queues a change event for
// every subscriber of a control whose value changed (before: the values
// read before the request, in the order of ids).
struct ControlSnapshot {
    uint32_t id;
    int32_t value;
};
std::vector<ControlSnapshot> control_snapshot(int camera, uint32_t request, const void *arg);
void notify_control_changes(State &s, int camera, const OpenFile &setter,
                            const std::vector<ControlSnapshot> &before);

} // namespace zsim::detail

#endif
