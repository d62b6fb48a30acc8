// contact_sheet.cpp - scaling the cameras' previews into one row.
#include "contact_sheet.h"

#include <algorithm>
#include <cstring>

#include <libyuv/scale_rgb.h>

namespace zcam {

std::string ContactSheet::write(const std::string &path) const
{
    uint32_t height = kMaxTileHeight;
    for (const RgbImage &tile : tiles_)
        height = std::min(height, tile.height);
    if (tiles_.empty() || height == 0)
        return "no preview to put on the contact sheet";

    std::vector<uint32_t> widths;
    uint32_t total_width = 0;
    for (const RgbImage &tile : tiles_) {
        uint32_t width = std::max<uint32_t>(1, uint32_t(uint64_t(tile.width) * height / tile.height));
        widths.push_back(width);
        total_width += width;
    }

    RgbImage sheet;
    sheet.width = total_width;
    sheet.height = height;
    sheet.pixels.assign(size_t(total_width) * height * 3, 0);
    const int sheet_stride = int(total_width * 3);
    uint32_t x = 0;
    for (size_t i = 0; i < tiles_.size(); ++i) {
        const RgbImage &tile = tiles_[i];
        uint8_t *dst = sheet.pixels.data() + size_t(x) * 3;
        if (tile.height == height && tile.width == widths[i]) {
            for (uint32_t row = 0; row < height; ++row)
                memcpy(dst + size_t(row) * sheet_stride, tile.pixels.data() + size_t(row) * tile.width * 3,
                       size_t(tile.width) * 3);
        } else if (libyuv::RGBScale(tile.pixels.data(), int(tile.width * 3), int(tile.width), int(tile.height), dst,
                                    sheet_stride, int(widths[i]), int(height), libyuv::kFilterBilinear) != 0) {
            return "scaling a preview for the contact sheet failed";
        }
        x += widths[i];
    }
    return write_png(path, sheet);
}

} // namespace zcam
