/*
 * picture_convert.h - the pictures of the web console: a view scaled to a
 * preview in 32-bit BGRX (libyuv's "ARGB") and its JPEG for the tiles and
 * streams (the full-resolution PNG of a snapshot is encode_png's,
 * png_writer.h). These run on the picture workers, never on the capture
 * thread.
 */
#ifndef ZELISP_CAM_CONSOLE_PICTURE_CONVERT_H
#define ZELISP_CAM_CONSOLE_PICTURE_CONVERT_H

#include <cstdint>
#include <string>
#include <vector>

#include "formats.h"
#include "png_writer.h"

namespace zcam {

// Four bytes per pixel, B, G, R, X in memory; rows of width * 4 bytes.
struct PreviewImage {
    uint32_t width = 0;
    uint32_t height = 0;
    std::vector<uint8_t> pixels;
    std::vector<uint8_t> scratch; // scaled YUV on the way, kept to avoid reallocations
};

// The size a view is previewed at: no wider than max_width, the view's
// aspect kept, both sides even (the YUV scalers work on pairs of pixels).
void preview_size(const zelvideo::_view_format_t &format, uint32_t max_width, uint32_t *width, uint32_t *height);

// Scales and converts one view into `out` at out->width x out->height (set
// by the caller). Returns "" or why it could not.
std::string make_preview(const ViewImage &image, PreviewImage *out);

// Encodes a preview as JPEG (4:2:0, the given quality). Returns "" or why not.
std::string encode_jpeg(const PreviewImage &image, int quality, std::string *jpeg);

} // namespace zcam

#endif
