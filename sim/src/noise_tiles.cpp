/*
 * noise_tiles.cpp - sensor noise without a random number per pixel per
 * frame: one tile of roughly Gaussian values (a sum of four uniform ones,
 * from a fixed seed, so runs are repeatable), scaled by what the denoise
 * strengths leave, laid out as the bytes of each pixel format's rows, and
 * laid over the image at an offset taken from the frame number.
 *
 * A frame then costs one saturating add and one saturating subtract per
 * byte, sixteen bytes at a time: twelve 1080p cameras at 30 frames per
 * second add noise at well over a gigabyte a second on one core.
 */
#include "noise_tiles.h"

#include <algorithm>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#elif defined(__ARM_NEON)
#include <arm_neon.h>
#endif

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

std::vector<int16_t> scaled_tile(const std::vector<int16_t> &base, uint32_t noise, int32_t strength)
{
    const int keep = 10 - std::min(std::max(strength, 0), 10);
    std::vector<int16_t> tile(T * T);
    for (size_t i = 0; i < tile.size(); ++i)
        tile[i] = int16_t(std::min(std::max(base[i] * int(noise) * keep / (74 * 10), -255), 255));
    return tile;
}

// Builds a pattern whose row r, byte b holds value(r, b).
template <typename Value>
NoisePattern pattern(uint32_t period, Value value)
{
    NoisePattern out;
    out.period = period;
    out.add.assign(size_t(T) * 2 * period, 0);
    out.take.assign(size_t(T) * 2 * period, 0);
    for (uint32_t r = 0; r < T; ++r)
        for (uint32_t b = 0; b < 2 * period; ++b) {
            const int v = value(r, b % period);
            out.add[size_t(r) * 2 * period + b] = uint8_t(std::max(v, 0));
            out.take[size_t(r) * 2 * period + b] = uint8_t(std::max(-v, 0));
        }
    return out;
}

// out = clean + add - take, saturating at 0 and 255.
void add_noise(uint8_t *out, const uint8_t *clean, const uint8_t *add, const uint8_t *take, size_t bytes)
{
    size_t i = 0;
#if defined(__SSE2__)
    for (; i + 16 <= bytes; i += 16) {
        const __m128i c = _mm_loadu_si128(reinterpret_cast<const __m128i *>(clean + i));
        const __m128i up = _mm_adds_epu8(c, _mm_loadu_si128(reinterpret_cast<const __m128i *>(add + i)));
        _mm_storeu_si128(reinterpret_cast<__m128i *>(out + i),
                         _mm_subs_epu8(up, _mm_loadu_si128(reinterpret_cast<const __m128i *>(take + i))));
    }
#elif defined(__ARM_NEON)
    for (; i + 16 <= bytes; i += 16)
        vst1q_u8(out + i, vqsubq_u8(vqaddq_u8(vld1q_u8(clean + i), vld1q_u8(add + i)), vld1q_u8(take + i)));
#endif
    for (; i < bytes; ++i) {
        const int v = clean[i] + add[i] - take[i];
        out[i] = uint8_t(std::min(std::max(v, 0), 255));
    }
}

// One image row of `bytes` bytes with pattern row `row`, starting `offset`
// bytes into the pattern's period.
void noisy_row(uint8_t *out, const uint8_t *clean, size_t bytes, const NoisePattern &noise, uint32_t row,
               uint32_t offset)
{
    const size_t at = size_t(row % T) * 2 * noise.period + offset % noise.period;
    for (size_t start = 0; start < bytes; start += noise.period)
        add_noise(out + start, clean + start, noise.add.data() + at, noise.take.data() + at,
                  std::min<size_t>(noise.period, bytes - start));
}

} // namespace

std::shared_ptr<const NoiseTiles> make_noise_tiles(uint32_t noise, int32_t luma_strength, int32_t chroma_strength)
{
    if (noise == 0 || (luma_strength >= 10 && chroma_strength >= 10))
        return nullptr;
    const std::vector<int16_t> luma = scaled_tile(base_tile(0), noise, luma_strength);
    const std::vector<int16_t> chroma = scaled_tile(base_tile(1), noise, chroma_strength);
    auto tiles = std::make_shared<NoiseTiles>();
    tiles->luma = pattern(T, [&](uint32_t r, uint32_t b) { return luma[r * T + b]; });
    tiles->chroma = pattern(T, [&](uint32_t r, uint32_t b) { return chroma[r * T + b]; });
    tiles->yuyv = pattern(2 * T, [&](uint32_t r, uint32_t b) {
        return b % 2 ? chroma[r * T + b / 2] : luma[r * T + b / 2];
    });
    tiles->rgb = pattern(3 * T, [&](uint32_t r, uint32_t b) { return luma[r * T + b / 3]; });
    return tiles;
}

void paint_noisy(uint8_t *plane, const uint8_t *clean, const ViewFormat &format, const NoiseTiles &tiles,
                 uint32_t sequence)
{
    const uint32_t dx = sequence * 53u % T, dy = sequence * 29u % T;
    const uint32_t cx = (dx + 61) % T, cy = (dy + 37) % T;
    const size_t w = format.width;
    for (uint32_t y = 0; y < format.height; ++y) {
        switch (format.fourcc) {
        case kNV12:
        case kNV21:
        case kGREY:
            noisy_row(plane + y * w, clean + y * w, w, tiles.luma, y + dy, dx);
            break;
        case kYUYV:
            noisy_row(plane + y * w * 2, clean + y * w * 2, w * 2, tiles.yuyv, y + dy, 2 * dx);
            break;
        case kRGB24:
            noisy_row(plane + y * w * 3, clean + y * w * 3, w * 3, tiles.rgb, y + dy, 3 * dx);
            break;
        default:
            break;
        }
    }
    if (format.fourcc != kNV12 && format.fourcc != kNV21)
        return;
    const size_t offset = w * format.height;
    for (uint32_t y = 0; y < format.height / 2; ++y)
        noisy_row(plane + offset + y * w, clean + offset + y * w, w, tiles.chroma, y + cy, cx);
}

} // namespace zsim::detail
