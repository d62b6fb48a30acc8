// The simulated sensor's test pattern: the frame number read back in every
// format, after conversion to RGB and from a streamed buffer, and the
// per-frame update staying small.
#include <sys/mman.h>

#include <algorithm>
#include <vector>

#include "../../sim/src/sim_internal.h"
#include "sim_fixture.h"
#include "video_test_node.h"

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

TEST(PatternTest, FrameNumberReadsBackInEveryFormatAndAfterConversion)
{
    for (uint32_t fourcc : kFormats) {
        for (const ViewFormat format : {ViewFormat{fourcc, 1920, 1080}, ViewFormat{fourcc, 96, 64}}) {
            std::vector<uint8_t> plane = Background(format);
            uint32_t sequence = 77;
            EXPECT_FALSE(read_frame_number(plane.data(), plane.size(), format, &sequence));
            for (uint32_t number : {0u, 0x80000000u, 0xFFFFFFFFu, 123456789u}) {
                paint_frame(plane.data(), plane.size(), format, number);
                ASSERT_TRUE(read_frame_number(plane.data(), plane.size(), format, &sequence)) << std::hex << fourcc;
                EXPECT_EQ(sequence, number);
            }
        }
    }
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
    // Too small to carry a number, or a plane shorter than the image: untouched.
    const ViewFormat tiny = {zsim::kNV12, 32, 16};
    std::vector<uint8_t> plane = Background(tiny);
    const std::vector<uint8_t> before = plane;
    paint_frame(plane.data(), plane.size(), tiny, 5);
    EXPECT_EQ(plane, before);
    const ViewFormat grey = {zsim::kGREY, 320, 240};
    std::vector<uint8_t> short_plane(image_size(grey) - 1, 0x42);
    paint_background(short_plane.data(), short_plane.size(), grey);
    EXPECT_EQ(short_plane, std::vector<uint8_t>(short_plane.size(), 0x42));
}

// A buffer that knows where its block stood gets the background back there
// only, and still matches a buffer painted afresh, frame after frame, over
// the colour bars and over a processed image alike, whether the block moved
// by a little (overlapping its old place) or jumped.
TEST(PatternTest, ATrackedBlockRestoresOnlyItsOldPlace)
{
    for (uint32_t fourcc : kFormats) {
        const ViewFormat format = {fourcc, 1282, 722};
        std::vector<uint8_t> image = Background(format);
        for (size_t i = 0; i < image.size(); ++i)
            image[i] = uint8_t(image[i] ^ (i * 7 >> 5)); // any picture will do
        for (const uint8_t *background : {static_cast<const uint8_t *>(nullptr), static_cast<const uint8_t *>(image.data())}) {
            std::vector<uint8_t> reused = background ? image : Background(format);
            uint32_t block = zsim::detail::kBandClean;
            for (uint32_t sequence : {1000u, 1001u, 1004u, 1040u, 1041u, 7u, 123456u}) {
                paint_frame(reused.data(), reused.size(), format, sequence, background, &block);
                std::vector<uint8_t> fresh = background ? image : Background(format);
                paint_frame(fresh.data(), fresh.size(), format, sequence, background);
                ASSERT_TRUE(reused == fresh) << std::hex << fourcc << std::dec << " frame " << sequence;
            }
        }
    }
}

