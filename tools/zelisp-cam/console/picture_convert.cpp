// picture_convert.cpp - scaling views to previews, and JPEG encoding.
#include "picture_convert.h"

#include <turbojpeg.h>

#include <cstring>
#include <memory>

#include <libyuv/convert_argb.h>
#include <libyuv/scale.h>
#include <libyuv/scale_argb.h>

namespace zcam {
namespace {

// A view that is first converted whole (packed formats) and then scaled.
std::string scale_argb(const std::vector<uint8_t> &argb, const ViewImage &image, PreviewImage *out)
{
    int err = libyuv::ARGBScale(argb.data(), int(image.format.width) * 4, int(image.format.width),
                                int(image.format.height), out->pixels.data(), int(out->width) * 4, int(out->width),
                                int(out->height), libyuv::kFilterBilinear);
    return err == 0 ? "" : "scaling " + describe(image.format) + " failed";
}

} // namespace

void preview_size(const zelvideo::_view_format_t &format, uint32_t max_width, uint32_t *width, uint32_t *height)
{
    uint32_t w = format.width <= max_width ? format.width : max_width;
    uint64_t h = format.width == 0 ? 0 : uint64_t(format.height) * w / format.width;
    *width = w < 2 ? 2 : w & ~1u;
    *height = h < 2 ? 2 : uint32_t(h) & ~1u;
}

std::string make_preview(const ViewImage &image, PreviewImage *out)
{
    if (image.data == nullptr)
        return "the view's plane is not mapped";
    if (!image.complete)
        return "no preview for a " + describe(image.format) + " view of " + std::to_string(image.bytes) + " bytes";
    const int sw = int(image.format.width), sh = int(image.format.height);
    const int dw = int(out->width), dh = int(out->height);
    const uint8_t *src = image.data;
    out->pixels.resize(size_t(dw) * dh * 4);
    uint8_t *dst = out->pixels.data();
    int err = 0;
    switch (image.format.format) {
    case kFourccNV12:
    case kFourccNV21: {
        // Scale the two planes first, so only the preview's pixels are converted.
        out->scratch.resize(size_t(dw) * dh * 3 / 2);
        uint8_t *y = out->scratch.data();
        uint8_t *uv = y + size_t(dw) * dh;
        const uint8_t *src_uv = src + size_t(sw) * sh;
        err = libyuv::NV12Scale(src, sw, src_uv, sw, sw, sh, y, dw, uv, dw, dw, dh, libyuv::kFilterBilinear);
        if (err == 0)
            err = image.format.format == kFourccNV12 ? libyuv::NV12ToARGB(y, dw, uv, dw, dst, dw * 4, dw, dh)
                                                     : libyuv::NV21ToARGB(y, dw, uv, dw, dst, dw * 4, dw, dh);
        break;
    }
    case kFourccGREY:
        out->scratch.resize(size_t(dw) * dh);
        libyuv::ScalePlane(src, sw, sw, sh, out->scratch.data(), dw, dw, dh, libyuv::kFilterBilinear);
        err = libyuv::I400ToARGB(out->scratch.data(), dw, dst, dw * 4, dw, dh);
        break;
    case kFourccYUYV:
    case kFourccRGB24: {
        std::vector<uint8_t> argb(size_t(sw) * sh * 4);
        err = image.format.format == kFourccYUYV ? libyuv::YUY2ToARGB(src, sw * 2, argb.data(), sw * 4, sw, sh)
                                                 : libyuv::RAWToARGB(src, sw * 3, argb.data(), sw * 4, sw, sh);
        if (err == 0)
            return scale_argb(argb, image, out);
        break;
    }
    default:
        return "no preview for format " + fourcc_name(image.format.format);
    }
    return err == 0 ? "" : "converting " + describe(image.format) + " failed";
}

std::string encode_jpeg(const PreviewImage &image, int quality, std::string *jpeg)
{
    // One compressor per picture worker.
    thread_local std::unique_ptr<void, int (*)(tjhandle)> compressor(tjInitCompress(), tjDestroy);
    if (!compressor)
        return "the JPEG encoder could not start";
    unsigned char *buffer = nullptr;
    unsigned long size = 0;
    if (tjCompress2(compressor.get(), image.pixels.data(), int(image.width), int(image.width) * 4,
                    int(image.height), TJPF_BGRX, &buffer, &size, TJSAMP_420, quality, TJFLAG_FASTDCT) != 0) {
        std::string why = tjGetErrorStr2(compressor.get());
        tjFree(buffer);
        return why;
    }
    jpeg->assign(reinterpret_cast<const char *>(buffer), size);
    tjFree(buffer);
    return "";
}

} // namespace zcam
