/*
 * frame_memory.h - the lifetime of the camera buffers the elements hand to
 * GStreamer.
 *
 * A frame's views are wrapped, not copied: each GstMemory points at the
 * plane the library mapped (system memory) or carries the plane's exported
 * DMA-buf descriptor, which stays the camera's (GStreamer never closes it).
 * The library buffer goes back to the driver when the last memory of the
 * frame is freed, never earlier. Memories are freed on whatever thread
 * downstream drops them, while the library wants one thread per camera, so a
 * freed frame is only listed here and the element's streaming thread gives
 * it back (isp_put_frame_buf) before it takes the next one.
 *
 * The stream (camera or group) is shared by the element and by every frame
 * still out: it is closed when the element has stopped and the last frame
 * has come back, so a buffer held past the pipeline's stop still points at
 * mapped memory.
 */
#ifndef GST_ZELISP_FRAME_MEMORY_H
#define GST_ZELISP_FRAME_MEMORY_H

#include <gst/gst.h>

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <vector>

#include "zelisp.h"

namespace gstzelisp {

class Stream {
public:
    // close: closes the camera or group; runs once, on the thread that drops
    // the last reference.
    static Stream *create(std::function<void()> close);
    void ref() { refs_.fetch_add(1); }
    void unref();

    // Serialises every library call on the stream's cameras: the streaming
    // thread takes frames while the application changes a control.
    std::mutex &library_lock() { return library_; }

    // The element gives the stream up: frames still out are not given back
    // any more (the close unmaps them all at once).
    void stop();
    // Gives back the frames downstream has released since the last call.
    // Streaming thread only, with library_lock() held.
    void put_back_released();
    // Frames of this camera handle still held downstream.
    int held(unsigned long handle);

    // Wraps view `view` of `frame` (taken from `handle`) as memory. Every
    // memory made for one frame keeps it out; call release_unwrapped() when
    // the frame ends up with no memory at all.
    struct Frame;
    Frame *hold(unsigned long handle, const zelvideo::_isp_buf_t &frame);
    GstMemory *wrap(Frame *frame, int view, gsize size, bool dmabuf);
    // Drops the streaming thread's own reference on the frame; the frame goes
    // back once the memories made from it are freed as well.
    void done(Frame *frame);

private:
    explicit Stream(std::function<void()> close) : close_(std::move(close)) {}
    void frame_released(Frame *frame);
    static void memory_freed(gpointer data, GstMiniObject *memory);
    static void system_memory_freed(gpointer data);

    std::atomic<int> refs_{1};
    std::function<void()> close_;
    std::mutex library_;
    std::mutex returned_lock_;
    bool running_ = true;
    std::vector<std::pair<unsigned long, zelvideo::_isp_buf_t>> returned_;
    std::map<unsigned long, int> held_;
    GstAllocator *dmabuf_allocator_ = nullptr;
};

struct Stream::Frame {
    Stream *stream;
    unsigned long handle;
    zelvideo::_isp_buf_t buf;
    std::atomic<int> refs;
};

// Copies used when downstream holds so many frames that the camera would
// starve: one pool per view, of the view's image size, holding at most
// `most` copies. Memory stays flat however long downstream holds them.
class CopyPool {
public:
    CopyPool() = default;
    CopyPool(const CopyPool &) = delete;
    CopyPool &operator=(const CopyPool &) = delete;
    ~CopyPool() { reset(); }
    // Frees the pool (the stream stopped); copies still held downstream
    // free themselves.
    void reset();
    enum class Result { Copied, Full, Failed };
    // A copy of `size` bytes from `data` in *buffer; DMA-buf memory (a
    // memfd) when the negotiated caps asked for it. Full when `most` copies
    // are held downstream already.
    Result copy(const void *data, gsize size, bool dmabuf, int most, GstBuffer **buffer);

private:
    bool make_pool(gsize size, bool dmabuf, int most);

    GstBufferPool *pool_ = nullptr;
    gsize pool_size_ = 0;
    bool pool_dmabuf_ = false;
    int pool_most_ = 0;
};

} // namespace gstzelisp

#endif
