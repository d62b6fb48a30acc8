/*
 * noise_tiles.cpp - sensor noise without a random number per pixel per
 * frame: one tile of roughly Gaussian values (a sum of four uniform ones,
 * from a fixed seed, so runs are repeatable), scaled by what the denoise
 * strengths leave, and laid over the image at an offset taken from the
 * frame number. Each frame then costs one add and one table look-up per
 * byte.
 */
#include "noise_tiles.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace zsim::detail {
namespace {

constexpr uint32_t T = kNoiseTile;

// The base tile: standard deviation about 74 (four uniform values in
// -64..63), stored once.
const std::vector<int16_t> &base_tile(uint32_t seed)
{
    static const std::vector<int16_t> *tiles[2] = {nullptr, nullptr};
    static const bool made = [] {
        for (uint32_t which = 0; which < 2; ++which) {
            auto *tile = new std::vector<int16_t>(T * T);
            uint32_t state = 0x9E3779B9u ^ (which * 0x85EBCA6Bu);
            for (int16_t &value : *tile) {
                int sum = 0;
                for (int k = 0; k < 4; ++k) {
                    state ^= state << 13;
                    state ^= state >> 17;
                    state ^= state << 5;
                    sum += int(state >> 25) - 64;
                }
                value = int16_t(sum);
            }
            tiles[which] = tile;
        }
        return true;
    }();
    (void)made;
    return *tiles[seed];
}

void scale_tile(const std::vector<int16_t> &base, uint32_t noise, int32_t strength, int16_t *out)
{
    const int keep = 10 - std::min(std::max(strength, 0), 10);
    for (uint32_t y = 0; y < T; ++y)
        for (uint32_t x = 0; x < T; ++x) {
            const int value = base[y * T + x] * int(noise) * keep / (74 * 10);
            const int16_t clamped = int16_t(std::min(std::max(value, -255), 255));
            out[y * 2 * T + x] = clamped;
            out[y * 2 * T + x + T] = clamped;
        }
}

struct Clamp {
    uint8_t table[768];
    Clamp()
    {
        for (int i = 0; i < 768; ++i)
            table[i] = uint8_t(std::min(std::max(i - 256, 0), 255));
    }
};

const uint8_t *clamp_table()
{
    static const Clamp *clamp = new Clamp;
    return clamp->table + 256;
}

// One row: out[i] = clean[i] + noise, the noise row read from offset dx,
// every `step` bytes starting at `first` (luma in YUYV is every 2nd byte).
void noisy_row(uint8_t *out, const uint8_t *clean, size_t bytes, const int16_t *row, uint32_t dx, size_t first,
               size_t step, size_t repeat)
{
    const uint8_t *clamp = clamp_table();
    size_t sample = 0;
    for (size_t i = first; i < bytes; i += step) {
        const int16_t n = row[dx + sample % T];
        for (size_t k = 0; k < repeat && i + k < bytes; ++k)
            out[i + k] = clamp[clean[i + k] + n];
        ++sample;
    }
}

} // namespace

std::shared_ptr<const NoiseTiles> make_noise_tiles(uint32_t noise, int32_t luma_strength, int32_t chroma_strength)
{
    if (noise == 0 || (luma_strength >= 10 && chroma_strength >= 10))
        return nullptr;
    auto tiles = std::make_shared<NoiseTiles>();
    scale_tile(base_tile(0), noise, luma_strength, tiles->luma);
    scale_tile(base_tile(1), noise, chroma_strength, tiles->chroma);
    return tiles;
}

void paint_noisy(uint8_t *plane, const uint8_t *clean, const ViewFormat &format, const NoiseTiles &tiles,
                 uint32_t sequence)
{
    const uint32_t dx = sequence * 53u % T, dy = sequence * 29u % T;
    const uint32_t cx = (dx + 61) % T, cy = (dy + 37) % T;
    const size_t w = format.width;
    for (uint32_t y = 0; y < format.height; ++y) {
        const int16_t *luma = tiles.luma + size_t((y + dy) % T) * 2 * T;
        const int16_t *chroma = tiles.chroma + size_t((y + cy) % T) * 2 * T;
        switch (format.fourcc) {
        case kNV12:
        case kNV21:
        case kGREY:
            noisy_row(plane + y * w, clean + y * w, w, luma, dx, 0, 1, 1);
            break;
        case kYUYV:
            noisy_row(plane + y * w * 2, clean + y * w * 2, w * 2, luma, dx, 0, 2, 1);
            noisy_row(plane + y * w * 2, clean + y * w * 2, w * 2, chroma, cx, 1, 2, 1);
            break;
        case kRGB24: // the same noise on the three channels: luma noise
            noisy_row(plane + y * w * 3, clean + y * w * 3, w * 3, luma, dx, 0, 3, 3);
            break;
        default:
            break;
        }
    }
    if (format.fourcc != kNV12 && format.fourcc != kNV21)
        return;
    const size_t offset = w * format.height;
    for (uint32_t y = 0; y < format.height / 2; ++y) {
        const int16_t *chroma = tiles.chroma + size_t((y + cy) % T) * 2 * T;
        noisy_row(plane + offset + y * w, clean + offset + y * w, w, chroma, cx, 0, 1, 1);
    }
}

} // namespace zsim::detail
