// label_font.cpp - rendering label text with FreeType.
#include "label_font.h"

#include <ft2build.h>
#include FT_FREETYPE_H

#include <algorithm>
#include <cstdlib>

#ifndef ZELISP_CAM_FONT_FILE
#define ZELISP_CAM_FONT_FILE "/usr/share/fonts/truetype/dejavu/DejaVuSansMono.ttf"
#endif

namespace zcam {

std::string label_font_path()
{
    const char *chosen = getenv("ZELISP_CAM_FONT");
    return chosen != nullptr && *chosen != '\0' ? chosen : ZELISP_CAM_FONT_FILE;
}

struct LabelFont::Face {
    FT_Library library = nullptr;
    FT_Face face = nullptr;
    int ascender = 0; // pixels from a line's top to its baseline

    ~Face()
    {
        if (face != nullptr)
            FT_Done_Face(face);
        if (library != nullptr)
            FT_Done_FreeType(library);
    }
};

LabelFont::LabelFont() = default;
LabelFont::~LabelFont() = default;

bool LabelFont::loaded() const { return face_ != nullptr; }

namespace {

std::string freetype_error(FT_Error error)
{
    const char *text = FT_Error_String(error); // null unless FreeType was built with its messages
    return text != nullptr ? text : "FreeType error " + std::to_string(error);
}

} // namespace

std::string LabelFont::load(const std::string &path, uint32_t pixel_height)
{
    face_.reset();
    auto face = std::make_unique<Face>();
    FT_Error error = FT_Init_FreeType(&face->library);
    if (error != 0)
        return "FreeType does not start: " + freetype_error(error);
    error = FT_New_Face(face->library, path.c_str(), 0, &face->face);
    if (error == FT_Err_Cannot_Open_Resource)
        return "no font at " + path;
    if (error != 0)
        return path + " is not a font FreeType reads: " + freetype_error(error);
    error = FT_Set_Pixel_Sizes(face->face, 0, pixel_height);
    if (error != 0)
        return path + " has no " + std::to_string(pixel_height) + "-pixel size: " + freetype_error(error);
    // 26.6 fixed point: the ascender of the size just set, rounded up.
    face->ascender = int((face->face->size->metrics.ascender + 63) >> 6);
    face_ = std::move(face);
    return "";
}

void LabelFont::draw(RgbImage *image, int x, int top, int max_width, const std::string &text, uint8_t r, uint8_t g,
                     uint8_t b) const
{
    if (!face_)
        return;
    FT_Face face = face_->face;
    const int right = std::min(x + max_width, int(image->width));
    const int baseline = top + face_->ascender;
    const uint8_t colour[3] = {r, g, b};
    int pen = x;
    for (unsigned char c : text) {
        // Labels are ASCII; anything else is drawn as the font's missing glyph.
        if (FT_Load_Char(face, c < 0x80 ? c : 0, FT_LOAD_RENDER) != 0)
            continue;
        const FT_GlyphSlot glyph = face->glyph;
        const FT_Bitmap &bitmap = glyph->bitmap;
        const int left = pen + glyph->bitmap_left;
        const int first_row = baseline - glyph->bitmap_top;
        if (left >= right)
            break;
        for (int row = 0; row < int(bitmap.rows); ++row) {
            const int y = first_row + row;
            if (y < 0 || y >= int(image->height))
                continue;
            const uint8_t *coverage = bitmap.buffer + row * bitmap.pitch;
            for (int col = 0; col < int(bitmap.width); ++col) {
                const int px = left + col;
                if (px < 0 || px >= right || coverage[col] == 0)
                    continue;
                uint8_t *dst = image->pixels.data() + (size_t(y) * image->width + size_t(px)) * 3;
                const int alpha = coverage[col];
                for (int channel = 0; channel < 3; ++channel)
                    dst[channel] = uint8_t((dst[channel] * (255 - alpha) + colour[channel] * alpha + 127) / 255);
            }
        }
        pen += int(glyph->advance.x >> 6);
    }
}

} // namespace zcam
