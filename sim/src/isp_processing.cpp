/*
 * isp_processing.cpp - the ISP's picture processing, applied to a view's
 * image when the settings change (never per frame): the image is built in
 * I420 at the view's size, processed with integer matrices and tables, and
 * converted to the view's format.
 *
 * Floating point is used only to fill the tables and matrices; every pixel
 * goes through integer arithmetic, as in the ISP's fixed-point pipeline.
 */
#include "isp_processing.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>

#include <linux/videodev2.h>

#include <libyuv.h>

#include "control_table.h"

namespace zsim::detail {
namespace {

constexpr uint32_t kTargetExposureUs = 10000; // manual time that matches the automatic exposure
constexpr uint32_t kMaxFactor = 16 * 256;     // light and gains are capped at 16x
constexpr int kQ = 12;                        // fraction bits of the matrices
// Denoise strengths up to this one only take noise away; stronger ones also
// smooth the picture, trading its finest detail, as a denoiser does.
constexpr int32_t kGentleDenoise = 5;
constexpr int32_t kStrongestDenoise = 10;

std::atomic<uint64_t> g_next_image_id{1};

uint16_t le16(const uint8_t *p) { return uint16_t(p[0] | p[1] << 8); }

int clamp_int(int value, int low, int high) { return std::min(std::max(value, low), high); }

// An I420 image being processed.
struct Planes {
    uint32_t width = 0, height = 0;
    std::vector<uint8_t> data;
    uint32_t half_width() const { return (width + 1) / 2; }
    uint32_t half_height() const { return (height + 1) / 2; }
    uint8_t *y() { return data.data(); }
    uint8_t *u() { return data.data() + size_t(width) * height; }
    uint8_t *v() { return u() + size_t(half_width()) * half_height(); }
    void allocate(uint32_t w, uint32_t h)
    {
        width = w;
        height = h;
        data.assign(size_t(w) * h + 2 * size_t(half_width()) * half_height(), 128);
    }
};

// The colour bars at the given size, as the sensor pattern paints them.
void bars_i420(uint32_t width, uint32_t height, Planes *out)
{
    const uint32_t w = width & ~1u ? width & ~1u : 2, h = height & ~1u ? height & ~1u : 2;
    std::vector<uint8_t> nv12(size_t(w) * h * 3 / 2);
    paint_background(nv12.data(), nv12.size(), ViewFormat{kNV12, w, h});
    Planes bars;
    bars.allocate(w, h);
    libyuv::NV12ToI420(nv12.data(), int(w), nv12.data() + size_t(w) * h, int(w), bars.y(), int(w), bars.u(),
                       int(bars.half_width()), bars.v(), int(bars.half_width()), int(w), int(h));
    if (w == width && h == height) {
        *out = std::move(bars);
        return;
    }
    out->allocate(width, height);
    libyuv::I420Scale(bars.y(), int(w), bars.u(), int(bars.half_width()), bars.v(), int(bars.half_width()), int(w),
                      int(h), out->y(), int(width), out->u(), int(out->half_width()), out->v(),
                      int(out->half_width()), int(width), int(height), libyuv::kFilterBilinear);
}

// Scales the rectangle (x, y, w, h) of src (x and y even) to dst's size.
void scale_rect(Planes &src, uint32_t x, uint32_t y, uint32_t w, uint32_t h, Planes *dst)
{
    const int hw = int(src.half_width());
    const size_t c = size_t(y / 2) * size_t(hw) + x / 2;
    libyuv::I420Scale(src.y() + size_t(y) * src.width + x, int(src.width), src.u() + c, hw, src.v() + c, hw,
                      int(w), int(h), dst->y(), int(dst->width), dst->u(), int(dst->half_width()), dst->v(),
                      int(dst->half_width()), int(dst->width), int(dst->height), libyuv::kFilterBilinear);
}

void scene_i420(const ViewRecipe &recipe, uint32_t width, uint32_t height, Planes *out)
{
    if (!recipe.scene || recipe.scene->frames.empty()) {
        bars_i420(width, height, out);
        return;
    }
    const SceneFrame &frame = recipe.scene->frames[recipe.scene_frame % recipe.scene->frames.size()];
    const int hw = int((frame.width + 1) / 2);
    out->allocate(width, height);
    libyuv::I420Scale(frame.y(), int(frame.width), frame.u(), hw, frame.v(), hw, int(frame.width),
                      int(frame.height), out->y(), int(width), out->u(), int(out->half_width()), out->v(),
                      int(out->half_width()), int(width), int(height), libyuv::kFilterBilinear);
}

// View 1's resize: the first crop of the view's image, scaled, then the
// second crop of the scaled image. Crops reaching past their image are
// clipped to it; edges are taken even, as the 4:2:0 formats need.
void resize_view(const ResizeRecord &resize, Planes &source, Planes *out)
{
    const uint16_t *r = resize.words;
    const uint32_t left = std::min<uint32_t>(r[2], source.width) & ~1u;
    const uint32_t top = std::min<uint32_t>(r[0], source.height) & ~1u;
    const uint32_t right = std::min<uint32_t>(r[3], source.width), bottom = std::min<uint32_t>(r[1], source.height);
    Planes scaled;
    scaled.allocate(std::max<uint32_t>(r[8], 2), std::max<uint32_t>(r[9], 2));
    if (right > left + 1 && bottom > top + 1)
        scale_rect(source, left, top, (right - left) & ~1u, (bottom - top) & ~1u, &scaled);
    out->allocate(resize.out_width(), resize.out_height());
    const uint32_t x = std::min<uint32_t>(r[6], scaled.width) & ~1u, y = std::min<uint32_t>(r[4], scaled.height) & ~1u;
    const uint32_t w = std::min(out->width, scaled.width - x), h = std::min(out->height, scaled.height - y);
    libyuv::I420Rect(out->y(), int(out->width), out->u(), int(out->half_width()), out->v(), int(out->half_width()), 0,
                     0, int(out->width), int(out->height), 16, 128, 128);
    for (uint32_t row = 0; row < h; ++row)
        memcpy(out->y() + size_t(row) * out->width, scaled.y() + size_t(y + row) * scaled.width + x, w);
    for (uint32_t row = 0; row < (h + 1) / 2; ++row) {
        const size_t from = size_t(y / 2 + row) * scaled.half_width() + x / 2, to = size_t(row) * out->half_width();
        memcpy(out->u() + to, scaled.u() + from, (w + 1) / 2);
        memcpy(out->v() + to, scaled.v() + from, (w + 1) / 2);
    }
}

// Exposure and white balance act on light, that is on R, G and B; in the
// YUV domain that is one 3 x 3 matrix on (Y - 16, U - 128, V - 128).
void light_matrix(const IspSettings &settings, int m[3][3])
{
    uint32_t gains[3];
    white_balance_gains(settings, gains);
    const double exposure = exposure_factor(settings) / 256.0;
    static const double to_rgb[3][3] = {{1.164, 0, 1.596}, {1.164, -0.392, -0.813}, {1.164, 2.017, 0}};
    static const double to_yuv[3][3] = {{0.257, 0.504, 0.098}, {-0.148, -0.291, 0.439}, {0.439, -0.368, -0.071}};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) {
            double sum = 0;
            for (int k = 0; k < 3; ++k)
                sum += to_yuv[i][k] * exposure * gains[k] / 256.0 * to_rgb[k][j];
            m[i][j] = int(std::lround(sum * (1 << kQ)));
        }
}

void apply_light(const IspSettings &settings, Planes *p)
{
    int m[3][3];
    light_matrix(settings, m);
    const uint32_t hw = p->half_width();
    for (uint32_t cy = 0; cy < p->half_height(); ++cy) {
        for (uint32_t cx = 0; cx < hw; ++cx) {
            const size_t c = size_t(cy) * hw + cx;
            const int u = p->u()[c] - 128, v = p->v()[c] - 128;
            int sum = 0, count = 0;
            for (uint32_t dy = 0; dy < 2 && cy * 2 + dy < p->height; ++dy)
                for (uint32_t dx = 0; dx < 2 && cx * 2 + dx < p->width; ++dx) {
                    uint8_t &y = p->y()[size_t(cy * 2 + dy) * p->width + cx * 2 + dx];
                    const int l = y - 16;
                    sum += l;
                    ++count;
                    y = uint8_t(clamp_int(16 + ((m[0][0] * l + m[0][1] * u + m[0][2] * v) >> kQ), 16, 235));
                }
            const int l = sum / std::max(count, 1);
            p->u()[c] = uint8_t(clamp_int(128 + ((m[1][0] * l + m[1][1] * u + m[1][2] * v) >> kQ), 16, 240));
            p->v()[c] = uint8_t(clamp_int(128 + ((m[2][0] * l + m[2][1] * u + m[2][2] * v) >> kQ), 16, 240));
        }
    }
}

// Gamma, then contrast about mid-grey, then brightness as an offset: one
// table on luma. Gamma 100 is 1.0; larger values lift the mid-tones.
void luma_table(const IspSettings &settings, uint8_t table[256])
{
    const double gamma = std::min(std::max(settings.gamma, 10), 1000) / 100.0;
    for (int in = 0; in < 256; ++in) {
        const double t = (clamp_int(in, 16, 235) - 16) / 219.0;
        const double lifted = 16 + 219 * std::pow(t, 1 / gamma);
        const double contrasted = 128 + (lifted - 128) * settings.contrast / 128.0;
        table[in] = uint8_t(clamp_int(int(std::lround(contrasted)) + settings.brightness - 128, 16, 235));
    }
}

// Saturation scales the chroma vector, hue turns it: 0 is -180 degrees,
// 128 none, 255 +178.6 degrees.
void apply_chroma(const IspSettings &settings, Planes *p)
{
    const double angle = (settings.hue - 128) * M_PI / 128.0, gain = settings.saturation / 128.0;
    const int c = int(std::lround(std::cos(angle) * gain * (1 << kQ)));
    const int s = int(std::lround(std::sin(angle) * gain * (1 << kQ)));
    const size_t count = size_t(p->half_width()) * p->half_height();
    for (size_t i = 0; i < count; ++i) {
        const int u = p->u()[i] - 128, v = p->v()[i] - 128;
        p->u()[i] = uint8_t(clamp_int(128 + ((c * u - s * v) >> kQ), 16, 240));
        p->v()[i] = uint8_t(clamp_int(128 + ((s * u + c * v) >> kQ), 16, 240));
    }
}

// out = in + weight x (smoothed - in) on one plane, smoothed with the
// 5-tap binomial filter [1 4 6 4 1] / 16 across and down (edges repeated);
// weight in 1/256.
void smooth_plane(uint8_t *plane, uint32_t width, uint32_t height, int weight)
{
    if (width < 1 || height < 1 || weight <= 0)
        return;
    const std::vector<uint8_t> in(plane, plane + size_t(width) * height);
    std::vector<uint16_t> across(in.size());
    auto at = [](uint32_t i, int d, uint32_t n) { return uint32_t(std::clamp(int(i) + d, 0, int(n) - 1)); };
    for (uint32_t y = 0; y < height; ++y) {
        const uint8_t *row = in.data() + size_t(y) * width;
        for (uint32_t x = 0; x < width; ++x)
            across[size_t(y) * width + x] = uint16_t(row[at(x, -2, width)] + 4 * row[at(x, -1, width)] + 6 * row[x] +
                                                     4 * row[at(x, 1, width)] + row[at(x, 2, width)]);
    }
    for (uint32_t y = 0; y < height; ++y)
        for (uint32_t x = 0; x < width; ++x) {
            auto column = [&](int d) { return int(across[size_t(at(y, d, height)) * width + x]); };
            const int smoothed = (column(-2) + 4 * column(-1) + 6 * column(0) + 4 * column(1) + column(2) + 128) >> 8;
            const size_t i = size_t(y) * width + x;
            plane[i] = uint8_t(in[i] + (((smoothed - int(in[i])) * weight + 128) >> 8));
        }
}

// Denoise above the gentle strengths smooths luma (luma strength) and
// chroma (chroma strength), fully at the strongest.
void apply_denoise(const IspSettings &settings, Planes *p)
{
    auto weight = [](int32_t strength) {
        return (std::clamp(strength, kGentleDenoise, kStrongestDenoise) - kGentleDenoise) * 256 /
               (kStrongestDenoise - kGentleDenoise);
    };
    smooth_plane(p->y(), p->width, p->height, weight(settings.luma_denoise));
    smooth_plane(p->u(), p->half_width(), p->half_height(), weight(settings.chroma_denoise));
    smooth_plane(p->v(), p->half_width(), p->half_height(), weight(settings.chroma_denoise));
}

// Sharpness 5 leaves luma alone; above it adds the difference from the four
// neighbours' mean (an unsharp mask), below it blends towards that mean.
void apply_sharpness(const IspSettings &settings, Planes *p)
{
    const int strength = clamp_int(settings.sharpness, 0, 10) - 5;
    if (strength == 0 || p->width < 3 || p->height < 3)
        return;
    const std::vector<uint8_t> y(p->y(), p->y() + size_t(p->width) * p->height);
    const size_t w = p->width;
    for (uint32_t row = 1; row + 1 < p->height; ++row)
        for (uint32_t x = 1; x + 1 < p->width; ++x) {
            const size_t at = row * w + x;
            const int around = y[at - 1] + y[at + 1] + y[at - w] + y[at + w];
            const int detail = 4 * y[at] - around; // 4 x (pixel - mean of neighbours)
            p->y()[at] = uint8_t(clamp_int(y[at] + strength * detail / 16, 16, 235));
        }
}

void to_format(Planes &p, const ViewFormat &format, std::vector<uint8_t> *bytes)
{
    bytes->assign(image_size(format), 0);
    uint8_t *out = bytes->data();
    const int w = int(format.width), h = int(format.height), hw = int(p.half_width());
    switch (format.fourcc) {
    case kNV12:
        libyuv::I420ToNV12(p.y(), w, p.u(), hw, p.v(), hw, out, w, out + size_t(w) * h, w, w, h);
        break;
    case kNV21:
        libyuv::I420ToNV21(p.y(), w, p.u(), hw, p.v(), hw, out, w, out + size_t(w) * h, w, w, h);
        break;
    case kYUYV:
        libyuv::I420ToYUY2(p.y(), w, p.u(), hw, p.v(), hw, out, w * 2, w, h);
        break;
    case kRGB24:
        // R, G, B in memory, which libyuv calls RAW.
        libyuv::I420ToRAW(p.y(), w, p.u(), hw, p.v(), hw, out, w * 3, w, h);
        break;
    case kGREY:
        memcpy(out, p.y(), size_t(w) * h);
        break;
    default:
        break;
    }
}

} // namespace

