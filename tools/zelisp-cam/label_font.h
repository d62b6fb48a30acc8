/*
 * label_font.h - lines of text drawn into an RGB image with FreeType, for
 * the labels of the contact sheet. The font is a TrueType file (Debian's
 * DejaVu Sans Mono unless ZELISP_CAM_FONT names another), rendered with
 * anti-aliasing and blended over the picture.
 */
#ifndef ZELISP_CAM_LABEL_FONT_H
#define ZELISP_CAM_LABEL_FONT_H

#include <cstdint>
#include <memory>
#include <string>

#include "png_writer.h"

namespace zcam {

// The font file labels are drawn with: $ZELISP_CAM_FONT when set and not
// empty, else the one the zelisp-tools package depends on.
std::string label_font_path();

class LabelFont {
public:
    LabelFont();
    ~LabelFont();
    LabelFont(const LabelFont &) = delete;
    LabelFont &operator=(const LabelFont &) = delete;

    // Opens the font at `path`, `pixel_height` pixels from one baseline to
    // the next. Returns "" or why it cannot be used.
    std::string load(const std::string &path, uint32_t pixel_height);
    bool loaded() const;

    // Draws one line of text in colour (r, g, b), its top at `top`, from x
    // to at most x + max_width (a longer line is cut at that edge).
    void draw(RgbImage *image, int x, int top, int max_width, const std::string &text, uint8_t r, uint8_t g,
              uint8_t b) const;

private:
    struct Face;
    std::unique_ptr<Face> face_;
};

} // namespace zcam

#endif
