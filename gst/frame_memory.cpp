// frame_memory.cpp - camera buffers wrapped as GstMemory, given back to the
// driver when GStreamer frees the last of them.
#include "frame_memory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>

#include <gst/allocators/allocators.h>

namespace gstzelisp {

// ---- Plane mappings ----

std::shared_ptr<PlaneMaps> PlaneMaps::map(unsigned long handle, const std::vector<int> &views)
{
    auto maps = std::make_shared<PlaneMaps>();
    // An index past the camera's last buffer is refused.
    for (uint32_t index = 0; index < kMostBuffers; ++index) {
        for (int view : views) {
            int export_fd = isp_get_view_buf_fd(handle, index, uint32_t(view));
            if (export_fd == ISP_ERR_INVALID)
                return index == 0 ? nullptr : maps;
            if (export_fd < 0)
                return nullptr;
            off_t length = lseek(export_fd, 0, SEEK_END);
            if (length <= 0)
                return nullptr;
            // Filled in place: whatever is open or mapped goes with `maps`.
            Plane &plane = maps->buffers_[index][size_t(view)];
            plane.fd = fcntl(export_fd, F_DUPFD_CLOEXEC, 0);
            if (plane.fd < 0)
                return nullptr;
            plane.address = mmap(nullptr, size_t(length), PROT_READ | PROT_WRITE, MAP_SHARED, plane.fd, 0);
            if (plane.address == MAP_FAILED) {
                plane.address = nullptr;
                return nullptr;
            }
            plane.length = size_t(length);
        }
    }
    return maps;
}

PlaneMaps::~PlaneMaps()
{
    for (auto &planes : buffers_)
        for (Plane &plane : planes) {
            if (plane.address)
                munmap(plane.address, plane.length);
            if (plane.fd >= 0)
                close(plane.fd);
        }
}

const PlaneMaps::Plane *PlaneMaps::plane(uint32_t index, int view) const
{
    if (index >= kMostBuffers || !buffers_[index][size_t(view)].address)
        return nullptr;
    return &buffers_[index][size_t(view)];
}

// ---- The stream and its frames ----

Stream *Stream::create(std::function<void()> close) { return new Stream(std::move(close)); }

void Stream::unref()
{
    if (refs_.fetch_sub(1) != 1)
        return;
    close_();
    if (dmabuf_allocator_)
        gst_object_unref(dmabuf_allocator_);
    delete this;
}

Stream::~Stream()
{
    stop();
    while (Frame *frame = spare_) {
        spare_ = frame->next;
        delete frame;
    }
}

void Stream::use_planes(unsigned long handle, std::shared_ptr<PlaneMaps> planes)
{
    planes_.emplace_back(handle, std::move(planes));
    returns_->held.at(returns_->cameras++).handle = handle;
}

// Never a frame's address: marks the released list of a stream given up.
Stream::Frame *const Stream::kStopped = reinterpret_cast<Stream::Frame *>(alignof(Stream::Frame));

// Frames released from now on are freed, not listed; the listed ones are
// not given back (the camera is closing).
void Stream::stop()
{
    Frame *dropped = returns_->released.exchange(kStopped, std::memory_order_acquire);
    while (dropped && dropped != kStopped) {
        Frame *next = dropped->next;
        delete dropped;
        dropped = next;
    }
}

void Stream::put_back_released()
{
    Frame *released = returns_->released.exchange(nullptr, std::memory_order_acquire);
    // Most recent first: given back in the order downstream let them go.
    Frame *in_order = nullptr;
    while (released) {
        Frame *next = released->next;
        released->next = in_order;
        in_order = released;
        released = next;
    }
    while (Frame *frame = in_order) {
        in_order = frame->next;
        isp_put_frame_buf_by_index(frame->handle, int32_t(frame->index));
        frame->next = spare_;
        spare_ = frame;
    }
}

// The spare frame on top serves when it last held a frame of the same
// camera, as it always does with one camera.
Stream::Frame *Stream::spare_frame(unsigned long handle)
{
    Frame *frame = spare_;
    if (!frame || frame->handle != handle)
        return frame_for(handle);
    spare_ = frame->next;
    return frame;
}

// A spare frame (or a new one) made over for another camera. Out of line:
// the common case above needs none of its work.
G_NO_INLINE Stream::Frame *Stream::frame_for(unsigned long handle)
{
    Frame *frame = spare_;
    if (frame)
        spare_ = frame->next;
    else
        frame = new Frame{returns_, nullptr, nullptr, nullptr, nullptr, ~0UL, 0, {0}};
    frame->handle = handle;
    frame->planes = nullptr;
    for (const auto &[camera, maps] : planes_)
        if (camera == handle)
            frame->planes = maps;
    for (size_t i = 0; i < returns_->cameras; ++i)
        if (returns_->held[i].handle == handle)
            frame->held = &returns_->held[i].count;
    return frame;
}

Stream::Frame *Stream::hold(unsigned long handle, const zelvideo::_isp_buf_t &buf, int *held_before)
{
    Frame *frame = spare_frame(handle);
    int held = frame->held->fetch_add(1, std::memory_order_relaxed);
    if (held_before)
        *held_before = held;
    frame->index = buf.index;
    frame->refs.store(1, std::memory_order_relaxed);
    frame->stream = frame->planes ? nullptr : this;
    if (!frame->planes)
        ref();
    return frame;
}

void Stream::done(Frame *frame) { frame_released(frame); }

// Once listed the frame is the streaming thread's again (or stop()'s, which
// frees it): neither it nor the returns are touched here after that.
void Stream::frame_released(Frame *frame)
{
    if (frame->refs.fetch_sub(1) != 1)
        return;
    Stream *kept_open = frame->stream;
    frame->held->fetch_sub(1, std::memory_order_relaxed);
    std::atomic<Frame *> &released = frame->returns->released;
    Frame *top = released.load(std::memory_order_relaxed);
    do {
        if (top == kStopped) {
            delete frame;
            break;
        }
        frame->next = top;
    } while (!released.compare_exchange_weak(top, frame, std::memory_order_release, std::memory_order_relaxed));
    if (kept_open)
        kept_open->unref();
}

void Stream::memory_freed(gpointer data, GstMiniObject *) { frame_released(static_cast<Frame *>(data)); }

void Stream::system_memory_freed(gpointer data) { memory_freed(data, nullptr); }

GstBuffer *Stream::wrap(Frame *frame, const zelvideo::_isp_buf_t &buf, int view, gsize size, bool dmabuf)
{
    const zelvideo::_isp_view_buf_t &plane = buf.views[view];
    const PlaneMaps::Plane *own = frame->planes ? frame->planes->plane(buf.index, view) : nullptr;
    void *address = own ? own->address : plane.addr;
    int fd = own ? own->fd : plane.fd;
    gsize length = own ? own->length : plane.length;
    if (length < size)
        return nullptr;
    if (dmabuf) {
        if (fd < 0)
            return nullptr;
        if (!dmabuf_allocator_)
            dmabuf_allocator_ = gst_dmabuf_allocator_new();
        // The descriptor stays ours (or the camera's): closed with the
        // mappings, never by GStreamer.
        GstMemory *memory =
            gst_dmabuf_allocator_alloc_with_flags(dmabuf_allocator_, fd, length, GST_FD_MEMORY_FLAG_DONT_CLOSE);
        if (!memory)
            return nullptr;
        gst_memory_resize(memory, 0, size);
        frame->refs.fetch_add(1);
        gst_mini_object_weak_ref(GST_MINI_OBJECT_CAST(memory), memory_freed, frame);
        GstBuffer *buffer = gst_buffer_new();
        gst_buffer_append_memory(buffer, memory);
        return buffer;
    }
    if (!address || address == MAP_FAILED)
        return nullptr;
    frame->refs.fetch_add(1);
    // The buffer and its memory made together: GStreamer then skips the
    // checks of adding a memory to a buffer that may be shared.
    return gst_buffer_new_wrapped_full(GstMemoryFlags(0), address, length, 0, size, frame, system_memory_freed);
}

// ---- Copies ----

namespace {

// A buffer pool whose buffers hold one memfd each, handed on as DMA-buf
// memory: what DMA-buf caps promise, for the copies as for the camera's own
// planes. In system memory the stock pool serves.
struct MemfdPool {
    GstBufferPool parent;
    gsize size;
    GstAllocator *allocator;
};
struct MemfdPoolClass {
    GstBufferPoolClass parent_class;
};

GType memfd_pool_get_type();
G_DEFINE_TYPE(MemfdPool, memfd_pool, GST_TYPE_BUFFER_POOL)

GstFlowReturn memfd_pool_alloc_buffer(GstBufferPool *pool, GstBuffer **buffer, GstBufferPoolAcquireParams *)
{
    auto *self = reinterpret_cast<MemfdPool *>(pool);
    int fd = memfd_create("zelisp-copy", MFD_CLOEXEC);
    if (fd < 0)
        return GST_FLOW_ERROR;
    if (ftruncate(fd, off_t(self->size)) != 0) {
        close(fd);
        return GST_FLOW_ERROR;
    }
    GstMemory *memory = gst_dmabuf_allocator_alloc(self->allocator, fd, self->size);
    if (!memory) {
        close(fd);
        return GST_FLOW_ERROR;
    }
    *buffer = gst_buffer_new();
    gst_buffer_append_memory(*buffer, memory);
    return GST_FLOW_OK;
}

void memfd_pool_finalize(GObject *object)
{
    gst_object_unref(reinterpret_cast<MemfdPool *>(object)->allocator);
    G_OBJECT_CLASS(memfd_pool_parent_class)->finalize(object);
}

void memfd_pool_class_init(MemfdPoolClass *klass)
{
    G_OBJECT_CLASS(klass)->finalize = memfd_pool_finalize;
    GST_BUFFER_POOL_CLASS(klass)->alloc_buffer = memfd_pool_alloc_buffer;
}

void memfd_pool_init(MemfdPool *self) { self->allocator = gst_dmabuf_allocator_new(); }

} // namespace

void CopyPool::reset()
{
    if (!pool_)
        return;
    gst_buffer_pool_set_active(pool_, FALSE);
    gst_object_unref(pool_);
    pool_ = nullptr;
}

bool CopyPool::make_pool(gsize size, bool dmabuf, int most)
{
    reset();
    if (dmabuf) {
        auto *memfd_pool = static_cast<MemfdPool *>(g_object_new(memfd_pool_get_type(), nullptr));
        memfd_pool->size = size;
        pool_ = GST_BUFFER_POOL(gst_object_ref_sink(memfd_pool));
    } else {
        pool_ = gst_buffer_pool_new();
    }
    GstStructure *config = gst_buffer_pool_get_config(pool_);
    gst_buffer_pool_config_set_params(config, nullptr, guint(size), 0, guint(most));
    if (!gst_buffer_pool_set_config(pool_, config) || !gst_buffer_pool_set_active(pool_, TRUE)) {
        gst_object_unref(pool_);
        pool_ = nullptr;
        return false;
    }
    pool_size_ = size;
    pool_dmabuf_ = dmabuf;
    pool_most_ = most;
    return true;
}

CopyPool::Result CopyPool::copy(const void *data, gsize size, bool dmabuf, int most, GstBuffer **buffer)
{
    if (most <= 0)
        return Result::Full;
    if ((!pool_ || pool_size_ != size || pool_dmabuf_ != dmabuf || pool_most_ != most) &&
        !make_pool(size, dmabuf, most))
        return Result::Failed;
    // Never wait for downstream to give a copy back: the camera would wait.
    GstBufferPoolAcquireParams params{};
    params.flags = GST_BUFFER_POOL_ACQUIRE_FLAG_DONTWAIT;
    GstFlowReturn flow = gst_buffer_pool_acquire_buffer(pool_, buffer, &params);
    if (flow == GST_FLOW_EOS)
        return Result::Full;
    if (flow != GST_FLOW_OK)
        return Result::Failed;
    GstMapInfo map;
    if (!gst_buffer_map(*buffer, &map, GST_MAP_WRITE)) {
        gst_buffer_unref(*buffer);
        return Result::Failed;
    }
    std::memcpy(map.data, data, size);
    gst_buffer_unmap(*buffer, &map);
    return Result::Copied;
}

} // namespace gstzelisp
