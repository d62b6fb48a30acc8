/*
 * buffers.cpp - the capture buffers of a video node: allocation, the plane
 * description QUERYBUF gives, mapping a plane through the node at its
 * offset, and exporting a plane as a descriptor of its own.
 *
 * Each plane is a memfd of the plane's page-aligned length. A mapping of the
 * node maps that memfd, an export is a duplicate of it, so the driver's own
 * view, every mapping and every export see the same bytes, and a mapping
 * outlives the buffers being freed, as DMA memory does.
 */
#include <algorithm>
#include <iterator>
#include <utility>
#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "core.h"
#include "real_libc.h"
#include "video_requests.h"

namespace zsim::detail {
namespace {

constexpr size_t kPage = 4096;
constexpr unsigned kPlaneSlots = 4; // offset = (buffer * 4 + plane) pages

size_t page_align(size_t bytes) { return std::max(kPage, (bytes + kPage - 1) / kPage * kPage); }

uint64_t g_next_plane_id = 1; // under the core's lock

// The memory goes when its last holder lets go: the plane, or a frame
// being painted into it.
void release_plane(Plane &plane)
{
    if (plane.memory)
        plane.memory.reset();
    else if (plane.memfd >= 0)
        real::close(plane.memfd);
    plane = Plane();
}

int allocate_plane(Plane &plane, const ViewFormat &format)
{
    plane.format = format;
    plane.length = page_align(image_size(format));
    plane.id = g_next_plane_id++;
    plane.memfd = memfd_create("zelisp-sim-plane", MFD_CLOEXEC);
    if (plane.memfd < 0)
        return errno;
    if (ftruncate(plane.memfd, off_t(plane.length)) < 0)
        return errno;
    void *data = real::mmap(nullptr, plane.length, PROT_READ | PROT_WRITE, MAP_SHARED, plane.memfd, 0);
    if (data == MAP_FAILED)
        return errno;
    plane.data = static_cast<uint8_t *>(data);
    const size_t length = plane.length;
    const int memfd = plane.memfd;
    plane.memory = std::shared_ptr<uint8_t>(plane.data, [length, memfd](uint8_t *view) {
        real::munmap(view, length);
        real::close(memfd);
    });
    return 0;
}

uint32_t granted_count(const State &s, int node, uint32_t asked)
{
    const Node &n = s.nodes[node];
    if (asked == 0)
        return 0;
    if (n.quirks.grant_buffers >= 0)
        return uint32_t(n.quirks.grant_buffers);
    return std::min(asked, s.cameras[camera_of_node(node)].config.max_buffers);
}

int allocate_buffers(State &s, int node, uint32_t count)
{
    Node &n = s.nodes[node];
    const Camera &cam = s.cameras[camera_of_node(node)];
    std::vector<int> views = views_of_node(s, node);
    n.buffers.resize(count);
    for (Buffer &buffer : n.buffers) {
        buffer.planes.resize(views.size());
        for (size_t j = 0; j < views.size(); ++j)
            if (int err = allocate_plane(buffer.planes[j], delivered_view(cam, views[j])))
                return err;
    }
    return 0;
}

uint32_t buffer_flags(const Buffer &buffer)
{
    uint32_t flags = V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC | V4L2_BUF_FLAG_TSTAMP_SRC_EOF | mapped_flag(buffer);
    if (buffer.state == BufferState::Queued || buffer.state == BufferState::Painting)
        flags |= V4L2_BUF_FLAG_QUEUED;
    if (buffer.state == BufferState::Filled)
        flags |= V4L2_BUF_FLAG_DONE;
    return flags;
}

bool plane_at_offset(const Node &n, uint64_t offset, int *buffer, int *plane)
{
    if (offset % kPage)
        return false;
    uint64_t slot = offset / kPage;
    uint64_t b = slot / kPlaneSlots, p = slot % kPlaneSlots;
    if (b >= n.buffers.size() || p >= n.buffers[b].planes.size())
        return false;
    *buffer = int(b);
    *plane = int(p);
    return true;
}

} // namespace

uint32_t mapped_flag(const Buffer &buffer)
{
    for (const Plane &plane : buffer.planes)
        if (plane.users > 0)
            return V4L2_BUF_FLAG_MAPPED;
    return 0;
}

// The plane is found among the buffers that exist: one freed since has no
// count to keep.
void count_plane_user(State &s, uint64_t id, int change)
{
    if (id == 0)
        return;
    for (Node &n : s.nodes)
        for (Buffer &buffer : n.buffers)
            for (Plane &plane : buffer.planes)
                if (plane.id == id) {
                    plane.users += change;
                    return;
                }
}

uint32_t plane_offset(int buffer, int plane) { return uint32_t((unsigned(buffer) * kPlaneSlots + unsigned(plane)) * kPage); }

void free_buffers(State &s, int node)
{
    Node &n = s.nodes[node];
    for (Buffer &buffer : n.buffers)
        for (Plane &plane : buffer.planes)
            release_plane(plane);
    n.buffers.clear();
    n.filled.clear();
    n.queued.clear();
    ++n.queue_generation;
    drain_filled(n);
}

int request_buffers(State &s, int node, v4l2_requestbuffers *req, LogNote *note)
{
    note->detail = "count=" + std::to_string(req->count);
    if (req->type != V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE || req->memory != V4L2_MEMORY_MMAP)
        return EINVAL;
    if (s.nodes[node].streaming)
        return EBUSY;
    free_buffers(s, node);
    uint32_t granted = granted_count(s, node, req->count);
    if (int err = allocate_buffers(s, node, granted)) {
        free_buffers(s, node);
        return err;
    }
    req->count = granted;
    req->capabilities = V4L2_BUF_CAP_SUPPORTS_MMAP;
    req->flags = 0; // no cache hints: every buffer is coherent
    note->detail += " granted=" + std::to_string(granted);
    return 0;
}

int query_buffer(State &s, int node, v4l2_buffer *buf, LogNote *note)
{
    Node &n = s.nodes[node];
    note->detail = "index=" + std::to_string(buf->index);
    if (buf->type != V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE || buf->index >= n.buffers.size())
        return EINVAL;
    const Buffer &buffer = n.buffers[buf->index];
    size_t planes = buffer.planes.size();
    if (!buf->m.planes || buf->length < planes)
        return EINVAL;
    // A driver reporting extra planes writes them too, within the three
    // plane records every ISP client provides.
    size_t reported = planes + size_t(std::max(0, n.quirks.extra_planes));
    size_t written = std::max(planes, std::min<size_t>(reported, kMaxPlanes));
    for (size_t j = 0; j < written; ++j) {
        v4l2_plane &plane = buf->m.planes[j];
        plane = v4l2_plane();
        plane.length = uint32_t(j < planes ? buffer.planes[j].length : kPage);
        plane.m.mem_offset = plane_offset(int(buf->index), int(j));
    }
    buf->length = uint32_t(reported);
    buf->memory = V4L2_MEMORY_MMAP;
    buf->flags = buffer_flags(buffer);
    buf->field = V4L2_FIELD_NONE;
    buf->bytesused = 0;
    note->detail += " planes=" + std::to_string(reported);
    return 0;
}

int export_buffer(State &s, int node, v4l2_exportbuffer *exp, LogNote *note)
{
    Node &n = s.nodes[node];
    note->detail = "index=" + std::to_string(exp->index) + " plane=" + std::to_string(exp->plane);
    if (exp->type != V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE || exp->index >= n.buffers.size() ||
        exp->plane >= n.buffers[exp->index].planes.size())
        return EINVAL;
    const Plane &plane = n.buffers[exp->index].planes[exp->plane];
    int cmd = (exp->flags & O_CLOEXEC) ? F_DUPFD_CLOEXEC : F_DUPFD;
    int fd = real::fcntl(plane.memfd, cmd, unsigned(n.quirks.descriptor_floor));
    if (fd < 0)
        return errno;
    auto file = std::make_shared<OpenFile>();
    file->flags = exp->flags & O_ACCMODE;
    file->plane = plane.id;
    file->path = node_path(node) + "/buffer" + std::to_string(exp->index) + "/plane" + std::to_string(exp->plane);
    track_descriptor(s, fd, std::move(file));
    exp->fd = fd;
    note->detail += " fd=" + std::to_string(fd);
    return 0;
}

void *sim_mmap(void *addr, size_t length, int prot, int flags, int fd, off_t offset, bool *handled)
{
    State &s = state();
    CoreLock held;
    std::shared_ptr<OpenFile> file = find_descriptor(s, fd);
    if (!file)
        return nullptr;
    *handled = true;
    char detail[80];
    std::snprintf(detail, sizeof detail, "offset=0x%llx length=%zu", static_cast<unsigned long long>(offset), length);
    LogEntry entry{file->path, kMmap, "mmap", detail, {}, 0};
    int err = take_fault(s, kMmap, file->path);
    void *result = MAP_FAILED;
    uint64_t plane_id = file->plane;
    if (!err && file->node < 0) {
        result = real::mmap(addr, length, prot, flags, fd, offset); // an export maps its memfd directly
        if (result == MAP_FAILED)
            err = errno;
    } else if (!err) {
        const Node &n = s.nodes[file->node];
        int buffer = 0, plane = 0;
        if (file->plain || file->node == kMiscNode || node_disconnected(file->node))
            err = ENODEV;
        else if (!plane_at_offset(n, uint64_t(offset), &buffer, &plane) ||
                 length > n.buffers[size_t(buffer)].planes[size_t(plane)].length || !(flags & MAP_SHARED))
            err = EINVAL;
        else {
            const Plane &mapped = n.buffers[size_t(buffer)].planes[size_t(plane)];
            result = real::mmap(addr, length, prot, flags, mapped.memfd, 0);
            if (result == MAP_FAILED)
                err = errno;
            plane_id = mapped.id;
            entry.detail += " buffer=" + std::to_string(buffer) + " plane=" + std::to_string(plane);
        }
    }
    if (!err) {
        s.mappings[reinterpret_cast<uintptr_t>(result)] = Mapping{length, file->path, plane_id};
        count_plane_user(s, plane_id, +1);
    }
    return finish_request(s, std::move(entry), err, 0) < 0 ? MAP_FAILED : result;
}

int sim_munmap(void *addr, size_t length, bool *handled)
{
    State &s = state();
    CoreLock held;
    uintptr_t begin = reinterpret_cast<uintptr_t>(addr);
    uintptr_t end = begin + page_align(length);
    // The mappings the range touches; the kernel unmaps exactly the range,
    // so a shorter length leaves the rest of a mapping in place (and held).
    auto first = s.mappings.lower_bound(begin);
    if (first != s.mappings.begin()) {
        auto before = std::prev(first);
        if (before->first + page_align(before->second.length) > begin)
            first = before;
    }
    if (first == s.mappings.end() || first->first >= end)
        return 0;
    *handled = true;
    std::string path = first->second.path;
    int err = take_fault(s, kMunmap, path);
    if (!err && real::munmap(addr, length) < 0)
        err = errno;
    if (!err) {
        std::vector<std::pair<uintptr_t, Mapping>> remains;
        auto it = first;
        for (; it != s.mappings.end() && it->first < end; ++it) {
            const Mapping &mapping = it->second;
            uintptr_t map_end = it->first + page_align(mapping.length);
            if (it->first < begin)
                remains.push_back({it->first, Mapping{begin - it->first, mapping.path, mapping.plane}});
            if (map_end > end)
                remains.push_back({end, Mapping{map_end - end, mapping.path, mapping.plane}});
            count_plane_user(s, mapping.plane, -1);
        }
        s.mappings.erase(first, it);
        for (const auto &remain : remains)
            count_plane_user(s, remain.second.plane, +1);
        s.mappings.insert(remains.begin(), remains.end());
    }
    return finish_request(s, LogEntry{path, kMunmap, "munmap", "length=" + std::to_string(length), {}, 0}, err, 0);
}

} // namespace zsim::detail
