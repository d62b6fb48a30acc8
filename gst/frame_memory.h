/*
 * frame_memory.h - the lifetime of the camera buffers the elements hand to
 * GStreamer.
 *
 * A frame's views are wrapped, not copied. Each plane's exported DMA-buf is
 * mapped (and its descriptor duplicated) once when the stream is set up,
 * and a GstMemory points at that mapping (system memory) or carries that
 * descriptor (DMA-buf memory). The library buffer goes back to the driver
 * when the last memory of the frame is freed, never earlier. Memories are
 * freed on whatever thread downstream drops them, while the library wants
 * one thread per camera, so a freed frame is only listed here and the
 * element's streaming thread gives it back (isp_put_frame_buf_by_index)
 * before it takes the next one.
 *
 * The mappings belong to the frames still out, not to the camera: the
 * camera closes as soon as the element stops, and a buffer held past the
 * stop (an appsink keeps the last sample it handed out) still reads the
 * frame it was given, as a V4L2 driver lets orphaned buffers live. The
 * camera can be set up again at once. Where a plane has no usable export,
 * the frame wraps the library's own mapping and keeps the camera open
 * until it comes back.
 */
#ifndef GST_ZELISP_FRAME_MEMORY_H
#define GST_ZELISP_FRAME_MEMORY_H

#include <gst/gst.h>

#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "zelisp.h"

namespace gstzelisp {

// The planes of one camera's buffers, mapped through their exported
// DMA-bufs; unmapped (and the duplicated descriptors closed) with the last
// frame that uses them.
class PlaneMaps {
public:
    struct Plane {
        void *address = nullptr;
        size_t length = 0;
        int fd = -1; // our duplicate of the export
    };
    // Maps views `views` of every buffer of a set-up camera; nullptr when a
    // plane has no export or it cannot be mapped.
    static std::shared_ptr<PlaneMaps> map(unsigned long handle, const std::vector<int> &views);
    PlaneMaps() = default;
    PlaneMaps(const PlaneMaps &) = delete;
    PlaneMaps &operator=(const PlaneMaps &) = delete;
    ~PlaneMaps();
    const Plane *plane(uint32_t index, int view) const;

private:
    // A camera has at most 8 buffers: a fixed table makes a frame's lookup
    // one comparison.
    static constexpr uint32_t kMostBuffers = 8;
    std::array<std::array<Plane, 3>, kMostBuffers> buffers_{}; // by V4L2 buffer index, then view
};

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

    // Frames of camera `handle` are wrapped from these mappings (set before
    // streaming starts, for every camera of the stream, at most 8).
    void use_planes(unsigned long handle, std::shared_ptr<PlaneMaps> planes);
    // The element gives the stream up: frames still out are not given back
    // any more.
    void stop();
    // Gives back the frames downstream has released since the last call.
    // Streaming thread only, with library_lock() held.
    void put_back_released();

    // Holds `frame` (taken from `handle`) out until every memory made from
    // it is freed; wrap() makes a buffer of one such memory from view
    // `view` of the same descriptor. Only the buffer's index is kept: that
    // is what the driver is given back. *held_before: the frames of this
    // camera handle held downstream until then.
    struct Frame;
    Frame *hold(unsigned long handle, const zelvideo::_isp_buf_t &frame, int *held_before = nullptr);
    GstBuffer *wrap(Frame *frame, const zelvideo::_isp_buf_t &buf, int view, gsize size, bool dmabuf);
    // Drops the streaming thread's own reference on the frame; the frame goes
    // back once the memories made from it are freed as well.
    void done(Frame *frame);

private:
    // What frames report back to, shared with them: it outlives the stream.
    struct Returns {
        // The frames released since the streaming thread last looked, most
        // recent first, linked through Frame::next; kStopped once the
        // element gave the stream up. Released frames are only ever pushed
        // on and the list is only ever taken whole, so no lock is needed.
        std::atomic<Frame *> released{nullptr};
        // Frames out, by camera: a frame taken and a frame freed each move
        // their camera's count.
        struct Held {
            unsigned long handle = 0;
            std::atomic<int> count{0};
        };
        std::array<Held, 8> held;
        size_t cameras = 0; // set up before streaming
    };

    explicit Stream(std::function<void()> close) : close_(std::move(close)) {}
    ~Stream();
    Frame *spare_frame(unsigned long handle);
    Frame *frame_for(unsigned long handle);
    static void frame_released(Frame *frame);
    static Frame *const kStopped;
    static void memory_freed(gpointer data, GstMiniObject *memory);
    static void system_memory_freed(gpointer data);

    std::atomic<int> refs_{1};
    std::function<void()> close_;
    std::mutex library_;
    std::shared_ptr<Returns> returns_ = std::make_shared<Returns>();
    // Frames given back, made again for the next frames taken (linked
    // through Frame::next): a frame costs no allocation once the stream
    // runs (streaming thread).
    Frame *spare_ = nullptr;
    std::vector<std::pair<unsigned long, std::shared_ptr<PlaneMaps>>> planes_;
    GstAllocator *dmabuf_allocator_ = nullptr;
};

// Kept with its references to the returns and plane mappings when it is
// made again for another frame.
struct Stream::Frame {
    std::shared_ptr<Returns> returns;
    std::shared_ptr<PlaneMaps> planes; // null: the frame keeps `stream` open
    std::atomic<int> *held;            // its camera's count of frames out
    Stream *stream;                    // a reference, when planes is null
    Frame *next;                       // in the released or spare list
    unsigned long handle;
    uint32_t index;                    // the V4L2 buffer it holds
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
