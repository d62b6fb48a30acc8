/*
 * view_formats.h - --view-format: asking the driver for each view's format
 * before the stream is set up, and checking afterwards that the driver
 * holds what was asked for (a driver may adjust a format instead of
 * refusing it).
 */
#ifndef ZELISP_CAM_VIEW_FORMATS_H
#define ZELISP_CAM_VIEW_FORMATS_H

#include <string>
#include <vector>

#include "capture_options.h"

namespace zcam {

// isp_set_view_format for each request, on an opened camera. Returns 0, or
// the exit status of the refusal, reported.
int apply_view_formats(unsigned long handle, int camera, const std::vector<ViewFormatRequest> &requests);

// Reads the views back; for each that differs from its request, adds
// "camera C: view V is NV12 1280x720, not the NV12 1279x720 asked for" to
// *mismatches. Returns 0, or a failed read's status, reported.
int check_view_formats(unsigned long handle, int camera, const std::vector<ViewFormatRequest> &requests,
                       std::vector<std::string> *mismatches);

} // namespace zcam

#endif
