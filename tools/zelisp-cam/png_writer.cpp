// png_writer.cpp - colour conversion and PNG encoding of a view.
#include "png_writer.h"

#include <png.h>

#include <cstring>

#include <libyuv/convert_argb.h>
#include <libyuv/convert_from_argb.h>

namespace zcam {

std::string to_rgb(const ViewImage &image, RgbImage *rgb)
{
    if (image.data == nullptr)
        return "the view's plane is not mapped";
    if (!image.complete)
        return "no PNG conversion for a " + describe(image.format) + " view of " + std::to_string(image.bytes) +
               " bytes";
    const int width = int(image.format.width);
    const int height = int(image.format.height);
    const uint8_t *src = image.data;
    rgb->width = image.format.width;
    rgb->height = image.format.height;
    // Every conversion below writes every byte: no clearing, and a buffer
    // reused for the same size is not reallocated.
    rgb->pixels.resize(size_t(width) * height * 3);
    uint8_t *dst = rgb->pixels.data();
    const int stride = width * 3;
    const uint8_t *chroma = src + size_t(width) * height;

    // libyuv names formats by their 32-bit word: its "RAW" is R, G, B in
    // memory, the byte order PNG wants.
    int err = 0;
    switch (image.format.format) {
    case kFourccNV12:
        err = libyuv::NV12ToRAW(src, width, chroma, width, dst, stride, width, height);
        break;
    case kFourccNV21:
        err = libyuv::NV21ToRAW(src, width, chroma, width, dst, stride, width, height);
        break;
    case kFourccYUYV: {
        std::vector<uint8_t> argb(size_t(width) * height * 4);
        err = libyuv::YUY2ToARGB(src, width * 2, argb.data(), width * 4, width, height);
        if (err == 0)
            err = libyuv::ARGBToRAW(argb.data(), width * 4, dst, stride, width, height);
        break;
    }
    case kFourccRGB24:
        memcpy(dst, src, rgb->pixels.size());
        break;
    case kFourccGREY:
        for (size_t i = 0; i < size_t(width) * height; ++i)
            dst[3 * i] = dst[3 * i + 1] = dst[3 * i + 2] = src[i];
        break;
    default:
        return "no PNG conversion for format " + fourcc_name(image.format.format) + " (use --format raw)";
    }
    return err == 0 ? "" : "colour conversion of " + describe(image.format) + " failed";
}

namespace {

// 8-bit RGB, written fast: previews are written while frames keep coming,
// and snapshots are served while the cameras run, so speed beats size.
png_image rgb_png(const RgbImage &rgb)
{
    png_image png;
    memset(&png, 0, sizeof png);
    png.version = PNG_IMAGE_VERSION;
    png.width = rgb.width;
    png.height = rgb.height;
    png.format = PNG_FORMAT_RGB;
    png.flags = PNG_IMAGE_FLAG_FAST;
    return png;
}

// libpng's reason, with its image freed after a failure.
std::string png_failure(png_image *png)
{
    std::string why = png->message;
    png_image_free(png);
    return why;
}

} // namespace

std::string write_png(const std::string &path, const RgbImage &rgb)
{
    png_image png = rgb_png(rgb);
    if (!png_image_write_to_file(&png, path.c_str(), 0, rgb.pixels.data(), png_int_32(rgb.width * 3), nullptr))
        return png_failure(&png);
    return "";
}

std::string encode_png(const RgbImage &rgb, std::string *png_bytes)
{
    png_image png = rgb_png(rgb);
    const png_int_32 stride = png_int_32(rgb.width * 3);
    // The first call measures, the second writes.
    png_alloc_size_t size = 0;
    if (!png_image_write_to_memory(&png, nullptr, &size, 0, rgb.pixels.data(), stride, nullptr))
        return png_failure(&png);
    png_bytes->resize(size);
    if (!png_image_write_to_memory(&png, png_bytes->data(), &size, 0, rgb.pixels.data(), stride, nullptr))
        return png_failure(&png);
    png_bytes->resize(size);
    return "";
}

} // namespace zcam
