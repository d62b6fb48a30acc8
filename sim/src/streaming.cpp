/*
 * streaming.cpp - buffer ownership and the stream of a video node.
 *
 * A buffer is with the program, queued to the driver, or filled and
 * waiting to be dequeued, as in any V4L2 driver. The node's eventfd counts
 * the filled buffers, so the program's descriptor is readable exactly while
 * one waits. Frames come from the hardware thread (free-running) or from
 * the test's script, always into the oldest queued buffer.
 */
#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "board_clock.h"
#include "board_state.h"
#include "core.h"
#include "video_requests.h"

namespace zsim::detail {
namespace {

// A blocking dequeue looks again at this interval, so that a stream
// switched off by another thread ends the wait.
constexpr int kDequeueRecheckMs = 100;

bool valid_planes(const Buffer &buffer, const v4l2_buffer *buf)
{
    return buf->m.planes && buf->length >= buffer.planes.size();
}

void report_dequeued(const Node &n, int index, v4l2_buffer *buf)
{
    const Buffer &buffer = n.buffers[size_t(index)];
    size_t planes = buffer.planes.size();
    size_t reported = planes + size_t(std::max(0, n.quirks.extra_planes));
    size_t written = std::max(planes, std::min<size_t>(reported, kMaxPlanes));
    for (size_t j = 0; j < written; ++j) {
        v4l2_plane &plane = buf->m.planes[j];
        plane = v4l2_plane();
        if (j < planes) {
            plane.length = buffer.reported_length[j] ? buffer.reported_length[j] : uint32_t(buffer.planes[j].length);
            plane.bytesused = uint32_t(std::min(image_size(buffer.planes[j].format), buffer.planes[j].length));
        }
        plane.m.mem_offset = plane_offset(index, int(j));
    }
    buf->index = n.quirks.dequeue_index >= 0 ? uint32_t(n.quirks.dequeue_index) : uint32_t(index);
    buf->length = uint32_t(reported);
    buf->memory = V4L2_MEMORY_MMAP;
    buf->bytesused = 0;
    // Dequeued: no longer DONE.
    buf->flags = V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC | V4L2_BUF_FLAG_TSTAMP_SRC_EOF | mapped_flag(buffer) |
                 (buffer.error ? V4L2_BUF_FLAG_ERROR : 0);
    buf->field = V4L2_FIELD_NONE;
    buf->timestamp.tv_sec = time_t(buffer.timestamp_ns / 1000000000u);
    buf->timestamp.tv_usec = suseconds_t(buffer.timestamp_ns % 1000000000u / 1000u);
    buf->timecode = v4l2_timecode();
    buf->sequence = buffer.sequence;
    buf->reserved2 = 0;
    buf->reserved = buffer.reserved;
}

bool capture_type(const int *type) { return *type == V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE; }

void signal_filled(Node &n)
{
    uint64_t one = 1;
    if (write(n.event_fd, &one, sizeof one) != sizeof one)
        std::perror("zelisp-sim: frame signal");
}

void deliver_scripted(Node &n)
{
    while (n.streaming && n.frame_mode == FrameMode::Scripted && !n.script.empty() && !n.queued.empty()) {
        ScriptedFrame frame = n.script.front();
        n.script.pop_front();
        int index = n.queued.front();
        n.queued.pop_front();
        fill_buffer(n, index, frame.sequence, frame.timestamp_us * 1000u, frame.reserved, frame.plane_length,
                    frame.paint, frame.error);
    }
}

void start_stream(State &s, int node)
{
    Node &n = s.nodes[node];
    n.streaming = true;
    if (n.quirks.restart_sequence_on_streamon)
        n.next_sequence = 0;
    start_frame_clock(s, n, s.cameras[camera_of_node(node)].config.fps, host_monotonic_ns());
    deliver_scripted(n);
}

void stop_stream(Node &n)
{
    n.streaming = false;
    ++n.queue_generation;
    for (Buffer &buffer : n.buffers)
        buffer.state = BufferState::User;
    n.queued.clear();
    n.filled.clear();
    drain_filled(n);
}

// The buffer goes to the filled queue, and the descriptor becomes readable.
void hand_over(Node &n, int index)
{
    n.buffers[size_t(index)].state = BufferState::Filled;
    n.filled.push_back(index);
    signal_filled(n);
}

// A painted frame: handed over, unless its queue was reset meanwhile (the
// stream stopped, the buffers were freed), with the planes' bookkeeping.
void finish_job(State &s, const FrameJob &job)
{
    for (size_t j = 0; j < job.plane_count; ++j)
        keep_built_image(s, job.planes[j]);
    Node &n = s.nodes[job.node];
    if (job.queue_generation != n.queue_generation || size_t(job.index) >= n.buffers.size())
        return;
    Buffer &buffer = n.buffers[size_t(job.index)];
    if (buffer.state != BufferState::Painting)
        return;
    for (size_t j = 0; j < job.plane_count && j < buffer.planes.size(); ++j) {
        buffer.planes[j].image_id = job.planes[j].image_id;
        buffer.planes[j].block = job.planes[j].block;
    }
    hand_over(n, job.index);
}

} // namespace

void drain_filled(Node &n)
{
    uint64_t count;
    while (n.event_fd >= 0 && read(n.event_fd, &count, sizeof count) == sizeof count) {
    }
}

void fill_buffer(Node &n, int index, uint32_t sequence, uint64_t timestamp_ns, uint32_t reserved,
                 const uint32_t *plane_length, bool paint, bool error)
{
    State &s = state();
    const int node = int(&n - s.nodes);
    Buffer &buffer = n.buffers[size_t(index)];
    buffer.error = error;
    buffer.sequence = sequence;
    buffer.timestamp_ns = timestamp_ns;
    buffer.reserved = reserved;
    for (size_t j = 0; j < buffer.planes.size(); ++j)
        buffer.reported_length[j] = plane_length ? plane_length[j] : 0;
    if (!paint) {
        hand_over(n, index);
        return;
    }
    // The pixels are written with the lock released, so that requests of
    // every camera go on meanwhile (run_paint_jobs).
    const int camera = camera_of_node(node);
    meter_frame(s.cameras[camera], sequence);
    const std::vector<int> views = views_of_node(s, node);
    FrameJob job;
    job.node = node;
    job.index = index;
    job.queue_generation = n.queue_generation;
    for (size_t j = 0; j < buffer.planes.size() && j < views.size() && j < size_t(kMaxPlanes); ++j)
        job.planes[job.plane_count++] = plan_plane_paint(s, camera, views[j], buffer.planes[j], sequence,
                                                         n.frame_mode == FrameMode::FreeRunning);
    buffer.state = BufferState::Painting;
    s.paint_jobs.push_back(std::move(job));
}

void run_paint_jobs(CoreLock &held)
{
    State &s = state();
    while (!s.paint_jobs.empty()) {
        std::vector<FrameJob> jobs;
        jobs.swap(s.spare_jobs);
        jobs.swap(s.paint_jobs);
        held.unlock();
        for (FrameJob &job : jobs)
            for (size_t j = 0; j < job.plane_count; ++j)
                paint_planned(job.planes[j]);
        held.lock();
        for (const FrameJob &job : jobs)
            finish_job(s, job);
        jobs.clear(); // lets go of the images and memory the frames held
        s.spare_jobs.swap(jobs);
    }
}


void release_queue(State &s, int node)
{
    if (node >= kVideoNodes)
        return;
    stop_stream(s.nodes[node]);
    free_buffers(s, node);
    release_queue_claim(node);
    // The resize belongs to the open file that set it up, as on the board.
    Camera &cam = s.cameras[node % kCameras];
    if (node < kCameras && cam.resize_mine) {
        clear_view_resize(cam);
        cam.resize_mine = false;
        publish_setup(s, node);
    }
}

int queue_buffer(State &s, int node, v4l2_buffer *buf, LogNote *note)
{
    Node &n = s.nodes[node];
    note->format = "index=%u";
    note->values[0] = buf->index;
    if (buf->type != V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE || buf->memory != V4L2_MEMORY_MMAP ||
        buf->index >= n.buffers.size())
        return EINVAL;
    Buffer &buffer = n.buffers[buf->index];
    if (buffer.state != BufferState::User || !valid_planes(buffer, buf))
        return EINVAL;
    buffer.state = BufferState::Queued;
    n.queued.push_back(int(buf->index));
    buf->flags = V4L2_BUF_FLAG_QUEUED | V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC | V4L2_BUF_FLAG_TSTAMP_SRC_EOF |
                 mapped_flag(buffer);
    deliver_scripted(n);
    return 0;
}

int dequeue_buffer(CoreLock &held, int node, const OpenFile &file, v4l2_buffer *buf, LogNote *note)
{
    State &s = state();
    Node &n = s.nodes[node];
    if (buf->type != V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE || buf->memory != V4L2_MEMORY_MMAP)
        return EINVAL;
    while (n.filled.empty()) {
        if (node_disconnected(node))
            return ENODEV;
        if (!n.streaming)
            return EINVAL;
        // The descriptor's mode is read at every dequeue: a client may
        // switch it between requests.
        if (file.flags & O_NONBLOCK)
            return EAGAIN;
        pollfd wait{n.event_fd, POLLIN, 0};
        held.unlock();
        int ready = poll(&wait, 1, kDequeueRecheckMs);
        int err = errno;
        held.lock();
        if (ready < 0 && err == EINTR)
            return EINTR;
    }
    int index = n.filled.front();
    Buffer &buffer = n.buffers[size_t(index)];
    if (!valid_planes(buffer, buf))
        return EINVAL;
    n.filled.pop_front();
    uint64_t one;
    if (read(n.event_fd, &one, sizeof one) != sizeof one)
        std::perror("zelisp-sim: frame signal");
    buffer.state = BufferState::User;
    ++n.counters.delivered;
    report_dequeued(n, index, buf);
    note->format = "index=%u sequence=%u";
    note->values[0] = buf->index;
    note->values[1] = buf->sequence;
    return 0;
}

int stream_on(State &s, int node, const int *type, LogNote *note)
{
    note->detail = "type=" + std::to_string(*type);
    Node &n = s.nodes[node];
    if (!capture_type(type) || n.buffers.empty())
        return EINVAL;
    if (int err = n.streaming ? 0 : ensure_hardware_thread(s))
        return err;
    if (!n.streaming)
        start_stream(s, node);
    return 0;
}

int stream_off(State &s, int node, const int *type, LogNote *note)
{
    note->detail = "type=" + std::to_string(*type);
    if (!capture_type(type))
        return EINVAL;
    stop_stream(s.nodes[node]);
    return 0;
}

} // namespace zsim::detail

namespace zsim {

using namespace detail;

void push_frame(int node, const ScriptedFrame &frame)
{
    if (node < 0 || node >= kVideoNodes)
        return;
    CoreLock held;
    Node &n = state().nodes[node];
    n.script.push_back(frame);
    ++n.counters.produced;
    deliver_scripted(n);
    run_paint_jobs(held);
}

size_t pending_frames(int node)
{
    if (node < 0 || node >= kVideoNodes)
        return 0;
    CoreLock held;
    return state().nodes[node].script.size();
}

Counters counters(int node)
{
    if (node < 0 || node >= kVideoNodes)
        return Counters{0, 0, 0};
    CoreLock held;
    return state().nodes[node].counters;
}

} // namespace zsim
