/*
 * video_requests.h - the V4L2 requests of a video node, one function each,
 * called by video_node.cpp with the lock held. Each returns 0 or the errno
 * to answer with and puts the decoded fields in note->detail.
 */
#ifndef ZELISP_SIM_VIDEO_REQUESTS_H
#define ZELISP_SIM_VIDEO_REQUESTS_H

#include <vector>

#include <linux/videodev2.h>

#include "core.h"

namespace zsim::detail {

// The views a node's buffers carry, one per plane in plane order: the
// enabled views of the camera's combination (mode 1) or view 0 (mode 2).
std::vector<int> views_of_node(const State &s, int node);

// video_node.cpp: the format record G_FMT reports for the node.
void fill_format(const State &s, int node, v4l2_format *f);

// buffers.cpp
int request_buffers(State &s, int node, v4l2_requestbuffers *req, LogNote *note);
int query_buffer(State &s, int node, v4l2_buffer *buf, LogNote *note);
int export_buffer(State &s, int node, v4l2_exportbuffer *exp, LogNote *note);

// streaming.cpp
int queue_buffer(State &s, int node, v4l2_buffer *buf, LogNote *note);
// Blocks (with the lock released) when the descriptor is blocking.
int dequeue_buffer(CoreLock &held, int node, const OpenFile &file, v4l2_buffer *buf, LogNote *note);
int stream_on(State &s, int node, const int *type, LogNote *note);
int stream_off(State &s, int node, const int *type, LogNote *note);

} // namespace zsim::detail

#endif
