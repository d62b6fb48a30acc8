/*
 * isp_metering.cpp - the automatic exposure and white balance loops.
 *
 * Exposure meters the picture as the exposure would make it: the scene's
 * luma scaled by the exposure gain, clipped at white, averaged. Each frame
 * the exposure moves a quarter of the way (in stops) toward the gain that
 * brings that mean to kExposureTarget: a time constant of 3.5 frames. It
 * starts moving when the mean is more than half a stop off the target and
 * rests once within 1/32 of a stop, up to 16 times (4 stops) either way.
 *
 * White balance is grey world: the scene's mean red, green and blue are
 * taken to be grey, so red and blue get the gains that bring them to green.
 * The gains move like the exposure, starting when one is more than 5% off,
 * resting within 1%, up to 4 times either way.
 */
#include "isp_metering.h"

#include <algorithm>
#include <cmath>

namespace zsim::detail {
namespace {

constexpr double kStep = 0.25;                  // of the remaining error, per frame
constexpr double kExposureStart = 0.5;           // stops
constexpr double kExposureRest = 1.0 / 32;       // stops
constexpr double kExposureRange = 4;             // stops, either way
constexpr double kWhiteStart = 0.0704;          // log2(1.05)
constexpr double kWhiteRest = 0.0144;           // log2(1.01)
constexpr double kWhiteRange = 2;               // stops, either way
constexpr double kBlack = 16, kWhite = 235;

// The mean luma of the scene under an exposure gain, white clipping.
double exposed_mean(const SceneStats &scene, double gain)
{
    double sum = 0;
    for (int code = 0; code < 256; ++code)
        if (scene.luma[code])
            sum += double(scene.luma[code]) * std::min(kBlack + std::max(code - kBlack, 0.0) * gain, kWhite);
    return sum / double(std::max<uint64_t>(scene.pixels, 1));
}

uint16_t gain_of(double stops) { return uint16_t(std::lround(256 * std::exp2(stops))); }

void meter_exposure(const SceneStats &scene, MeterState *state)
{
    const double mean = exposed_mean(scene, std::exp2(state->exposure_stops));
    // A black picture stays black whatever the gain: nothing to aim at.
    if (mean <= kBlack + 0.5)
        return;
    const double error = std::log2((kExposureTarget - kBlack) / (mean - kBlack));
    if (std::fabs(error) > kExposureStart)
        state->exposure_moving = true;
    if (!state->exposure_moving)
        return;
    if (std::fabs(error) < kExposureRest) {
        state->exposure_moving = false;
        return;
    }
    state->exposure_stops = std::clamp(state->exposure_stops + kStep * error, -kExposureRange, kExposureRange);
}

void meter_white(const SceneStats &scene, MeterState *state)
{
    if (scene.red <= 1 || scene.green <= 1 || scene.blue <= 1)
        return;
    const double wanted[3] = {std::log2(scene.green / scene.red), 0, std::log2(scene.green / scene.blue)};
    double largest = 0;
    for (int c = 0; c < 3; ++c)
        largest = std::max(largest, std::fabs(wanted[c] - state->white_stops[c]));
    if (largest > kWhiteStart)
        state->white_moving = true;
    if (!state->white_moving)
        return;
    if (largest < kWhiteRest) {
        state->white_moving = false;
        return;
    }
    for (int c = 0; c < 3; ++c)
        state->white_stops[c] = std::clamp(state->white_stops[c] + kStep * (wanted[c] - state->white_stops[c]),
                                           -kWhiteRange, kWhiteRange);
}

} // namespace

void meter_scene(const SceneStats &scene, MeterState *state, IspSettings *settings)
{
    if (settings->exposure_mode != 1)
        meter_exposure(scene, state);
    if (settings->auto_white_balance != 0)
        meter_white(scene, state);
    settings->auto_exposure = gain_of(state->exposure_stops);
    for (int c = 0; c < 3; ++c)
        settings->auto_white[c] = gain_of(state->white_stops[c]);
}

} // namespace zsim::detail
