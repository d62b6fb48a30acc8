/*
 * noise_tiles.h - the sensor's noise, as what the denoise stage leaves of
 * it: tiles computed when the settings change, laid over the processed
 * image at an offset that moves every frame.
 */
#ifndef ZELISP_SIM_NOISE_TILES_H
#define ZELISP_SIM_NOISE_TILES_H

#include <cstdint>
#include <memory>

#include "sim_internal.h"

namespace zsim::detail {

constexpr uint32_t kNoiseTile = 128; // square tile side, in samples

struct NoiseTiles {
    // Rows of 2 * kNoiseTile values (each row twice), so that any run of
    // kNoiseTile values from an offset is contiguous.
    int16_t luma[kNoiseTile * 2 * kNoiseTile];
    int16_t chroma[kNoiseTile * 2 * kNoiseTile];
};

// Noise of standard deviation `noise` (in 8-bit code values) as it leaves
// the denoise stage: strength s (0..10) keeps (10 - s) / 10 of it. Null
// when nothing remains.
std::shared_ptr<const NoiseTiles> make_noise_tiles(uint32_t noise, int32_t luma_strength, int32_t chroma_strength);

// Writes clean + noise into plane, the tiles placed by the frame's number.
void paint_noisy(uint8_t *plane, const uint8_t *clean, const ViewFormat &format, const NoiseTiles &tiles,
                 uint32_t sequence);

} // namespace zsim::detail

#endif
