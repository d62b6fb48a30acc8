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
// A buffer record for QUERYBUF, QBUF and DQBUF: `planes` is cleared and
// lent to the record, which announces `plane_count` of them. Inline: two of
// these are filled for every frame.
inline v4l2_buffer PlaneBufferRecord(uint32_t index, v4l2_plane (&planes)[kMaxViews], int plane_count)
{
    std::memset(planes, 0, sizeof(planes));
    v4l2_buffer record;
    std::memset(&record, 0, sizeof(record));
    record.index = index;
    record.type = kCaptureType;
    record.memory = V4L2_MEMORY_MMAP;
    record.m.planes = planes;
    record.length = uint32_t(plane_count);
    return record;
}
v4l2_exportbuffer ExportRequest(uint32_t index, uint32_t plane);

} // namespace zelisp

#endif
