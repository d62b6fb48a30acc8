// pattern.cpp - the simulated sensor's test pattern.
//
// Each buffer gets eight vertical colour bars once (75% bars, BT.601
// limited range). Every frame then repaints only two small regions: a strip
// with the frame number and a band with a block that moves along with the
// frame number, so many cameras at high rates stay cheap.
//
// The frame number is written as two rows of 32 square cells in luma, most
// significant bit first: the upper row white for a 1 and black for a 0, the
// lower row the complement. The cells are large (a 48th of the width, at
// least 2 pixels, always even so that chroma samples line up) and neutral
// in chroma, so the number survives conversion to RGB, PNG and mild scaling:
// a reader thresholds each cell at mid-grey and needs the two rows to be
// complements, which colour bars never are.
#include <algorithm>
#include <cstring>

#include "sim_internal.h"

namespace zsim::detail {

namespace {

constexpr int kBits = 32;

struct Colour {
    uint8_t y, u, v, r, g, b;
};

constexpr Colour kBars[8] = {
    {180, 128, 128, 191, 191, 191}, // white
    {162, 44, 142, 191, 191, 0},    // yellow
    {131, 156, 44, 0, 191, 191},    // cyan
    {112, 72, 58, 0, 191, 0},       // green
    {84, 184, 198, 191, 0, 191},    // magenta
    {65, 100, 212, 191, 0, 0},      // red
    {35, 212, 114, 0, 0, 191},      // blue
    {16, 128, 128, 0, 0, 0},        // black
};
constexpr Colour kWhite = {235, 128, 128, 255, 255, 255};
constexpr Colour kBlack = {16, 128, 128, 0, 0, 0};

bool known(uint32_t fourcc)
{
    return fourcc == kNV12 || fourcc == kNV21 || fourcc == kYUYV || fourcc == kRGB24 || fourcc == kGREY;
}

// Where the frame number and the moving block go, in even pixel units:
// strip rows at y = cell and 2 * cell, block band at 4 * cell, bars below.
struct Layout {
    uint32_t cell = 0; // 0: the image is too small to carry a number
};

Layout layout_of(const ViewFormat &format)
{
    Layout layout;
    if (format.height < 2)
        return layout;
    uint32_t cell = std::min(format.width / 48, (format.height - 2) / 5) & ~1u;
    layout.cell = cell >= 2 ? cell : 0;
    return layout;
}

// A plane the pattern can be painted into: a format we know, and room for
// the whole image.
bool paintable(const ViewFormat &format, size_t length)
{
    return known(format.fourcc) && format.width > 0 && format.height > 0 && length >= image_size(format);
}

// Fills size bytes with a repeated pattern of unit bytes: the pattern once,
// then doubling copies, which run at memcpy speed for any pattern length.
void fill_pattern(uint8_t *out, size_t size, const uint8_t *pattern, size_t unit)
{
    if (size < unit)
        return;
    // A pattern of one repeated byte (luma, grey, RGB white or black) is a
    // plain memset.
    if (std::all_of(pattern + 1, pattern + unit, [&](uint8_t byte) { return byte == pattern[0]; })) {
        memset(out, pattern[0], size);
        return;
    }
    memcpy(out, pattern, unit);
    size_t done = unit;
    while (done < size) {
        const size_t chunk = std::min(done, size - done);
        memcpy(out + done, out, chunk);
        done += chunk;
    }
}

// Fills rows [y0, y1) of a plane whose rows are stride bytes apart, from
// byte offset x0 to x1 of each row, with a pattern: the first row is built,
// the others copied from it.
void fill_rows(uint8_t *plane, size_t stride, size_t x0, size_t x1, uint32_t y0, uint32_t y1,
               const uint8_t *pattern, size_t unit)
{
    if (y0 >= y1 || x0 >= x1)
        return;
    uint8_t *first = plane + y0 * stride + x0;
    fill_pattern(first, x1 - x0, pattern, unit);
    for (uint32_t y = y0 + 1; y < y1; ++y)
        memcpy(plane + y * stride + x0, first, x1 - x0);
}

// Fills the rectangle [x0, x1) x [y0, y1) with one colour. x0, x1, y0 and y1
// are even for the subsampled formats (the callers keep them so), except
// possibly at the image's right or bottom edge.
void fill_rect(uint8_t *plane, const ViewFormat &format, uint32_t x0, uint32_t y0, uint32_t x1, uint32_t y1,
               const Colour &colour)
{
    const size_t w = format.width;
    switch (format.fourcc) {
    case kGREY:
    case kNV12:
    case kNV21:
        fill_rows(plane, w, x0, x1, y0, y1, &colour.y, 1);
        if (format.fourcc != kGREY) {
            const uint8_t pair[2] = {format.fourcc == kNV12 ? colour.u : colour.v,
                                     format.fourcc == kNV12 ? colour.v : colour.u};
            // Interleaved chroma: one pair per 2 x 2 pixels.
            fill_rows(plane + w * format.height, w & ~size_t(1), x0 & ~1u, x1 & ~1u, y0 / 2, y1 / 2, pair, 2);
        }
        break;
    case kYUYV: {
        const uint8_t quad[4] = {colour.y, colour.u, colour.y, colour.v};
        fill_rows(plane, w * 2, (x0 & ~1u) * 2, (x1 & ~1u) * 2, y0, y1, quad, 4);
        break;
    }
    case kRGB24: {
        const uint8_t rgb[3] = {colour.r, colour.g, colour.b};
        fill_rows(plane, w * 3, x0 * 3, x1 * 3, y0, y1, rgb, 3);
        break;
    }
    }
}

// The bars between pixels xa and xb (even) of rows [y0, y1).
void paint_bars(uint8_t *plane, const ViewFormat &format, uint32_t y0, uint32_t y1, uint32_t xa = 0,
                uint32_t xb = UINT32_MAX)
{
    for (uint32_t bar = 0; bar < 8; ++bar) {
        uint32_t x0 = std::max(xa, (bar * format.width / 8) & ~1u);
        uint32_t x1 = std::min(xb, bar == 7 ? format.width : ((bar + 1) * format.width / 8) & ~1u);
        if (x0 < x1)
            fill_rect(plane, format, x0, y0, x1, y1, kBars[bar]);
    }
}

uint32_t luma_at(const uint8_t *plane, const ViewFormat &format, uint32_t x, uint32_t y)
{
    const size_t at = size_t(y) * format.width + x;
    switch (format.fourcc) {
    case kYUYV:
        return plane[at * 2];
    case kRGB24: {
        const uint8_t *p = plane + at * 3;
        return (77u * p[0] + 150u * p[1] + 29u * p[2]) >> 8;
    }
    default:
        return plane[at];
    }
}

// Mean luma of the middle of a cell, sampled on a 3 x 3 grid so that a
// blurred edge does not count.
uint32_t cell_luma(const uint8_t *plane, const ViewFormat &format, uint32_t x0, uint32_t y0, uint32_t cell)
{
    uint32_t sum = 0;
    for (uint32_t j = 1; j <= 3; ++j)
        for (uint32_t i = 1; i <= 3; ++i)
            sum += luma_at(plane, format, x0 + cell * i / 4, y0 + cell * j / 4);
    return sum / 9;
}

// Copies the first row of rows [y0, y1), between pixels x0 and x1, to the
// rows below it; for NV12/NV21 the chroma row of y0 likewise. The callers
// paint two rows (one chroma row) and let this make the rest, so that a
// strip costs a few row copies rather than a fill per cell and row.
void replicate_rows(uint8_t *plane, const ViewFormat &format, uint32_t x0, uint32_t x1, uint32_t y0, uint32_t y1)
{
    const size_t w = format.width;
    size_t stride = w, b0 = x0, b1 = x1;
    if (format.fourcc == kYUYV) {
        stride = w * 2;
        b0 = size_t(x0 & ~1u) * 2;
        b1 = size_t(x1 & ~1u) * 2;
    } else if (format.fourcc == kRGB24) {
        stride = w * 3;
        b0 = size_t(x0) * 3;
        b1 = size_t(x1) * 3;
    }
    for (uint32_t y = y0 + 1; y < y1 && b0 < b1; ++y)
        memcpy(plane + y * stride + b0, plane + size_t(y0) * stride + b0, b1 - b0);
    if (format.fourcc != kNV12 && format.fourcc != kNV21)
        return;
    uint8_t *chroma = plane + w * format.height;
    const size_t cstride = w & ~size_t(1), c0 = x0 & ~1u, c1 = x1 & ~1u;
    for (uint32_t y = y0 / 2 + 1; y < y1 / 2 && c0 < c1; ++y)
        memcpy(chroma + y * cstride + c0, chroma + size_t(y0 / 2) * cstride + c0, c1 - c0);
}

// Copies the rectangle [x0, x1) x [y0, y1) (and its chroma) from an image of
// the same format; x0 and x1 even.
void copy_rect(uint8_t *plane, const uint8_t *from, const ViewFormat &format, uint32_t x0, uint32_t x1,
               uint32_t y0, uint32_t y1)
{
    const size_t w = format.width;
    const size_t bytes = format.fourcc == kYUYV ? 2 : format.fourcc == kRGB24 ? 3 : 1;
    const size_t stride = w * bytes;
    for (size_t y = y0; y < y1; ++y)
        memcpy(plane + y * stride + x0 * bytes, from + y * stride + x0 * bytes, (x1 - x0) * bytes);
    if (format.fourcc != kNV12 && format.fourcc != kNV21)
        return;
    const size_t offset = w * format.height, cstride = w & ~size_t(1);
    for (size_t y = y0 / 2; y < y1 / 2; ++y)
        memcpy(plane + offset + y * cstride + x0, from + offset + y * cstride + x0, x1 - x0);
}

// Puts the background back over [x0, x1) of the block's band.
void restore_band(uint8_t *plane, const ViewFormat &format, const uint8_t *background, uint32_t x0, uint32_t x1,
                  uint32_t band, uint32_t cell)
{
    if (background) {
        if (background != plane)
            copy_rect(plane, background, format, x0, x1, band, band + cell);
        return;
    }
    paint_bars(plane, format, band, band + 2, x0, x1);
    replicate_rows(plane, format, x0, x1, band, band + cell);
}

} // namespace

size_t image_size(const ViewFormat &format)
{
    const size_t pixels = size_t(format.width) * format.height;
    switch (format.fourcc) {
    case kNV12:
    case kNV21:
        return pixels * 3 / 2;
    case kYUYV:
        return pixels * 2;
    case kRGB24:
        return pixels * 3;
    case kGREY:
        return pixels;
    default:
        return 0; // the ISP produces no other format
    }
}

void paint_background(uint8_t *plane, size_t length, const ViewFormat &format)
{
    if (paintable(format, length))
        paint_bars(plane, format, 0, format.height);
}

// Each strip is painted on its first row and then copied down whole rows at
// a time. The strip's two top rows get the colour of a 0 (one fill, which
// lays the row of neutral chroma under them as well), then the cells of
// the other colour go into the first row; the cells are an even number of
// rows high, so the chroma rows line up with the luma rows copied.
static void paint_strip(uint8_t *plane, const ViewFormat &format, uint32_t cell, uint32_t y, uint32_t sequence,
                 bool complement)
{
    const Colour &zero = complement ? kWhite : kBlack, &one = complement ? kBlack : kWhite;
    fill_rect(plane, format, cell, y, cell * (kBits + 1), y + 2, zero);
    for (int bit = 0; bit < kBits; ++bit) {
        const uint32_t x = cell * (bit + 1);
        if ((sequence >> (kBits - 1 - bit)) & 1)
            fill_rect(plane, format, x, y, x + cell, y + 1, one); // luma (or packed) row only: y is even
    }
    replicate_rows(plane, format, cell, cell * (kBits + 1), y, y + cell);
}

void paint_frame(uint8_t *plane, size_t length, const ViewFormat &format, uint32_t sequence,
                 const uint8_t *background, uint32_t *block)
{
    const uint32_t cell = layout_of(format).cell;
    if (!paintable(format, length) || !cell)
        return;
    paint_strip(plane, format, cell, cell, sequence, false);
    paint_strip(plane, format, cell, 2 * cell, sequence, true);
    // The block moves along its band. A buffer that held an older frame
    // gets the background back where that frame's block stood (or over the
    // whole band when that is not known), then the new block.
    const uint32_t band = 4 * cell;
    const uint32_t travel = format.width - 2 * cell;
    const uint32_t x = uint32_t(uint64_t(sequence) * (cell / 2) % travel) & ~1u;
    const uint32_t old = block ? *block : kBandUnknown;
    if (old == kBandUnknown)
        restore_band(plane, format, background, 0, format.width, band, cell);
    else if (old != kBandClean && old != x)
        restore_band(plane, format, background, old, std::min(old + 2 * cell, format.width), band, cell);
    fill_rect(plane, format, x, band, x + 2 * cell, band + 2, kWhite);
    replicate_rows(plane, format, x, x + 2 * cell, band, band + cell);
    if (block)
        *block = x;
}

bool read_frame_number(const uint8_t *plane, size_t length, const ViewFormat &format, uint32_t *sequence)
{
    const uint32_t cell = layout_of(format).cell;
    if (!plane || !paintable(format, length) || !cell)
        return false;
    uint32_t number = 0;
    for (int bit = 0; bit < kBits; ++bit) {
        const uint32_t x = cell * (bit + 1);
        const bool upper = cell_luma(plane, format, x, cell, cell) >= 128;
        const bool lower = cell_luma(plane, format, x, 2 * cell, cell) >= 128;
        if (upper == lower)
            return false; // no complement: this is not a frame number
        number = number << 1 | (upper ? 1 : 0);
    }
    if (sequence)
        *sequence = number;
    return true;
}

} // namespace zsim::detail