bool IspSettings::operator==(const IspSettings &o) const
{
    return brightness == o.brightness && contrast == o.contrast && saturation == o.saturation && hue == o.hue &&
           gamma == o.gamma && sharpness == o.sharpness && auto_white_balance == o.auto_white_balance &&
           exposure_mode == o.exposure_mode && luma_denoise == o.luma_denoise &&
           chroma_denoise == o.chroma_denoise && wb_flag == o.wb_flag &&
           std::equal(wb_gain, wb_gain + 3, o.wb_gain) && std::equal(exposure, exposure + 6, o.exposure) &&
           auto_exposure == o.auto_exposure && std::equal(auto_white, auto_white + 3, o.auto_white);
}

IspSettings read_isp_settings(int camera)
{
    IspSettings s;
    const struct {
        uint32_t id;
        int32_t *value;
    } values[] = {
        {V4L2_CID_BRIGHTNESS, &s.brightness},         {V4L2_CID_CONTRAST, &s.contrast},     {V4L2_CID_SATURATION, &s.saturation},
        {V4L2_CID_HUE, &s.hue},                {V4L2_CID_GAMMA, &s.gamma},        {V4L2_CID_SHARPNESS, &s.sharpness},
        {V4L2_CID_AUTO_WHITE_BALANCE, &s.auto_white_balance}, {V4L2_CID_EXPOSURE_AUTO, &s.exposure_mode}, {kCidLumaDenoise, &s.luma_denoise},
        {kCidChromaDenoise, &s.chroma_denoise},
    };
    for (const auto &each : values)
        control_value(camera, each.id, each.value);
    const std::vector<uint8_t> wb = manual_payload(camera, kCidManualWhiteBalance);
    const std::vector<uint8_t> ec = manual_payload(camera, kCidManualExposure);
    s.wb_flag = uint32_t(wb[0] | wb[1] << 8 | wb[2] << 16 | uint32_t(wb[3]) << 24);
    for (int i = 0; i < 3; ++i)
        s.wb_gain[i] = le16(&wb[16 + 2 * i]);
    for (int i = 0; i < 6; ++i)
        s.exposure[i] = le16(&ec[4 + 2 * i]);
    return s;
}

