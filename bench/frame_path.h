/*
 * frame_path.h - one simulated camera streaming scripted frames, read either
 * through the library (isp_get_frame_buf + isp_put_frame_buf) or by a
 * hand-written V4L2 loop that sends the same driver requests (a wait on the
 * node, VIDIOC_DQBUF, VIDIOC_QBUF) on the same node. The hand-written loop
 * comes in two kinds: waiting with select, as the classic V4L2 capture loop
 * does, and with poll, as the library does. Both sides share the node,
 * the buffers and the frame clock, so the driver's cost is the same on each.
 */
#ifndef ZELISP_BENCH_FRAME_PATH_H
#define ZELISP_BENCH_FRAME_PATH_H

#include <cstdint>

#include "bench_support.h"

namespace zelisp_bench {

class FramePath {
public:
    static constexpr int kCamera = 0;
    static constexpr uint32_t kCombination = 7; // all three views: three planes a frame
    static constexpr int kBuffers = 4;

    FramePath();
    ~FramePath();
    FramePath(const FramePath &) = delete;
    FramePath &operator=(const FramePath &) = delete;

    // Scripts `frames` frames and empties the driver's request log, outside
    // any measurement.
    void Script(int frames);
    // Reads `frames` scripted frames; false if any request failed.
    bool LibraryFrames(int frames);
    bool SelectLoopFrames(int frames);
    bool PollLoopFrames(int frames);

    unsigned long handle() const { return handle_; }
    // The last frame the library handed over.
    const zelvideo::_isp_buf_t &last_frame() const { return frame_; }

private:
    unsigned long handle_ = 0;
    int fd_ = -1;
    ScriptClock clock_;
    zelvideo::_isp_buf_t frame_{};
};

} // namespace zelisp_bench

#endif
