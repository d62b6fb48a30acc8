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

#include "isp_processing.h"
#include "noise_tiles.h"
#include "scene_source.h"

namespace zsim::detail {

struct CameraIsp {
    std::shared_ptr<const Scene> scene; // null: the colour bars
    ResizeRecord resize;
    IspSettings settings;
    uint32_t settings_version = 0;      // of the controls, when last read
    uint64_t generation = 1;            // changes whenever images must be rebuilt
    std::shared_ptr<const ViewImage> images[3];
    uint64_t image_generation[3] = {0, 0, 0};
    uint32_t image_frame[3] = {0, 0, 0};
    std::shared_ptr<const NoiseTiles> noise;
    uint64_t noise_generation = 0;
};

} // namespace zsim::detail

#endif
