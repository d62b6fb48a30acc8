/*
 * isp_video.h - the camera object: one ISP camera on one V4L2 multi-planar
 * capture node, with its buffer table, frame history and stored settings.
 *
 * The object is a plain record (no base class, nothing virtual); its handle
 * is its address. It owns the node descriptor, the plane mappings and the
 * exported DMA-buf descriptors, and only Close releases them: destroying the
 * object releases nothing by itself.
 */
#ifndef ZELISP_CAMERA_ISP_VIDEO_H
#define ZELISP_CAMERA_ISP_VIDEO_H

#include <linux/videodev2.h>

#include <cstdint>

#include "driver/driver_request.h"
#include "zelisp.h"

namespace zelisp {

constexpr int kMaxCameras = 12;      // camera numbers 0..11
constexpr int kModeTwoNodeOffset = 12; // mode 2 opens /dev/video<camera + 12>
constexpr int kMaxViews = 3;
constexpr int kMaxBuffers = 8;
constexpr int kMinBuffers = 3;
constexpr int kPathSize = 32;

enum VideoState : uint32_t {
    VIDEO_CLOSED = 0,
    VIDEO_OPENED = 1,
    VIDEO_INITED = 2,
    VIDEO_CAPTURING = 4,
};

enum DecimationMode : uint32_t {
    DECIMATION_OFF = 0,
    DECIMATION_KEEP_ONE = 1,
    DECIMATION_DROP_ONE = 2,
};

// Bit for a state in the accepted mask of StateAllows.
constexpr uint32_t StateBit(uint32_t state) { return 1u << state; }

// The state rule of cameras and groups alike: true when `state` is one of
// the accepted ones; otherwise prints "<operation>: bad state <n>". A state
// number past the mask's 32 bits (a corrupted object) is never accepted.
// dev_path names the camera the refusal is about, null for a group.
bool StateAllows(const char *operation, uint32_t state, uint32_t accepted_mask, const char *dev_path);

struct IspVideo {
    char dev_path[kPathSize] = {};
    uint32_t mode = 0;
    int32_t fd = -1;
    int32_t buffer_count = 0;
    int32_t plane_count = 0;
    zelvideo::_isp_buf_t buffers[kMaxBuffers] = {};
    zelvideo::_view_format_t view_formats[kMaxViews] = {};
    uint64_t last_timestamp_us = 0;
    uint32_t last_sequence = 0;
    uint32_t view_mask = 0;
    uint32_t state = VIDEO_CLOSED;
    zelvideo::_resize_param_t resize_param = {};
    uint32_t decimation_mode = DECIMATION_OFF;
    uint32_t keep_interval = 0;
    uint32_t drop_interval = 0;
    // Length each plane was mapped with, by buffer and view. The table's
    // `length` follows what the driver reports at every dequeue, and a
    // driver that reports another size must not make Close unmap more (or
    // less) than was mapped.
    uint32_t mapped_length[kMaxBuffers][kMaxViews] = {};
    // Descriptor each plane was exported as, -1 for none. The table's `fd`
    // cannot tell: 0 is both "not set" and a valid descriptor (a daemon
    // with standard input closed is handed 0 by the first export).
    // The planes of every VIDIOC_DQBUF. On a dequeue each plane is the
    // driver's to fill, every field of it, so they are cleared once, with
    // the object, rather than for every frame.
    v4l2_plane dequeue_planes[kMaxViews] = {};
    int32_t exported_fd[kMaxBuffers][kMaxViews] = {
        {-1, -1, -1}, {-1, -1, -1}, {-1, -1, -1}, {-1, -1, -1},
        {-1, -1, -1}, {-1, -1, -1}, {-1, -1, -1}, {-1, -1, -1},
    };

