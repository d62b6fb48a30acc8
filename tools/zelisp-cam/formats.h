/*
 * formats.h - what the tool knows about the pixel formats the ISP's views
 * come in: their names and how many bytes one image takes in its plane.
 */
#ifndef ZELISP_CAM_FORMATS_H
#define ZELISP_CAM_FORMATS_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "zelisp.h"

namespace zcam {

constexpr uint32_t make_fourcc(char a, char b, char c, char d)
{
    return uint32_t(uint8_t(a)) | uint32_t(uint8_t(b)) << 8 | uint32_t(uint8_t(c)) << 16 |
           uint32_t(uint8_t(d)) << 24;
}
constexpr uint32_t kFourccNV12 = make_fourcc('N', 'V', '1', '2');
constexpr uint32_t kFourccNV21 = make_fourcc('N', 'V', '2', '1');
constexpr uint32_t kFourccYUYV = make_fourcc('Y', 'U', 'Y', 'V');
constexpr uint32_t kFourccRGB24 = make_fourcc('R', 'G', 'B', '3');
constexpr uint32_t kFourccGREY = make_fourcc('G', 'R', 'E', 'Y');

// "NV12", or "0x%08x" for a code that is not four printable characters.
std::string fourcc_name(uint32_t fourcc);

// The code of a format the tool can convert, from its name ("NV12", "nv12",
// "RGB3" or "RGB24"); 0 for any other name.
uint32_t fourcc_from_name(const std::string &name);

// Bytes of one image of this format with rows of exactly `width` pixels
// (the layout the ISP writes); 0 for a format the tool does not know.
size_t image_bytes(const zelvideo::_view_format_t &format);

// Bytes per row of the image's first plane (luma for NV12/NV21).
size_t row_bytes(const zelvideo::_view_format_t &format);

// "NV12 1920x1080"
std::string describe(const zelvideo::_view_format_t &format);

// One view of one frame, where the ISP wrote it: in the plane mapped for
// that view of the capture buffer.
struct ViewImage {
    zelvideo::_view_format_t format;
    const uint8_t *data; // null when the plane is not mapped
    size_t bytes;        // the image's bytes, or the whole plane for an unknown format
    bool complete;       // the plane holds a whole image of the format
};
ViewImage view_image(const zelvideo::_isp_buf_t &frame, int view, const zelvideo::_view_format_t &format);

} // namespace zcam

#endif
