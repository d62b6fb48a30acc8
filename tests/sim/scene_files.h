/*
 * scene_files.h - pictures written for the simulator's scene tests: a PNG
 * of any pixels, as a camera's `source`.
 */
#ifndef ZELISP_TESTS_SIM_SCENE_FILES_H
#define ZELISP_TESTS_SIM_SCENE_FILES_H

#include <png.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace zelisp_test {

struct Rgb {
    uint8_t r, g, b;
};

// Writes a width x height PNG whose pixel (x, y) is pixel(x, y); false on failure.
inline bool WritePngScene(const std::string &path, uint32_t width, uint32_t height,
                          const std::function<Rgb(uint32_t x, uint32_t y)> &pixel)
{
    std::vector<uint8_t> rgb;
    rgb.reserve(size_t(width) * height * 3);
    for (uint32_t y = 0; y < height; ++y)
        for (uint32_t x = 0; x < width; ++x) {
            const Rgb p = pixel(x, y);
            rgb.insert(rgb.end(), {p.r, p.g, p.b});
        }
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = width;
    image.height = height;
    image.format = PNG_FORMAT_RGB;
    return png_image_write_to_file(&image, path.c_str(), 0, rgb.data(), 0, nullptr) != 0;
}

} // namespace zelisp_test

#endif
