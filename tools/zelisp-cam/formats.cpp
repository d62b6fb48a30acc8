// formats.cpp - names and image sizes of the views' pixel formats.
#include "formats.h"

#include <sys/mman.h>

#include <cctype>
#include <cstdio>

namespace zcam {

std::string fourcc_name(uint32_t fourcc)
{
    std::string name;
    for (int i = 0; i < 4; ++i) {
        char c = char((fourcc >> (8 * i)) & 0xff);
        if (!isprint(static_cast<unsigned char>(c))) {
            char hex[16];
            snprintf(hex, sizeof hex, "0x%08x", fourcc);
            return hex;
        }
        name += c;
    }
    return name;
}

uint32_t fourcc_from_name(const std::string &name)
{
    std::string upper;
    for (char c : name)
        upper += char(toupper(static_cast<unsigned char>(c)));
    for (uint32_t fourcc : {kFourccNV12, kFourccNV21, kFourccYUYV, kFourccRGB24, kFourccGREY})
        if (upper == fourcc_name(fourcc))
            return fourcc;
    return upper == "RGB24" ? kFourccRGB24 : 0;
}

size_t row_bytes(const zelvideo::_view_format_t &format)
{
    switch (format.format) {
    case kFourccYUYV:
        return size_t(format.width) * 2;
    case kFourccRGB24:
        return size_t(format.width) * 3;
    default:
        return format.width;
    }
}

size_t image_bytes(const zelvideo::_view_format_t &format)
{
    size_t pixels = size_t(format.width) * format.height;
    switch (format.format) {
    case kFourccNV12:
    case kFourccNV21:
        return pixels + pixels / 2; // full-size luma, then half-height interleaved chroma
    case kFourccYUYV:
        return pixels * 2;
    case kFourccRGB24:
        return pixels * 3;
    case kFourccGREY:
        return pixels;
    default:
        return 0;
    }
}

std::string describe(const zelvideo::_view_format_t &format)
{
    return fourcc_name(format.format) + " " + std::to_string(format.width) + "x" +
           std::to_string(format.height);
}

ViewImage view_image(const zelvideo::_isp_buf_t &frame, int view, const zelvideo::_view_format_t &format)
{
    const zelvideo::_isp_view_buf_t &entry = frame.views[view];
    ViewImage image = {format, nullptr, 0, false};
    if (entry.addr == nullptr || entry.addr == MAP_FAILED)
        return image;
    size_t wanted = image_bytes(format);
    image.data = static_cast<const uint8_t *>(entry.addr);
    image.complete = wanted != 0 && wanted <= entry.length;
    image.bytes = image.complete ? wanted : entry.length;
    return image;
}

} // namespace zcam