uint32_t exposure_factor(const IspSettings &settings)
{
    if (settings.exposure_mode != 1)
        return settings.auto_exposure; // automatic (or a priority mode): the metering loop's
    const uint64_t time = settings.exposure[0] ? settings.exposure[0] : kTargetExposureUs;
    const uint64_t gain = settings.exposure[1] ? settings.exposure[1] : 256;
    return uint32_t(std::min<uint64_t>(time * gain / kTargetExposureUs, kMaxFactor));
}

void white_balance_gains(const IspSettings &settings, uint32_t gains[3])
{
    const bool manual = settings.auto_white_balance == 0 && settings.wb_flag != 0;
    for (int i = 0; i < 3; ++i)
        gains[i] = settings.auto_white_balance != 0 ? settings.auto_white[i]
                   : manual                         ? std::min<uint32_t>(settings.wb_gain[i], kMaxFactor)
                                                    : 256;
}

bool neutral_picture(const IspSettings &settings)
{
    uint32_t gains[3];
    white_balance_gains(settings, gains);
    return settings.brightness == 128 && settings.contrast == 128 && settings.saturation == 128 &&
           settings.hue == 128 && settings.gamma == 100 && settings.sharpness == 5 && gains[0] == 256 &&
           gains[1] == 256 && gains[2] == 256 && exposure_factor(settings) == 256 &&
           settings.luma_denoise <= kGentleDenoise && settings.chroma_denoise <= kGentleDenoise;
}

