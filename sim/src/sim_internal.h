/*
 * sim_internal.h - the seams between the simulator's core (descriptor table,
 * dispatch, log, faults, video nodes, hardware thread) and its parts that
 * keep their own state: the camera controls, the platform node, the test
 * pattern and the configuration file.
 *
 * The core applies faults and logs every request before it calls a handler,
 * so handlers only model the driver. Handlers take their own lock and never
 * call back into the core while holding it.
 */
#ifndef ZELISP_SIM_INTERNAL_H
#define ZELISP_SIM_INTERNAL_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "zelisp_sim/sim.h"

namespace zsim::detail {

// What a handler adds to the request's log entry.
struct LogNote {
    std::string detail;       // decoded fields, "id=0x00980900 value=128"
    std::vector<uint8_t> raw; // the record as the program sent it, when the
    bool raw_set = false;     // encoded size is not the real one
    // Requests of every frame leave their detail unformatted until the log
    // is read: a printf format of up to three unsigned numbers.
    const char *format = nullptr;
    uint32_t values[3] = {0, 0, 0};
};

// ---- controls.cpp: the controls of camera `camera` (0..11), reached from
// both of its nodes. Handles VIDIOC_QUERYCTRL, VIDIOC_QUERY_EXT_CTRL,
// VIDIOC_QUERYMENU, VIDIOC_G_CTRL, VIDIOC_S_CTRL, VIDIOC_G_EXT_CTRLS,
// VIDIOC_S_EXT_CTRLS, VIDIOC_TRY_EXT_CTRLS and the ISP's
// VIDIOC_ISP_GET_ABNORMAL_INFO. Returns false when `request` is none of
// them; otherwise true with *error = 0 or the errno to answer with.
bool handle_control_request(int camera, uint32_t request, void *arg, int *error, LogNote *note);
void reset_controls();
// ---- isp_pipeline.cpp: a control of camera `camera` may have changed; the
// image processing reads them again before the next frame. Takes no lock.
void note_controls_changed(int camera);
// Builds the processed images a control change calls for, for the views of
// buffers already allocated, without holding the core's lock during the
// work, so that the frame loop finds them ready. Call with no simulator
// lock held; schedule_image_update has the ISP worker thread do it.
void prepare_camera_images(int camera);
void schedule_image_update(int camera);

// ---- misc_device.cpp: requests on /dev/isp_misc. Returns false for a
// request the platform driver does not know (the core answers ENOTTY).
bool handle_misc_request(uint32_t request, void *arg, int *error, LogNote *note);
void reset_misc();

// ---- core: facts the parts above need.
bool camera_present(int camera);

// ---- pattern.cpp: the test pattern. Colour bars painted once per buffer,
// then per frame a small moving block and the frame number, so that many
// cameras at high rates stay cheap.
size_t image_size(const ViewFormat &format);       // bytes of one image
void paint_background(uint8_t *plane, size_t length, const ViewFormat &format);
// background: the image the band is restored from (null: the colour bars).
// block: where the plane's moving block stands, kept between frames so that
// only the old and the new block are painted (kBandClean: the plane holds
// the bare background; null or kBandUnknown: the whole band is repainted).
constexpr uint32_t kBandUnknown = UINT32_MAX;
constexpr uint32_t kBandClean = UINT32_MAX - 1;
void paint_frame(uint8_t *plane, size_t length, const ViewFormat &format, uint32_t sequence,
                 const uint8_t *background = nullptr, uint32_t *block = nullptr);
// Reads back the frame number paint_frame wrote; false if none is found.
bool read_frame_number(const uint8_t *plane, size_t length, const ViewFormat &format, uint32_t *sequence);

} // namespace zsim::detail

#endif
