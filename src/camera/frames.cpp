/*
 * frames.cpp - the frame loop: wait for a filled buffer, take it from the
 * driver, make sure it really follows the last frame, and lend its
 * descriptor to the application until it is put back.
 *
 * Nothing here allocates or copies image data: the records live on the
 * stack and a frame leaves as a copy of its 256-byte table entry, which
 * points into the planes mapped at setup.
 */
#include <poll.h>

#include <cerrno>

#include "driver/device_message.h"
#include "isp_video.h"
#include "v4l2_records.h"

namespace zelisp {

namespace {

// Accepted frames are at least this far apart; anything closer is a
// duplicate delivery or a clock glitch of the sensor pipeline.
constexpr uint64_t kMinFrameIntervalUs = 12000;

// Waits until the node has a filled buffer. poll is used rather than
// select: it answers the same three ways (ready, time up, interrupted) and
// has no FD_SETSIZE ceiling, so a process with more than 1024 descriptors
// open can still wait on its camera. A negative limit waits forever, which
// is also what poll makes of it.
int WaitForFrame(int fd, int32_t timeout_ms)
{
    pollfd node = {fd, POLLIN, 0};
    int ready = poll(&node, 1, timeout_ms);
    if (ready < 0)
        return errno == EINTR ? ISP_ERR_NOT_READY : ISP_ERR_SELECT;
    if (ready == 0)
        return ISP_ERR_TIMEOUT;
    return ISP_OK;
}

uint64_t CaptureTimeUs(const v4l2_buffer &frame)
{
    return uint64_t(frame.timestamp.tv_sec) * 1000000u + uint64_t(frame.timestamp.tv_usec);
}

// The frame follows the last accepted one in sequence and by at least
// kMinFrameIntervalUs; a history of 0 (nothing accepted yet) lets anything
// through.
bool FollowsInSequence(uint32_t last, uint32_t sequence) { return last == 0 || sequence > last; }
bool FollowsInTime(uint64_t last_us, uint64_t time_us)
{
    return last_us == 0 || (time_us > last_us && time_us - last_us >= kMinFrameIntervalUs);
}

} // namespace

// A refused frame goes straight back to the driver and leaves the history
// alone, so the next frame is judged against the last good one. Out of the
// frame loop's way: it formats a line, which the loop never does.
__attribute__((noinline, cold)) int IspVideo::RefuseFrame(v4l2_buffer &frame, uint64_t time_us)
{
    const uint32_t sequence = frame.sequence;
    if (!FollowsInSequence(last_sequence, sequence)) {
        MessageLine()
            .Text(" ERROR: frame sequencecur seq = ")
            .Number(sequence)
            .Text("last seq = ")
            .Number(last_sequence)
            .Print(dev_path);
    } else {
        MessageLine()
            .Text("ERROR: buf_ts = ")
            .Number(time_us)
            .Text("seq = ")
            .Number(sequence)
            .Text("mlast = ")
            .Number(last_timestamp_us)
            .Text("last seq = ")
            .Number(last_sequence)
            .Print(dev_path);
    }
    Request(VIDIOC_QBUF, &frame);
    return ISP_ERR_REQUEST;
}

int IspVideo::GetFrame(zelvideo::_isp_buf_t *out, int32_t timeout_ms)
{
    // Polled in tight loops by applications and groups: refused silently.
    if (state != VIDEO_CAPTURING)
        return ISP_ERR_STATE;
    if (timeout_ms != 0) {
        int waited = WaitForFrame(fd, timeout_ms);
        if (waited != ISP_OK)
            return waited;
    }

    v4l2_plane (&planes)[kMaxViews] = dequeue_planes;
    v4l2_buffer frame = BufferRecord(0, planes, plane_count);
    if (Request(VIDIOC_DQBUF, &frame) < 0) {
        if (errno == EAGAIN)
            return ISP_ERR_NOT_READY;
        DeviceMessage(ISP_MESSAGE_FAILURE, " get frame failed");
        return ISP_ERR_REQUEST;
    }
    // Only buffers 0..buffer_count-1 are ever queued; an index outside the
    // table cannot be described or given back, so the driver is out of step.
    if (frame.index >= uint32_t(buffer_count)) {
        DeviceMessage(ISP_MESSAGE_FAILURE, " get frame failed");
        return ISP_ERR_REQUEST;
    }

    const uint64_t time_us = CaptureTimeUs(frame);
    const uint32_t sequence = frame.sequence;
    if (!FollowsInSequence(last_sequence, sequence) || !FollowsInTime(last_timestamp_us, time_us))
        return RefuseFrame(frame, time_us);
    last_timestamp_us = time_us;
    last_sequence = sequence;

    zelvideo::_isp_buf_t &buffer = buffers[frame.index];
    const int8_t *view_of_plane = kViewOfPlane[view_mask & ((1u << kMaxViews) - 1)];
    auto record = [&](int plane) {
        zelvideo::_isp_view_buf_t &entry = buffer.views[view_of_plane[plane]];
        entry.timestamp = time_us;
        entry.sequence = sequence;
        entry.length = planes[plane].length;
        entry.driver_data = frame.reserved;
    };
    // Three planes, the common case, written out: no loop to run.
    if (__builtin_expect(plane_count == kMaxViews, 1)) {
        record(0);
        record(1);
        record(2);
    } else {
        for (int plane = 0; plane < plane_count; ++plane)
            record(plane);
    }
    *out = buffer;
    return ISP_OK;
}

int IspVideo::PutFrame(const zelvideo::_isp_buf_t &buf)
{
    if (!StateAllows("PutFrame", StateBit(VIDEO_CAPTURING)))
        return ISP_ERR_STATE;
    // The driver knows its buffers; an unknown index is its to refuse.
    if (QueueBuffer(buf.index) < 0) {
        DeviceMessage(ISP_MESSAGE_FAILURE, " put frame failed");
        return ISP_ERR_REQUEST;
    }
    return ISP_OK;
}

int IspVideo::PutFrameByIndex(int32_t index)
{
    if (!StateAllows("PutFrame", StateBit(VIDEO_CAPTURING)))
        return ISP_ERR_STATE;
    if (index < 0 || index >= buffer_count)
        return ISP_ERR_INVALID;
    if (QueueBuffer(uint32_t(index)) < 0) {
        DeviceMessage(ISP_MESSAGE_FAILURE, " put frame failed");
        return ISP_ERR_REQUEST;
    }
    return ISP_OK;
}

} // namespace zelisp
