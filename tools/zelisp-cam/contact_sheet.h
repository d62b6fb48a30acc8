/*
 * contact_sheet.h - one PNG with every camera's view 0 side by side, each
 * scaled to the same height, so a glance shows that all cameras delivered.
 * Under each tile a strip names what it shows: camera and view, then the
 * view's format, size and the frame's number.
 */
#ifndef ZELISP_CAM_CONTACT_SHEET_H
#define ZELISP_CAM_CONTACT_SHEET_H

#include <string>
#include <vector>

#include "png_writer.h"

namespace zcam {

struct SheetTile {
    RgbImage picture;
    std::string label[2]; // the two lines of text under it
};

class ContactSheet {
public:
    // Tiles are at most this many pixels high (smaller views keep their size).
    static constexpr uint32_t kMaxTileHeight = 360;
    // The label strip under the tiles: two lines of kLabelLine pixels.
    static constexpr uint32_t kLabelLine = 16;
    static constexpr uint32_t kLabelStrip = 2 * kLabelLine + 6;

    void add(SheetTile tile) { tiles_.push_back(std::move(tile)); }
    bool empty() const { return tiles_.empty(); }
    // Returns "" or why the sheet could not be written. Without a usable
    // font the strip stays blank and `unlabelled` says why (else it is "").
    std::string write(const std::string &path, std::string *unlabelled) const;

private:
    std::vector<SheetTile> tiles_;
};

} // namespace zcam

#endif
