/*
 * png_writer.h - PNG previews of a view: the view's YUV (or grey, or RGB)
 * image converted to 8-bit RGB with libyuv, written with libpng to a file
 * or, for the web console's snapshots, into memory.
 */
#ifndef ZELISP_CAM_PNG_WRITER_H
#define ZELISP_CAM_PNG_WRITER_H

#include <cstdint>
#include <string>
#include <vector>

#include "formats.h"

namespace zcam {

// 8-bit RGB, bytes R, G, B per pixel, rows of width * 3 bytes.
struct RgbImage {
    uint32_t width = 0;
    uint32_t height = 0;
    std::vector<uint8_t> pixels;
};

// Converts NV12, NV21, YUYV, GREY or RGB3; returns "" or why it could not.
std::string to_rgb(const ViewImage &image, RgbImage *rgb);

// Returns "" or why the file could not be written.
std::string write_png(const std::string &path, const RgbImage &rgb);

// Encodes an RGB image as PNG in memory. Returns "" or why not.
std::string encode_png(const RgbImage &rgb, std::string *png);

} // namespace zcam

#endif
