/*
 * noise_tiles.h - the sensor's noise, as what the denoise stage leaves of
 * it: tiles computed when the settings change, laid over the processed
 * image at an offset that moves every frame.
 */
#ifndef ZELISP_SIM_NOISE_TILES_H
#define ZELISP_SIM_NOISE_TILES_H

#include <cstdint>
#include <memory>
#include <vector>

#include "sim_internal.h"

namespace zsim::detail {

constexpr uint32_t kNoiseTile = 128; // square tile side, in samples

// The noise of one kind of image row, as bytes to add and bytes to take
// away (a signed value split in two, so that both apply with the
// processor's saturating byte arithmetic): kNoiseTile rows, each `period`
// bytes long and stored twice over, so that a run of `period` bytes from
// any offset is contiguous.
struct NoisePattern {
    uint32_t period = 0;
    std::vector<uint8_t> add;
    std::vector<uint8_t> take;
};

struct NoiseTiles {
    NoisePattern luma;   // one value per luma byte (NV12, NV21, GREY)
    NoisePattern chroma; // one value per chroma byte (the UV rows of NV12 and NV21)
    NoisePattern yuyv;   // luma and chroma interleaved as YUYV lays them out
    NoisePattern rgb;    // the luma noise on R, G and B alike
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
