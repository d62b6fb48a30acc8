// The simulated sensor's test pattern: sizes per format, the frame number
// read back in every format and after conversion to RGB, and the per-frame
// update staying small.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "../../sim/src/sim_internal.h"

namespace {

using zsim::ViewFormat;
using zsim::detail::image_size;
using zsim::detail::paint_background;
using zsim::detail::paint_frame;
using zsim::detail::read_frame_number;

const uint32_t kFormats[] = {zsim::kNV12, zsim::kNV21, zsim::kYUYV, zsim::kRGB24, zsim::kGREY};

std::vector<uint8_t> Background(const ViewFormat &format)
{
    std::vector<uint8_t> plane(image_size(format), 0);
    paint_background(plane.data(), plane.size(), format);
    return plane;
}

uint8_t Clamp(int value) { return uint8_t(std::clamp(value, 0, 255)); }

// BT.601 limited-range NV12 to full-range RGB24, as a viewer converts it.
std::vector<uint8_t> Nv12ToRgb(const std::vector<uint8_t> &nv12, uint32_t width, uint32_t height)
{
    std::vector<uint8_t> rgb(size_t(width) * height * 3);
    const uint8_t *chroma = nv12.data() + size_t(width) * height;
    for (uint32_t y = 0; y < height; ++y) {
        for (uint32_t x = 0; x < width; ++x) {
            const int c = 298 * (nv12[size_t(y) * width + x] - 16);
            const int u = chroma[(y / 2) * width + (x & ~1u)] - 128;
            const int v = chroma[(y / 2) * width + (x & ~1u) + 1] - 128;
            uint8_t *out = &rgb[(size_t(y) * width + x) * 3];
            out[0] = Clamp((c + 409 * v + 128) >> 8);
            out[1] = Clamp((c - 100 * u - 208 * v + 128) >> 8);
            out[2] = Clamp((c + 516 * u + 128) >> 8);
        }
    }
    return rgb;
}

TEST(PatternTest, ImageSizesFollowTheFormats)
{
    EXPECT_EQ(image_size({zsim::kNV12, 1920, 1080}), 1920u * 1080 * 3 / 2);
    EXPECT_EQ(image_size({zsim::kNV21, 640, 360}), 640u * 360 * 3 / 2);
    EXPECT_EQ(image_size({zsim::kYUYV, 640, 360}), 640u * 360 * 2);
    EXPECT_EQ(image_size({zsim::kRGB24, 640, 360}), 640u * 360 * 3);
    EXPECT_EQ(image_size({zsim::kGREY, 640, 360}), 640u * 360);
    EXPECT_EQ(image_size({zsim::fourcc('M', 'J', 'P', 'G'), 640, 360}), 0u);
}

TEST(PatternTest, FrameNumberReadsBackInEveryFormat)
{
    for (uint32_t fourcc : kFormats) {
        for (const ViewFormat format : {ViewFormat{fourcc, 1920, 1080}, ViewFormat{fourcc, 320, 240},
                                        ViewFormat{fourcc, 96, 64}}) {
            std::vector<uint8_t> plane = Background(format);
            uint32_t sequence = 77;
            EXPECT_FALSE(read_frame_number(plane.data(), plane.size(), format, &sequence));
            for (uint32_t number : {0u, 1u, 0x80000000u, 0xFFFFFFFFu, 123456789u}) {
                paint_frame(plane.data(), plane.size(), format, number);
                ASSERT_TRUE(read_frame_number(plane.data(), plane.size(), format, &sequence))
                    << std::hex << fourcc << " " << format.width;
                EXPECT_EQ(sequence, number);
            }
        }
    }
}

TEST(PatternTest, FrameNumberSurvivesConversionToRgb)
{
    const ViewFormat nv12 = {zsim::kNV12, 640, 360};
    std::vector<uint8_t> plane = Background(nv12);
    paint_frame(plane.data(), plane.size(), nv12, 0xA5C3F00Fu);
    const std::vector<uint8_t> rgb = Nv12ToRgb(plane, 640, 360);
    uint32_t sequence = 0;
    ASSERT_TRUE(read_frame_number(rgb.data(), rgb.size(), {zsim::kRGB24, 640, 360}, &sequence));
    EXPECT_EQ(sequence, 0xA5C3F00Fu);
}

TEST(PatternTest, EachFrameRepaintsOnlyASmallRegionAndForgetsTheLastOne)
{
    for (uint32_t fourcc : kFormats) {
        const ViewFormat format = {fourcc, 1920, 1080};
        const std::vector<uint8_t> background = Background(format);
        std::vector<uint8_t> reused = background;
        paint_frame(reused.data(), reused.size(), format, 1000);
        size_t changed = 0;
        for (size_t i = 0; i < reused.size(); ++i)
            changed += reused[i] != background[i];
        EXPECT_GT(changed, 0u);
        EXPECT_LT(changed, reused.size() / 10);

        // A buffer that carried an older frame looks exactly like a fresh one.
        paint_frame(reused.data(), reused.size(), format, 1001);
        std::vector<uint8_t> fresh = background;
        paint_frame(fresh.data(), fresh.size(), format, 1001);
        EXPECT_TRUE(reused == fresh) << std::hex << fourcc;
    }
}

TEST(PatternTest, PlanesTooSmallAreLeftAlone)
{
    const ViewFormat tiny = {zsim::kNV12, 32, 16};
    std::vector<uint8_t> plane = Background(tiny);
    const std::vector<uint8_t> before = plane;
    paint_frame(plane.data(), plane.size(), tiny, 5);
    EXPECT_EQ(plane, before);
    EXPECT_FALSE(read_frame_number(plane.data(), plane.size(), tiny, nullptr));

    const ViewFormat format = {zsim::kGREY, 320, 240};
    std::vector<uint8_t> short_plane(image_size(format) - 1, 0x42);
    paint_background(short_plane.data(), short_plane.size(), format);
    paint_frame(short_plane.data(), short_plane.size(), format, 5);
    EXPECT_EQ(std::count(short_plane.begin(), short_plane.end(), 0x42), long(short_plane.size()));
}

} // namespace
