/*
 * caps_negotiation.h - how a view's format, size and rate are chosen with
 * downstream before the camera is set up, as a V4L2 source does it: the
 * caps the view can have (the driver's own format, size and rate first),
 * what downstream takes of them, fixated towards the driver's own, and the
 * rate the ISP's frame decimation makes of the sensor's.
 */
#ifndef GST_ZELISP_CAPS_NEGOTIATION_H
#define GST_ZELISP_CAPS_NEGOTIATION_H

#include <gst/gst.h>

#include <string>
#include <vector>

#include "node_queries.h"
#include "zelisp.h"

namespace gstzelisp {

// The longest decimation cycle the library takes: one frame in 120.
constexpr int kMostDecimation = 120;

// What one view can be given.
struct ViewOffer {
    zelvideo::_view_format_t current{}; // the driver's format for the view, preferred
    // Formats and sizes the element may ask the driver for; empty or
    // unknown: the current ones only.
    std::vector<uint32_t> formats;
    FrameSizes sizes;
    NodeColorimetry driver_colorimetry;
    std::string colorimetry; // the element's "colorimetry" property: wins when set
    // The sensor's rate (0/1: unknown) and whether downstream may pick one
    // of its whole-number divisions (else the view comes at rate_n/rate_d).
    int fps_n = 0;
    int fps_d = 1;
    bool rate_by_decimation = false;
    int rate_n = 0;
    int rate_d = 1;
};

// The caps of every choice the offer allows, the driver's own first.
GstCaps *offer_caps(const ViewOffer &offer);

struct ViewChoice {
    zelvideo::_view_format_t format{};
    int rate_n = 0;
    int rate_d = 1;
    GstCaps *caps = nullptr; // fixed; the caller owns it
};

// Picks the fixed caps the peer of `pad` takes (any, when it is not
// linked), nearest to the driver's own format, size and rate. False with a
// message for the not-negotiated error when downstream takes none.
bool choose_view_caps(GstPad *pad, const ViewOffer &offer, const std::string &label, ViewChoice *choice,
                      std::string *error);

// N when rate is fps/N (1 for the sensor's own rate, up to
// kMostDecimation); 0 when it is not a whole-number division.
int decimation_for(int fps_n, int fps_d, int rate_n, int rate_d);

} // namespace gstzelisp

#endif
