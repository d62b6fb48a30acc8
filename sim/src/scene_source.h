/*
 * scene_source.h - a camera's scene from a file: a Y4M video, a PNG or JPEG
 * still, or a folder of stills, decoded once into 4:2:0 frames that the
 * ISP model scales to each view.
 */
#ifndef ZELISP_SIM_SCENE_SOURCE_H
#define ZELISP_SIM_SCENE_SOURCE_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace zsim::detail {

// What the ISP's meters read of a frame, as the sensor delivers it: how
// many of its pixels have each luma code, and the mean of red, green and
// blue (BT.601, limited range, 0..255 full scale).
struct SceneStats {
    uint64_t luma[256] = {};
    uint64_t pixels = 0;
    double red = 0, green = 0, blue = 0;
};

// The statistics of an I420 image (chroma planes (width + 1) / 2 wide).
SceneStats measure_scene(const uint8_t *y, const uint8_t *u, const uint8_t *v, uint32_t width, uint32_t height);

// One frame in I420: Y (width x height), then U and V ((width + 1) / 2 x
// (height + 1) / 2 each), BT.601 limited range as the ISP's output.
struct SceneFrame {
    uint32_t width = 0;
    uint32_t height = 0;
    std::vector<uint8_t> i420;
    SceneStats stats; // measured once, when the scene is decoded
    const uint8_t *y() const { return i420.data(); }
    const uint8_t *u() const { return i420.data() + size_t(width) * height; }
    const uint8_t *v() const { return u() + size_t((width + 1) / 2) * ((height + 1) / 2); }
};

struct Scene {
    std::string path;
    std::vector<SceneFrame> frames; // played one per camera frame, looped
};

// Decodes the source at path (cached: a second load of the same path
// returns the same scene). Returns null with *error set, without the path,
// when the source is missing, unreadable, of an unknown format or too large.
std::shared_ptr<const Scene> load_scene(const std::string &path, std::string *error);

} // namespace zsim::detail

#endif
