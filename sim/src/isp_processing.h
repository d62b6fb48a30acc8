/*
 * isp_processing.h - the ISP's processing after the sensor, as the
 * simulator models it: the picture settings of one camera, and the
 * processed image of one view built from them.
 *
 * Order, fixed and documented in docs/simulator.md: scene (colour bars or
 * the camera's source) -> view 1's resize (first crop, scale, second crop)
 * or scaling to the view -> exposure -> white balance -> gamma -> contrast
 * -> brightness -> saturation and hue -> sharpness -> output format. Sensor
 * noise and what the denoise strengths leave of it are added per frame
 * (noise_tiles.cpp), the frame number last, as an on-screen display.
 */
#ifndef ZELISP_SIM_ISP_PROCESSING_H
#define ZELISP_SIM_ISP_PROCESSING_H

#include <cstdint>
#include <memory>
#include <vector>

#include "scene_source.h"
#include "sim_internal.h"

namespace zsim::detail {

// The controls that change the image, as the driver holds them.
struct IspSettings {
    int32_t brightness = 128, contrast = 128, saturation = 128, hue = 128;
    int32_t gamma = 100, sharpness = 5;
    int32_t auto_white_balance = 1, exposure_mode = 0; // exposure_mode 1: manual
    int32_t luma_denoise = 5, chroma_denoise = 5;
    uint32_t wb_flag = 0;
    uint16_t wb_gain[3] = {0, 0, 0}; // the first triple of the payload: R, G, B
    uint16_t exposure[6] = {0, 0, 0, 0, 0, 0};
    // Where the automatic loops stand (isp_metering.h), in 1/256.
    uint16_t auto_exposure = 256;
    uint16_t auto_white[3] = {256, 256, 256};

    bool operator==(const IspSettings &other) const;
    bool operator!=(const IspSettings &other) const { return !(*this == other); }
};

// Reads camera c's controls (takes the controls' lock).
IspSettings read_isp_settings(int camera);

// Light reaching the image relative to the scene as the sensor sees it at
// its base exposure, in 1/256: the automatic exposure's gain in the
// automatic modes; in manual mode word 0 is the exposure time in
// microseconds (10000 gives the base exposure; 0 keeps it) and word 1 the
// sensor gain in 1/256 (0 counts as 256).
uint32_t exposure_factor(const IspSettings &settings);
// The white-balance gains applied to R, G and B, in 1/256: the automatic
// white balance's, or the manual payload's with it off.
void white_balance_gains(const IspSettings &settings, uint32_t gains[3]);
// True when the settings leave the scene as it is (the driver's defaults).
bool neutral_picture(const IspSettings &settings);

// View 1's resize as the driver keeps it (IspResizeRegs words).
struct ResizeRecord {
    bool active = false;
    uint16_t words[11] = {};
    uint32_t out_width() const { return uint32_t(words[7] - words[6]) & ~1u; }
    uint32_t out_height() const { return uint32_t(words[5] - words[4]) & ~1u; }
};

// What one view's image is made from.
struct ViewRecipe {
    IspSettings settings;
    std::shared_ptr<const Scene> scene; // null: the colour bars
    uint32_t scene_frame = 0;
    ViewFormat format{};                // the view as delivered
    ViewFormat before_resize{};         // view 1's size the first crop is taken from
    ResizeRecord resize;                // view 1 only
    bool keep_bytes = false;            // materialise even plain bars (noise is added to it)
};

// A processed view image, ready to copy into buffers. `bars` means the
// plain colour bars, painted directly rather than copied.
struct ViewImage {
    ViewFormat format{};
    uint64_t id = 0; // unique; a buffer remembers which image it holds
    bool bars = false;
    std::vector<uint8_t> bytes;
};

// Builds the image; pure, takes no lock, allocates.
std::shared_ptr<ViewImage> build_view_image(const ViewRecipe &recipe);

// What the meters read of the colour bars.
const SceneStats &bars_stats();

} // namespace zsim::detail

#endif
