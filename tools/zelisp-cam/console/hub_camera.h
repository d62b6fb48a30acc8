/*
 * hub_camera.h - one camera of the console's hub: its handle and
 * descriptor, the formats of its views, the taps on them, and its counts.
 * Shared by the capture loop (camera_hub.cpp) and the setup
 * (camera_setup.cpp).
 */
#ifndef ZELISP_CAM_CONSOLE_HUB_CAMERA_H
#define ZELISP_CAM_CONSOLE_HUB_CAMERA_H

#include <array>
#include <memory>
#include <string>
#include <vector>

#include "camera_hub.h"

namespace zcam {

struct TapEntry {
    int view;
    std::shared_ptr<ViewTap> tap;
};

struct CameraHub::Camera {
    int number = 0;
    CameraHandle own;         // single cameras; a group owns its members
    unsigned long handle = 0; // the handle the library calls take
    int fd = -1;              // the node's descriptor, for poll()
    // Written by the capture thread under layout_mutex_.
    std::array<zelvideo::_view_format_t, 3> formats{};
    bool running = false;
    // Replaced whole under taps_mutex_, so the capture thread reads a list
    // that no one changes under it.
    std::shared_ptr<const std::vector<TapEntry>> taps = std::make_shared<std::vector<TapEntry>>();
    // Under stats_mutex_. A camera that starts again counts its sequence
    // numbers from a new start: the counts so far are kept in `totals`.
    CameraStats stats{0, DecimationRule()};
    Totals totals;
    RateMeter rate;
    int64_t last_capture_unix_us = 0;
    bool has_frame = false;
    std::string error;
};

} // namespace zcam

#endif