// The strip and the band are painted by whole rows; the bytes are those the
// cell-by-cell painter wrote (its FNV-1a digests over five frame numbers,
// recorded before the change), for every format and odd-sized images too.
TEST(PatternTest, RowPaintingKeepsTheImageByteForByte)
{
    const struct {
        ViewFormat format;
        uint64_t digest;
    } cases[] = {
        {{zsim::kNV12, 640, 360}, 0xc4c84b83950bc6f3ull},
        {{zsim::kNV12, 96, 64}, 0x2ca1ae5d55674c49ull},
        {{zsim::kNV12, 98, 14}, 0xdcdf87fd41d571dbull},
        {{zsim::kNV12, 1282, 722}, 0xbb6940961ca1cdc3ull},
        {{zsim::kNV21, 640, 360}, 0x032cdf8f0b3497b3ull},
        {{zsim::kNV21, 96, 64}, 0x1335cd6a44971821ull},
        {{zsim::kNV21, 98, 14}, 0x0bb59c026e8d1b9bull},
        {{zsim::kNV21, 1282, 722}, 0xb797503a49fad003ull},
        {{zsim::kYUYV, 640, 360}, 0x0b38c509979219a3ull},
        {{zsim::kYUYV, 96, 64}, 0xf7fd2809a79fe4e3ull},
        {{zsim::kYUYV, 98, 14}, 0xa84c2e36976ced03ull},
        {{zsim::kYUYV, 1282, 722}, 0xc4150a4bd92cb923ull},
        {{zsim::kRGB24, 640, 360}, 0xdfd6d29006d23943ull},
        {{zsim::kRGB24, 96, 64}, 0xd50f4bc69dde408full},
        {{zsim::kRGB24, 98, 14}, 0x4c7229e04e7b5ec3ull},
        {{zsim::kRGB24, 1282, 722}, 0x6b59bd00b752bfabull},
        {{zsim::kGREY, 640, 360}, 0x9cc7a20297a86d13ull},
        {{zsim::kGREY, 96, 64}, 0x8ecc46947ddf4acbull},
        {{zsim::kGREY, 98, 14}, 0x3173b042bf50def3ull},
        {{zsim::kGREY, 1282, 722}, 0xb4ffb16ce22f3f2bull},
    };
    for (const auto &each : cases) {
        std::vector<uint8_t> plane = Background(each.format);
        uint64_t digest = 1469598103934665603ull;
        for (uint32_t number : {0u, 1u, 77u, 123456789u, 0xFFFFFFFFu}) {
            paint_frame(plane.data(), plane.size(), each.format, number);
            for (uint8_t byte : plane)
                digest = (digest ^ byte) * 1099511628211ull;
        }
        EXPECT_EQ(digest, each.digest) << std::hex << each.format.fourcc << std::dec << " " << each.format.width
                                       << "x" << each.format.height;
    }
}

class PatternStreamedTest : public zelisp_test::SimTest {};

TEST_F(PatternStreamedTest, EveryPlaneCarriesTheFrameNumberInItsViewsFormat)
{
    zsim::CameraConfig config;
    config.views[0] = {zsim::kYUYV, 640, 360};
    config.views[1] = {zsim::kRGB24, 320, 240};
    config.views[2] = {zsim::kGREY, 320, 240};
    zsim::set_camera(1, config);
    zsim::set_frame_mode(1, zsim::FrameMode::Scripted);
    zelisp_test::VideoNode node("/dev/video1");
    uint32_t count = 1;
    ASSERT_EQ(node.RequestBuffers(&count), 0);
    zelisp_test::BufferRecord record;
    ASSERT_EQ(node.Request(VIDIOC_QUERYBUF, &record.buf), 0);
    ASSERT_EQ(record.buf.length, 3u);
    void *planes[3];
    for (int j = 0; j < 3; ++j) {
        planes[j] = mmap(nullptr, record.plane[j].length, PROT_READ, MAP_SHARED, node.fd(), record.plane[j].m.mem_offset);
        ASSERT_NE(planes[j], MAP_FAILED);
    }
    ASSERT_EQ(node.Request(VIDIOC_QBUF, &record.buf), 0);
    ASSERT_EQ(node.Stream(VIDIOC_STREAMON), 0);
    zsim::ScriptedFrame frame;
    frame.sequence = 0x00C0FFEE;
    frame.paint = true;
    zsim::push_frame(1, frame);
    zelisp_test::BufferRecord filled;
    ASSERT_EQ(node.Request(VIDIOC_DQBUF, &filled.buf), 0);
    for (int j = 0; j < 3; ++j) {
        uint32_t sequence = 0;
        EXPECT_TRUE(read_frame_number(static_cast<const uint8_t *>(planes[j]), record.plane[j].length,
                                      config.views[j], &sequence));
        EXPECT_EQ(sequence, 0x00C0FFEEu) << "plane " << j;
        munmap(planes[j], record.plane[j].length);
    }
}

} // namespace
