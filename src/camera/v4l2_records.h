/*
 * v4l2_records.h - the V4L2 records the camera sends to the ISP's video
 * node, each built in one place so the field values the driver sees can be
 * read at a glance, plus the ISP driver's per-view format convention.
 */
#ifndef ZELISP_CAMERA_V4L2_RECORDS_H
#define ZELISP_CAMERA_V4L2_RECORDS_H

#include <linux/videodev2.h>

#include <cstdint>
#include <cstring>

#include "driver/driver_request.h"
#include "isp_video.h"

namespace zelisp {

// Every buffer and format request of the camera is multi-planar capture.
constexpr uint32_t kCaptureType = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;

// VIDIOC_G_FMT query: all zero but the type.
v4l2_format FormatQuery();
// The ISP reports view `view`'s format in the reserved words of
// plane_fmt[view]: words 0 and 1 the fourcc (low half first), 2 the width,
// 3 the height.
zelvideo::_view_format_t ViewFormatFromReply(const v4l2_format &reply, int view);
// VIDIOC_S_FMT for one view: the ISP reads num_planes as the view's index,
// so only views 0..255 can be named at all.
constexpr bool ViewFitsRequest(int32_t view) { return view >= 0 && view <= 255; }
v4l2_format ViewFormatRequest(int view, const zelvideo::_view_format_t &format);

v4l2_requestbuffers BufferRequest(uint32_t count);
// A buffer record for QUERYBUF, QBUF and DQBUF, lending it `planes`, of
// which it announces `plane_count`. Inline: two of these are filled for
// every frame.
inline v4l2_buffer BufferRecord(uint32_t index, v4l2_plane (&planes)[kMaxViews], int plane_count)
{
    v4l2_buffer record;
    std::memset(&record, 0, sizeof(record));
    record.index = index;
    record.type = kCaptureType;
    record.memory = V4L2_MEMORY_MMAP;
    record.m.planes = planes;
    record.length = uint32_t(plane_count);
    return record;
}
// The same with `planes` cleared first, for the requests that read them.
inline v4l2_buffer PlaneBufferRecord(uint32_t index, v4l2_plane (&planes)[kMaxViews], int plane_count)
{
    // One plane at a time: three short runs of vector stores cost a third
    // of one string store over the whole array, for every frame.
    static_assert(kMaxViews == 3, "one clear per view");
    std::memset(&planes[0], 0, sizeof(v4l2_plane));
    std::memset(&planes[1], 0, sizeof(v4l2_plane));
    std::memset(&planes[2], 0, sizeof(v4l2_plane));
    return BufferRecord(index, planes, plane_count);
}
// Gives buffer `index` back to the driver. Inline: once for every frame.
__attribute__((always_inline)) inline int IspVideo::QueueBuffer(uint32_t index)
{
    v4l2_plane planes[kMaxViews];
    v4l2_buffer record = PlaneBufferRecord(index, planes, plane_count);
    return DriverRequest(fd, VIDIOC_QBUF, &record, Retry::WhileInterrupted);
}

v4l2_exportbuffer ExportRequest(uint32_t index, uint32_t plane);

} // namespace zelisp

#endif
