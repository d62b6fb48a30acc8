/* v4l2_records.cpp - the V4L2 records of the camera, filled in one place. */
#include "v4l2_records.h"

#include <cstring>

namespace zelisp {

v4l2_format FormatQuery()
{
    v4l2_format query;
    std::memset(&query, 0, sizeof(query));
    query.type = kCaptureType;
    return query;
}

zelvideo::_view_format_t ViewFormatFromReply(const v4l2_format &reply, int view)
{
    // plane_fmt entries are packed: read the words by value, not by pointer.
    const v4l2_plane_pix_format &entry = reply.fmt.pix_mp.plane_fmt[view];
    zelvideo::_view_format_t format;
    format.format = uint32_t(entry.reserved[0]) | uint32_t(entry.reserved[1]) << 16;
    format.width = entry.reserved[2];
    format.height = entry.reserved[3];
    return format;
}

v4l2_format ViewFormatRequest(int view, const zelvideo::_view_format_t &format)
{
    v4l2_format request = FormatQuery();
    request.fmt.pix_mp.width = format.width;
    request.fmt.pix_mp.height = format.height;
    request.fmt.pix_mp.pixelformat = format.format;
    request.fmt.pix_mp.num_planes = uint8_t(view);
    return request;
}

v4l2_requestbuffers BufferRequest(uint32_t count)
{
    v4l2_requestbuffers request;
    std::memset(&request, 0, sizeof(request));
    request.count = count;
    request.type = kCaptureType;
    request.memory = V4L2_MEMORY_MMAP;
    return request;
}

v4l2_exportbuffer ExportRequest(uint32_t index, uint32_t plane)
{
    v4l2_exportbuffer request;
    std::memset(&request, 0, sizeof(request));
    request.type = kCaptureType;
    request.index = index;
    request.plane = plane;
    return request;
}

} // namespace zelisp
