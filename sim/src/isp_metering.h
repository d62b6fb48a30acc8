/*
 * isp_metering.h - the ISP's automatic exposure and white balance: each
 * frame they meter the scene the sensor sees and move the exposure and the
 * colour gains a step toward what it calls for, as an ISP's 3A loop does
 * once per frame.
 */
#ifndef ZELISP_SIM_ISP_METERING_H
#define ZELISP_SIM_ISP_METERING_H

#include "isp_processing.h"
#include "scene_source.h"

namespace zsim::detail {

// What the loops carry from one frame to the next: the exposure and the
// colour gains in stops (log2), and whether each is on its way to a target
// (a loop starts when the scene strays far enough from its target and rests
// once it is close, so that a steady scene is left alone).
struct MeterState {
    double exposure_stops = 0;
    bool exposure_moving = false;
    double white_stops[3] = {0, 0, 0};
    bool white_moving = false;
};

// One frame: moves the loops that the controls leave automatic and writes
// their gains (1/256) into settings.auto_exposure and settings.auto_white.
void meter_scene(const SceneStats &scene, MeterState *state, IspSettings *settings);

// The mean luma the automatic exposure brings a scene to (BT.601 limited
// range: mid-grey, 18% reflectance under a 2.2 gamma).
constexpr double kExposureTarget = 118;

} // namespace zsim::detail

#endif