std::shared_ptr<ViewImage> build_view_image(const ViewRecipe &recipe)
{
    auto image = std::make_shared<ViewImage>();
    image->format = recipe.format;
    image->id = g_next_image_id.fetch_add(1);
    const ViewFormat &format = recipe.format;
    if (image_size(format) == 0 || format.width == 0 || format.height == 0)
        return image;
    const bool neutral = neutral_picture(recipe.settings);
    if (neutral && !recipe.scene && !recipe.resize.active) {
        image->bars = !recipe.keep_bytes;
        if (recipe.keep_bytes) {
            image->bytes.assign(image_size(format), 0);
            paint_background(image->bytes.data(), image->bytes.size(), format);
        }
        return image;
    }
    Planes p;
    if (recipe.resize.active) {
        Planes source;
        scene_i420(recipe, recipe.before_resize.width, recipe.before_resize.height, &source);
        resize_view(recipe.resize, source, &p);
        if (p.width != format.width || p.height != format.height) {
            Planes fitted;
            fitted.allocate(format.width, format.height);
            scale_rect(p, 0, 0, p.width, p.height, &fitted);
            p = std::move(fitted);
        }
    } else {
        scene_i420(recipe, format.width, format.height, &p);
    }
    if (!neutral) {
        uint32_t gains[3];
        white_balance_gains(recipe.settings, gains);
        if (exposure_factor(recipe.settings) != 256 || gains[0] != 256 || gains[1] != 256 || gains[2] != 256)
            apply_light(recipe.settings, &p);
        apply_denoise(recipe.settings, &p);
        uint8_t table[256];
        luma_table(recipe.settings, table);
        const size_t luma = size_t(p.width) * p.height;
        for (size_t i = 0; i < luma; ++i)
            p.y()[i] = table[p.y()[i]];
        if (recipe.settings.saturation != 128 || recipe.settings.hue != 128)
            apply_chroma(recipe.settings, &p);
        apply_sharpness(recipe.settings, &p);
    }
    to_format(p, format, &image->bytes);
    return image;
}

const SceneStats &bars_stats()
{
    static const SceneStats *const stats = [] {
        Planes bars;
        bars_i420(320, 180, &bars);
        return new SceneStats(measure_scene(bars.y(), bars.u(), bars.v(), bars.width, bars.height));
    }();
    return *stats;
}

} // namespace zsim::detail
