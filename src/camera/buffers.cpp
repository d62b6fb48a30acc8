/*
 * buffers.cpp - the buffer phase of stream setup and its undo at Close.
 *
 * The driver allocates the capture buffers; the camera maps every plane
 * once and exports every plane as a DMA-buf descriptor, so that frames are
 * later handed over as descriptors into these mappings and never copied.
 */
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>

#include "driver/driver_request.h"
#include "isp_video.h"
#include "library/messages.h"
#include "v4l2_records.h"

namespace zelisp {

namespace {

// The view a plane carries. The buffer phase walks only the planes that the
// view mask enables, so the lookup always names a view; the floor at view 0
// says so to the compiler, which otherwise sees the lookup's -1 reach an index.
int PlaneView(const IspVideo &video, int plane)
{
    return std::max(ViewOfPlane(video.view_mask, plane), 0);
}

zelvideo::_isp_view_buf_t &PlaneEntry(IspVideo &video, int buffer, int plane)
{
    return video.buffers[buffer].views[PlaneView(video, plane)];
}

uint32_t &MappedLength(IspVideo &video, int buffer, int plane)
{
    return video.mapped_length[buffer][PlaneView(video, plane)];
}

// Undoes the mappings of a failed buffer phase: every plane of the first
// `whole_buffers` buffers and the first `planes_of_next` planes of the next.
void UnmapPlanes(IspVideo &video, int whole_buffers, int planes_of_next)
{
    for (int buffer = 0; buffer <= whole_buffers && buffer < video.buffer_count; ++buffer) {
        int planes = buffer < whole_buffers ? video.plane_count : planes_of_next;
        for (int plane = 0; plane < planes; ++plane) {
            munmap(PlaneEntry(video, buffer, plane).addr, MappedLength(video, buffer, plane));
        }
    }
}

int MapBuffer(IspVideo &video, int buffer)
{
    v4l2_plane planes[kMaxViews];
    v4l2_buffer query = PlaneBufferRecord(uint32_t(buffer), planes, video.plane_count);
    const int result = ReportedRequest(video.fd, video.dev_path, VIDIOC_QUERYBUF, &query, "query buf",
                                       "query buffer %d failed", buffer);
    if (result != ISP_OK) {
        UnmapPlanes(video, buffer, 0);
        return result;
    }

    video.buffers[buffer].index = uint32_t(buffer);
    for (int plane = 0; plane < video.plane_count; ++plane) {
        zelvideo::_isp_view_buf_t &entry = PlaneEntry(video, buffer, plane);
        entry.index = uint32_t(buffer);
        entry.length = planes[plane].length;
        MappedLength(video, buffer, plane) = entry.length;
        entry.addr = mmap(nullptr, entry.length, PROT_READ | PROT_WRITE, MAP_SHARED, video.fd,
                          planes[plane].m.mem_offset);
        if (entry.addr == MAP_FAILED) {
            PrintLine(ISP_MESSAGE_FAILURE, video.dev_path, "mmap failed buffer  = %d plane = %d", buffer, plane);
            UnmapPlanes(video, buffer, plane);
            return ISP_ERR_MAP;
        }
    }
    return ISP_OK;
}

// A plane that cannot be exported is still usable through its mapping, so
// a failed export is reported and marked (-1) but does not fail the setup.
void ExportPlane(IspVideo &video, int buffer, int plane)
{
    v4l2_exportbuffer request = ExportRequest(uint32_t(buffer), uint32_t(plane));
    zelvideo::_isp_view_buf_t &entry = PlaneEntry(video, buffer, plane);
    int &exported = video.exported_fd[buffer][ViewOfPlane(video.view_mask, plane)];
    if (video.Request(VIDIOC_EXPBUF, &request) < 0 || request.fd < 0) {
        PrintLine(ISP_MESSAGE_FAILURE, video.dev_path, "export buf failed, index %d plane %d", buffer, plane);
        entry.fd = -1;
        exported = -1;
        return;
    }
    entry.fd = request.fd;
    exported = request.fd;
}

} // namespace

int IspVideo::SetupBuffers(int32_t buffer_num)
{
    v4l2_requestbuffers request = BufferRequest(uint32_t(buffer_num));
    const int requested =
        ReportedRequest(fd, dev_path, VIDIOC_REQBUFS, &request, "request buf", " request buffers failed");
    if (requested != ISP_OK)
        return requested;

    // A driver may grant fewer buffers than asked, 0 included. It should
    // never grant more than the 8 we ask for at most, but the table has room
    // for 8 only: the camera then uses the first 8. The others stay with
    // the driver, never queued and therefore never filled, so they cannot
    // reach the frame loop.
    buffer_count = int32_t(std::min<uint32_t>(request.count, kMaxBuffers));

    for (int buffer = 0; buffer < buffer_count; ++buffer) {
        int result = MapBuffer(*this, buffer);
        if (result != ISP_OK)
            return result;
    }
    for (int buffer = 0; buffer < buffer_count; ++buffer) {
        for (int plane = 0; plane < plane_count; ++plane)
            ExportPlane(*this, buffer, plane);
    }
    state = VIDEO_INITED;
    return ISP_OK;
}

void IspVideo::ReleaseBuffers()
{
    for (int buffer = 0; buffer < buffer_count; ++buffer) {
        for (int plane = 0; plane < plane_count; ++plane) {
            const zelvideo::_isp_view_buf_t &entry = PlaneEntry(*this, buffer, plane);
            if (entry.addr == MAP_FAILED)
                continue;
            munmap(entry.addr, MappedLength(*this, buffer, plane));
        }
    }
    // What was exported, whatever number it got (0 included); the table's
    // fd is the application's copy and not consulted.
    for (auto &descriptors : exported_fd) {
        for (int32_t &descriptor : descriptors) {
            if (descriptor >= 0)
                close(descriptor);
            descriptor = -1;
        }
    }
}

} // namespace zelisp
