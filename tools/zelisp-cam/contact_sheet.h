/*
 * contact_sheet.h - one PNG with every camera's view 0 side by side, each
 * scaled to the same height, so a glance shows that all cameras delivered.
 */
#ifndef ZELISP_CAM_CONTACT_SHEET_H
#define ZELISP_CAM_CONTACT_SHEET_H

#include <string>
#include <vector>

#include "png_writer.h"

namespace zcam {

class ContactSheet {
public:
    // Tiles are at most this many pixels high (smaller views keep their size).
    static constexpr uint32_t kMaxTileHeight = 360;

    void add(RgbImage tile) { tiles_.push_back(std::move(tile)); }
    bool empty() const { return tiles_.empty(); }
    // Returns "" or why the sheet could not be written.
    std::string write(const std::string &path) const;

private:
    std::vector<RgbImage> tiles_;
};

} // namespace zcam

#endif
