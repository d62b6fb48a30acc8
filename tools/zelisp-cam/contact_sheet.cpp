// contact_sheet.cpp - scaling the cameras' previews into one row and
// labelling them.
#include "contact_sheet.h"

#include <algorithm>
#include <cstring>

#include <libyuv/scale_rgb.h>

#include "label_font.h"

namespace zcam {
namespace {

// The strip is dark grey so that it stands apart from a dark picture, the
// text light grey.
constexpr uint8_t kStripGrey = 40;
constexpr uint8_t kTextGrey = 235;
constexpr int kMargin = 4;

} // namespace

std::string ContactSheet::write(const std::string &path, std::string *unlabelled) const
{
    unlabelled->clear();
    uint32_t height = kMaxTileHeight;
    for (const SheetTile &tile : tiles_)
        height = std::min(height, tile.picture.height);
    if (tiles_.empty() || height == 0)
        return "no preview to put on the contact sheet";

    std::vector<uint32_t> widths;
    uint32_t total_width = 0;
    for (const SheetTile &tile : tiles_) {
        const RgbImage &picture = tile.picture;
        uint32_t width = std::max<uint32_t>(1, uint32_t(uint64_t(picture.width) * height / picture.height));
        widths.push_back(width);
        total_width += width;
    }

    RgbImage sheet;
    sheet.width = total_width;
    sheet.height = height + kLabelStrip;
    sheet.pixels.assign(size_t(total_width) * sheet.height * 3, kStripGrey);
    const int sheet_stride = int(total_width * 3);
    uint32_t x = 0;
    for (size_t i = 0; i < tiles_.size(); ++i) {
        const RgbImage &tile = tiles_[i].picture;
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

    // A sheet without labels is still worth having: the font is looked for
    // only once everything else has worked.
    LabelFont font;
    std::string why = font.load(label_font_path(), kLabelLine - 3);
    if (!why.empty()) {
        *unlabelled = why;
    } else {
        x = 0;
        for (size_t i = 0; i < tiles_.size(); ++i) {
            const int left = int(x) + kMargin, room = int(widths[i]) - 2 * kMargin;
            for (int line = 0; line < 2; ++line)
                font.draw(&sheet, left, int(height + 3 + line * kLabelLine), room, tiles_[i].label[line],
                          kTextGrey, kTextGrey, kTextGrey);
            x += widths[i];
        }
    }
    return write_png(path, sheet);
}

} // namespace zcam
