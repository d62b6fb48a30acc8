/*
 * view_tap.h - how pictures leave the capture thread. For every frame, the
 * capture thread offers each enabled view to the taps attached to it (a
 * preview feed, a snapshot desk, a WebRTC session). A tap that wants the
 * frame copies the view and hands the copy to another thread; it never
 * converts, encodes or waits, and the frame goes back to the driver as soon
 * as the taps have returned. A camera that fails tells its taps it ended,
 * so that nothing waits for a frame that will not come.
 */
#ifndef ZELISP_CAM_CONSOLE_VIEW_TAP_H
#define ZELISP_CAM_CONSOLE_VIEW_TAP_H

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "formats.h"

namespace zcam {

struct FrameMark {
    uint32_t sequence = 0;
    uint64_t timestamp_us = 0;                           // the driver's capture time
    std::chrono::steady_clock::time_point taken_at = {}; // when the capture thread had it
};

// A view of one frame copied out of the capture buffer.
struct FrameCopy {
    zelvideo::_view_format_t format{};
    FrameMark mark;
    std::vector<uint8_t> pixels;

    // Copies the image (reusing the vector's memory when it is large enough).
    void assign(const ViewImage &image, const FrameMark &frame_mark);
    ViewImage image() const;
};

class ViewTap {
public:
    virtual ~ViewTap() = default;
    // Capture thread, for every frame of the tap's camera and view.
    virtual void take(const ViewImage &image, const FrameMark &mark) = 0;
    // Once, when the camera gives no more frames (a driver request failed:
    // the camera was unplugged, say); `why` says so in the library's words.
    // From the capture thread, or from attach() for a camera that ended
    // before. A tap that keeps nothing waiting ignores it.
    virtual void ended(const std::string & /* why */) {}
};

} // namespace zcam

#endif