    // Node lifetime.
    int Open(uint32_t camera_index, int32_t open_mode);
    int Close();
    // The open node's descriptor, or -1 when the camera holds none.
    int GetVideoFd() const { return fd; }
    // Every request to the video node is repeated while a signal interrupts
    // it: nothing the camera asks of its node is a failure when interrupted.
    // The repeat is out of line and finds the node again through the
    // object, so that the frame loop keeps nothing aside for it.
    int Request(unsigned long request, void *record) const
    {
        const int result = ioctl(fd, request, record);
        if (__builtin_expect(result == -1, 0))
            return RepeatIfInterrupted(request, record);
        return result;
    }
    int RepeatIfInterrupted(unsigned long request, void *record) const;

    // Stream setup and buffers.
    int Init(uint32_t combination, int32_t buffer_num);
    // Buffer phase of Init: request, map and export; state 2 on success.
    int SetupBuffers(int32_t buffer_num);
    // Close's half of the buffer phase: unmaps every plane, closes exports.
    void ReleaseBuffers();
    int StoreResize(const zelvideo::_resize_param_t &record);
    int ApplyResize(zelvideo::_resize_param_t record, int32_t bound_width, int32_t bound_height);

    // Frame loop.
    int QueueBuffer(uint32_t index); // VIDIOC_QBUF; the ioctl's result (v4l2_records.h)
    int StartCapture();
    int StopCapture();
    int GetFrame(zelvideo::_isp_buf_t *out, int32_t timeout_ms);
    // GetFrame's refusal of a frame out of sequence or too soon: prints
    // why, queues the buffer again; -11.
    int RefuseFrame(v4l2_buffer &frame, uint64_t time_us);
    int PutFrame(const zelvideo::_isp_buf_t &buf);
    int PutFrameByIndex(int32_t index);

    // Views.
    int GetViewFormat(int32_t view, zelvideo::_view_format_t *out);
    int SetViewFormat(int32_t view, zelvideo::_view_format_t format);
    int GetViewBufFd(int32_t buffer_index, uint32_t view);

    // Frame decimation.
    int SetFrameDropNum(int32_t total_num, int32_t drop_num);
    int GetExpectedFrame(zelvideo::_isp_buf_t *out, int32_t timeout_ms);

    // State rule: true when state is one of the accepted ones; otherwise
    // prints the bad-state line with the operation's name. The accepting
    // test is inline: PutFrame makes it for every frame.
    bool StateAllows(const char *operation, uint32_t accepted_mask) const
    {
        if (state < 32 && (accepted_mask & StateBit(state)) != 0)
            return true;
        return zelisp::StateAllows(operation, state, accepted_mask, NodePath());
    }
    // The node path for the lines about this camera, null before Open has
    // named one.
    const char *NodePath() const { return dev_path[0] != '\0' ? dev_path : nullptr; }
    // One line about this camera: dev_path immediately followed by text
    // (the line end is added where the line is printed).
    void DeviceMessage(IspMessageKind kind, const char *format, ...) const __attribute__((format(printf, 3, 4)));
};

// kViewOfPlane[mask][j]: the j-th enabled view of a three-bit view mask, -1
// when fewer views are enabled. The ISP packs the enabled views into the
// planes of each buffer in view order; the buffer table is indexed by view,
// so that an application finds view k in views[k] whatever else is enabled.
// A lookup, since it runs for every plane of every frame.
inline constexpr int8_t kViewOfPlane[1 << kMaxViews][kMaxViews] = {
    {-1, -1, -1}, {0, -1, -1}, {1, -1, -1}, {0, 1, -1},
    {2, -1, -1},  {0, 2, -1},  {1, 2, -1},  {0, 1, 2},
};

// View carried by plane `plane` of a buffer under `view_mask`, or -1.
inline int ViewOfPlane(uint32_t view_mask, int plane)
{
    if (plane < 0 || plane >= kMaxViews)
        return -1;
    return kViewOfPlane[view_mask & ((1u << kMaxViews) - 1)][plane];
}

// Turns a handle into its camera object (handles are object addresses).
inline IspVideo *VideoFromHandle(unsigned long handle) { return reinterpret_cast<IspVideo *>(handle); }

} // namespace zelisp

#endif
