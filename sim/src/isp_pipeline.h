/*
 * isp_pipeline.h - what the ISP model keeps per camera between frames: the
 * scene, view 1's resize, the settings last read from the controls, and the
 * processed images built from them. Held in the core's Camera, under the
 * core's lock.
 */
#ifndef ZELISP_SIM_ISP_PIPELINE_H
#define ZELISP_SIM_ISP_PIPELINE_H

#include <cstdint>
#include <memory>

#include "isp_metering.h"
#include "isp_processing.h"
#include "noise_tiles.h"
#include "scene_source.h"

namespace zsim::detail {

struct CameraIsp {
    std::shared_ptr<const Scene> scene; // null: the colour bars
    ResizeRecord resize;
    IspSettings settings;               // the controls', and where the automatic loops stand
    uint32_t settings_version = 0;      // of the controls, when last read
    MeterState meter;
    uint64_t generation = 1;            // changes whenever images must be rebuilt
    std::shared_ptr<const ViewImage> images[3];
    uint64_t image_generation[3] = {0, 0, 0}; // the settings each image was built for
    uint32_t image_frame[3] = {0, 0, 0};
    std::shared_ptr<const NoiseTiles> noise;
    int32_t noise_made_for[3] = {-1, -1, -1}; // noise, luma and chroma denoise of those tiles
};

} // namespace zsim::detail

#endif
