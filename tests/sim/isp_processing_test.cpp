// The ISP's processing as a client sees it: each control's effect measured
// on captured frames, view 1's resize, sensor noise against the denoise
// strengths, and the frame number readable on top of all of it.
#include <linux/videodev2.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <memory>
#include <vector>

#include "../../sim/src/sim_internal.h"
#include "../../src/driver/isp_requests.h"
#include "../support/isp_payload.h"
#include "scene_files.h"
#include "sim_fixture.h"
#include "video_test_node.h"

namespace {

using zelisp_test::BufferRecord;
using zelisp_test::VideoNode;
using zsim::ViewFormat;

constexpr uint32_t kBrightness = V4L2_CID_BRIGHTNESS, kContrast = V4L2_CID_CONTRAST,
                   kSaturation = V4L2_CID_SATURATION, kHue = V4L2_CID_HUE,
                   kAutoWhiteBalance = V4L2_CID_AUTO_WHITE_BALANCE, kGamma = V4L2_CID_GAMMA,
                   kSharpness = V4L2_CID_SHARPNESS, kExposureAuto = V4L2_CID_EXPOSURE_AUTO;
constexpr uint32_t kManualWhiteBalance = zelisp::ISP_CID_MWB, kManualExposure = zelisp::ISP_CID_MEC,
                   kLumaDenoise = zelisp::ISP_CID_YDNS, kChromaDenoise = zelisp::ISP_CID_UVDNS;
constexpr unsigned long kSetResize = zelisp::VIDIOC_ISP_SET_RESIZE;
constexpr int kCamera = 1;
// The colour bars' luma, left to right, as the sensor pattern paints them.
constexpr int kBarLuma[8] = {180, 162, 131, 112, 84, 65, 35, 16};

// Streams camera 1's mode-1 node with one buffer and scripted frames; each
// Capture pushes one frame and returns copies of the planes.
class IspTest : public zelisp_test::SimTest {
protected:
    void SetUp() override
    {
        SimTest::SetUp();
        config_.views[0] = {zsim::kNV12, 192, 108};
        config_.views[1] = {zsim::kRGB24, 192, 108};
        config_.views[2] = {zsim::kGREY, 96, 54};
    }
    void TearDown() override
    {
        Stop();
        SimTest::TearDown();
    }
    void Start(const std::vector<uint8_t> &resize = {})
    {
        zsim::set_camera(kCamera, config_);
        zsim::set_frame_mode(kCamera, zsim::FrameMode::Scripted);
        node_ = std::make_unique<VideoNode>("/dev/video1");
        if (!resize.empty()) {
            ASSERT_EQ(node_->Request(kSetResize, const_cast<uint8_t *>(resize.data())), 0);
        }
        format_ = node_->Format();
        uint32_t count = 1;
        ASSERT_EQ(node_->RequestBuffers(&count), 0);
        BufferRecord record;
        ASSERT_EQ(node_->Request(VIDIOC_QUERYBUF, &record.buf), 0);
        for (uint32_t j = 0; j < record.buf.length; ++j) {
            void *data = mmap(nullptr, record.plane[j].length, PROT_READ, MAP_SHARED, node_->fd(),
                              record.plane[j].m.mem_offset);
            ASSERT_NE(data, MAP_FAILED);
            planes_.push_back({static_cast<const uint8_t *>(data), record.plane[j].length});
        }
        ASSERT_EQ(node_->Request(VIDIOC_QBUF, &record.buf), 0);
        ASSERT_EQ(node_->Stream(VIDIOC_STREAMON), 0);
    }
    void Stop()
    {
        for (const auto &plane : planes_)
            munmap(const_cast<uint8_t *>(plane.first), plane.second);
        planes_.clear();
        node_.reset();
    }
    // One frame's planes, after the processing and the frame number.
    std::vector<std::vector<uint8_t>> Capture(uint32_t sequence)
    {
        zsim::ScriptedFrame frame;
        frame.sequence = sequence;
        frame.paint = true;
        zsim::push_frame(kCamera, frame);
        BufferRecord filled;
        EXPECT_EQ(node_->Request(VIDIOC_DQBUF, &filled.buf), 0);
        std::vector<std::vector<uint8_t>> copies;
        for (size_t j = 0; j < planes_.size(); ++j) {
            const ViewFormat view = View(int(j));
            copies.emplace_back(planes_[j].first, planes_[j].first + zsim::detail::image_size(view));
            uint32_t number = 0;
            EXPECT_TRUE(zsim::detail::read_frame_number(copies.back().data(), copies.back().size(), view, &number) ||
                        view.width < 96)
                << "view " << j;
            if (view.width >= 96) {
                EXPECT_EQ(number, sequence) << "view " << j;
            }
        }
        BufferRecord again;
        EXPECT_EQ(node_->Request(VIDIOC_QBUF, &again.buf), 0);
        return copies;
    }
    // View j as the driver reports it now.
    ViewFormat View(int j) const
    {
        const v4l2_plane_pix_format &p = format_.fmt.pix_mp.plane_fmt[j];
        return ViewFormat{uint32_t(p.reserved[0]) | uint32_t(p.reserved[1]) << 16, p.reserved[2], p.reserved[3]};
    }
    void SetControl(uint32_t id, int32_t value)
    {
        v4l2_control control{id, value};
        ASSERT_EQ(node_->Request(VIDIOC_S_CTRL, &control), 0);
    }
    void SetPayload(uint32_t id, const std::vector<uint16_t> &words, size_t at, uint32_t flag)
    {
        zelisp_test::IspPayload payload(id, flag, words.data(), words.size(), at);
        ASSERT_EQ(node_->Request(VIDIOC_S_EXT_CTRLS, payload.request()), 0);
    }

    zsim::CameraConfig config_;
    std::unique_ptr<VideoNode> node_;
    v4l2_format format_{};
    std::vector<std::pair<const uint8_t *, size_t>> planes_;
};

// Rows below the frame number and the moving block (cell 4 at 192x108).
constexpr uint32_t kFirstBarRow = 24;

int LumaAt(const std::vector<uint8_t> &nv12, uint32_t x, uint32_t y) { return nv12[y * 192 + x]; }
int BarLuma(const std::vector<uint8_t> &nv12, int bar) { return LumaAt(nv12, uint32_t(bar * 24 + 12), 60); }
std::pair<int, int> BarChroma(const std::vector<uint8_t> &nv12, int bar)
{
    const size_t at = 192 * 108 + 30 * 192 + size_t(bar * 24 + 12);
    return {nv12[at], nv12[at + 1]};
}

double Mean(const std::vector<uint8_t> &plane, size_t stride, size_t x0, size_t x1, size_t y0, size_t y1,
            size_t step = 1, size_t first = 0)
{
    double sum = 0;
    size_t count = 0;
    for (size_t y = y0; y < y1; ++y)
        for (size_t x = x0 + first; x < x1; x += step, ++count)
            sum += plane[y * stride + x];
    return sum / double(count);
}

double Variance(const std::vector<uint8_t> &plane, size_t stride, size_t x0, size_t x1, size_t y0, size_t y1)
{
    const double mean = Mean(plane, stride, x0, x1, y0, y1);
    double sum = 0;
    for (size_t y = y0; y < y1; ++y)
        for (size_t x = x0; x < x1; ++x)
            sum += (plane[y * stride + x] - mean) * (plane[y * stride + x] - mean);
    return sum / double((x1 - x0) * (y1 - y0));
}

TEST_F(IspTest, DefaultsLeaveThePatternAsPaintedAndSettingsTakeEffectOnTheNextFrame)
{
    Start();
    const auto plain = Capture(7);
    for (int j = 0; j < 3; ++j) {
        std::vector<uint8_t> expected(zsim::detail::image_size(View(j)));
        zsim::detail::paint_background(expected.data(), expected.size(), View(j));
        zsim::detail::paint_frame(expected.data(), expected.size(), View(j), 7);
        EXPECT_TRUE(plain[size_t(j)] == expected) << "view " << j;
    }
    SetControl(kBrightness, 200);
    const auto brighter = Capture(8);
    for (int bar = 0; bar < 8; ++bar)
        EXPECT_EQ(BarLuma(brighter[0], bar), std::min(kBarLuma[bar] + 72, 235)) << bar;
    SetControl(kBrightness, 128);
    EXPECT_TRUE(Capture(7)[0] == plain[0]);
}

TEST_F(IspTest, ManualExposureSetsTheLightAndAutomaticHoldsTheTarget)
{
    Start();
    const double target = Mean(Capture(1)[0], 192, 0, 192, kFirstBarRow, 108);
    SetPayload(kManualExposure, {20000, 256}, 4, 0); // 20 ms at unity gain: twice the light
    EXPECT_EQ(Mean(Capture(2)[0], 192, 0, 192, kFirstBarRow, 108), target) << "automatic exposure ignores the words";
    SetControl(kExposureAuto, 1);
    const auto over = Capture(3)[0];
    SetPayload(kManualExposure, {2500, 256}, 4, 0);
    const auto under = Capture(4)[0];
    SetPayload(kManualExposure, {5000, 1024}, 4, 0); // half the time, four times the gain
    const auto gained = Capture(5)[0];
    EXPECT_GT(Mean(over, 192, 0, 192, kFirstBarRow, 108), target + 40);
    EXPECT_LT(Mean(under, 192, 0, 192, kFirstBarRow, 108), target - 40);
    for (int bar = 0; bar < 7; ++bar) {
        EXPECT_NEAR(BarLuma(over, bar), std::min(16 + 2 * (kBarLuma[bar] - 16), 235), 2) << bar;
        EXPECT_NEAR(BarLuma(under, bar), 16 + (kBarLuma[bar] - 16) / 4, 2) << bar;
        EXPECT_EQ(BarLuma(gained, bar), BarLuma(over, bar)) << bar;
    }
    SetControl(kExposureAuto, 0);
    EXPECT_EQ(Mean(Capture(6)[0], 192, 0, 192, kFirstBarRow, 108), target);
}

TEST_F(IspTest, ManualWhiteBalanceGainsTintRedGreenBlueInThatOrder)
{
    Start();
    const auto neutral = Capture(1)[1]; // RGB24
    SetPayload(kManualWhiteBalance, {384, 256, 128, 384, 256, 128, 384, 256, 128}, 16, 1);
    const auto automatic = Capture(1)[1];
    EXPECT_TRUE(automatic == neutral) << "automatic white balance keeps the scene neutral";
    SetControl(kAutoWhiteBalance, 0);
    const auto tinted = Capture(1)[1];
    const size_t stride = 192 * 3;
    // The white bar (191, 191, 191) and the black one.
    const double red = Mean(tinted, stride, 3, 3 * 22, kFirstBarRow, 108, 3, 0);
    const double green = Mean(tinted, stride, 3, 3 * 22, kFirstBarRow, 108, 3, 1);
    const double blue = Mean(tinted, stride, 3, 3 * 22, kFirstBarRow, 108, 3, 2);
    EXPECT_GE(red, 250) << "1.5 x 191, clipped";
    EXPECT_NEAR(green, 191, 3);
    EXPECT_NEAR(blue, 191 * 0.5, 3);
    EXPECT_NEAR(Mean(tinted, stride, 3 * 170, 3 * 190, kFirstBarRow, 108), 0, 2);
    SetControl(kAutoWhiteBalance, 1);
    EXPECT_TRUE(Capture(1)[1] == neutral);
}

TEST_F(IspTest, PictureControlsChangeLumaAndChromaAsTheirTablesSay)
{
    Start();
    const auto plain = Capture(1)[0];
    SetControl(kContrast, 0);
    auto flat = Capture(2)[0];
    for (int bar = 0; bar < 8; ++bar)
        EXPECT_EQ(BarLuma(flat, bar), 128) << bar;
    SetControl(kContrast, 255);
    auto strong = Capture(2)[0];
    for (int bar = 0; bar < 8; ++bar)
        EXPECT_EQ(BarLuma(strong, bar), std::clamp(int(std::lround(128 + (kBarLuma[bar] - 128) * 255 / 128.0)), 16, 235))
            << bar;
    SetControl(kContrast, 128);

    SetControl(kGamma, 200); // lifts the mid-tones: out = in ^ (1 / 2)
    const auto lifted = Capture(3)[0];
    for (int bar = 0; bar < 8; ++bar)
        EXPECT_EQ(BarLuma(lifted, bar), int(std::lround(16 + 219 * std::sqrt((kBarLuma[bar] - 16) / 219.0)))) << bar;
    SetControl(kGamma, 100);

    SetControl(kSaturation, 0);
    const auto grey = Capture(4)[0];
    for (int bar = 0; bar < 8; ++bar) {
        EXPECT_EQ(BarChroma(grey, bar), std::make_pair(128, 128)) << bar;
        EXPECT_EQ(BarLuma(grey, bar), kBarLuma[bar]) << bar;
    }
    SetControl(kSaturation, 128);
    SetControl(kHue, 0); // half a turn: the chroma vector reversed
    const auto turned = Capture(5)[0];
    for (int bar = 0; bar < 8; ++bar) {
        const auto before = BarChroma(plain, bar), after = BarChroma(turned, bar);
        EXPECT_NEAR(after.first, 256 - before.first, 1) << bar;
        EXPECT_NEAR(after.second, 256 - before.second, 1) << bar;
    }
    SetControl(kHue, 128);

    // Sharpness: the white/yellow edge at x = 24 (luma 180 | 162).
    SetControl(kSharpness, 10);
    const auto sharp = Capture(6)[0];
    EXPECT_EQ(LumaAt(sharp, 23, 60), 185);
    EXPECT_EQ(LumaAt(sharp, 24, 60), 157);
    EXPECT_EQ(LumaAt(sharp, 12, 60), 180) << "flat areas stay";
    SetControl(kSharpness, 0);
    const auto soft = Capture(7)[0];
    EXPECT_EQ(LumaAt(soft, 23, 60), 175);
    EXPECT_EQ(LumaAt(soft, 24, 60), 167);

    // Every setting at once: the frame number still reads (Capture checks it).
    SetControl(kBrightness, 255);
    SetControl(kContrast, 0);
    SetControl(kGamma, 1000);
    Capture(0xFFFFFFFFu);
    SetControl(kBrightness, 0);
    Capture(0x12345678u);
}

TEST_F(IspTest, SensorNoiseFallsWithTheDenoiseStrengths)
{
    config_.noise = 16;
    Start();
    auto variances = [&](uint32_t sequence) {
        const auto frame = Capture(sequence)[0];
        const std::vector<uint8_t> chroma(frame.begin() + 192 * 108, frame.end());
        return std::make_pair(Variance(frame, 192, 2, 22, kFirstBarRow, 108),
                              Variance(chroma, 192, 2, 22, kFirstBarRow / 2, 54));
    };
    const auto standard = variances(1); // strengths 5: half the noise left
    EXPECT_GT(standard.first, 16 * 16 / 4 * 0.6);
    EXPECT_LT(standard.first, 16 * 16 / 4 * 1.4);
    EXPECT_TRUE(Capture(1)[0] == Capture(1)[0]) << "the same frame number gives the same noise";
    EXPECT_FALSE(Capture(1)[0] == Capture(2)[0]) << "the noise moves from frame to frame";
    SetControl(kLumaDenoise, 0);
    const auto raw = variances(3);
    EXPECT_GT(raw.first, standard.first * 3);
    EXPECT_NEAR(raw.second, standard.second, standard.second * 0.5) << "luma denoise leaves chroma noise";
    // The strongest denoise leaves none of the noise: the picture below the
    // frame number is the same from one frame to the next, and in the middle
    // of each bar it is the clean bar (the strongest strength also smooths
    // the bars' edges).
    const size_t chroma_start = 192 * 108 + kFirstBarRow / 2 * 192, luma_start = kFirstBarRow * 192;
    SetControl(kChromaDenoise, 10);
    const auto a = Capture(4)[0], b = Capture(5)[0];
    EXPECT_TRUE(std::equal(a.begin() + chroma_start, a.end(), b.begin() + chroma_start)) << "no chroma noise";
    EXPECT_FALSE(std::equal(a.begin() + luma_start, a.begin() + chroma_start, b.begin() + luma_start));
    SetControl(kLumaDenoise, 10);
    const auto c = Capture(6)[0], d = Capture(7)[0];
    EXPECT_TRUE(std::equal(c.begin() + luma_start, c.begin() + 192 * 108, d.begin() + luma_start)) << "no luma noise";
    for (int bar = 0; bar < 8; ++bar)
        EXPECT_EQ(BarLuma(c, bar), kBarLuma[bar]) << bar;
}

// Scenes for the automatic loops and the denoiser, as the camera's source.
class IspMeteringTest : public IspTest {
protected:
    void TearDown() override
    {
        IspTest::TearDown();
        if (!scene_.empty())
            unlink(scene_.c_str());
    }
    void ShowScene(const std::function<zelisp_test::Rgb(uint32_t x, uint32_t y)> &pixel)
    {
        // A new name for every scene: the simulator keeps a decoded scene by its path.
        if (!scene_.empty())
            unlink(scene_.c_str());
        static int scenes = 0;
        scene_ = ::testing::TempDir() + "isp-scene-" + std::to_string(getpid()) + "-" + std::to_string(++scenes) +
                 ".png";
        ASSERT_TRUE(zelisp_test::WritePngScene(scene_, 192, 108, pixel));
        config_.source = scene_;
    }
    double MeanLuma(uint32_t sequence) { return Mean(Capture(sequence)[0], 192, 0, 192, kFirstBarRow, 108); }
    std::string scene_;
};

// How far a luma is from the automatic exposure's target, 118, in stops.
double StopsFromTarget(double luma) { return std::log2((118 - 16) / (luma - 16)); }

TEST_F(IspMeteringTest, AutomaticExposureTakesAQuarterOfTheWayToItsTargetEachFrame)
{
    // A quarter of a normal scene's light: full-range grey 31, luma 43.
    ShowScene([](uint32_t, uint32_t) { return zelisp_test::Rgb{31, 31, 31}; });
    Start();
    std::vector<double> lumas;
    for (uint32_t sequence = 0; sequence < 24; ++sequence)
        lumas.push_back(MeanLuma(sequence));
    // Each frame is metered before it is shown, so the first has taken a step.
    EXPECT_NEAR(StopsFromTarget(lumas[0]), 0.75 * StopsFromTarget(43), 0.04);
    for (size_t k = 1; k < 8; ++k)
        EXPECT_NEAR(StopsFromTarget(lumas[k]), 0.75 * StopsFromTarget(lumas[k - 1]), 0.06) << "frame " << k;
    EXPECT_TRUE(std::is_sorted(lumas.begin(), lumas.end())) << "no overshoot";
    EXPECT_NEAR(lumas.back(), 118, 3);
    EXPECT_EQ(lumas[22], lumas[23]) << "settled, the exposure rests";
    // Manual exposure at its base shows the scene as it is.
    SetControl(kExposureAuto, 1);
    EXPECT_NEAR(MeanLuma(30), 43, 1);
    Stop();

    // Too much light, back in automatic mode: the exposure comes down,
    // from where it stood.
    ShowScene([](uint32_t, uint32_t) { return zelisp_test::Rgb{240, 240, 240}; });
    Start();
    SetControl(kExposureAuto, 0);
    double luma = 0;
    for (uint32_t sequence = 0; sequence < 30; ++sequence)
        luma = MeanLuma(sequence);
    EXPECT_NEAR(luma, 118, 3);
}

TEST_F(IspMeteringTest, ASceneNearTheTargetIsLeftAlone)
{
    // Luma 100: within half a stop of the target, as the colour bars are.
    ShowScene([](uint32_t, uint32_t) { return zelisp_test::Rgb{98, 98, 98}; });
    Start();
    const double first = MeanLuma(0);
    EXPECT_NEAR(first, 100, 1);
    for (uint32_t sequence = 1; sequence < 12; ++sequence)
        EXPECT_EQ(MeanLuma(sequence), first) << sequence;
}

TEST_F(IspMeteringTest, AutomaticWhiteBalanceTurnsATintedSceneGrey)
{
    ShowScene([](uint32_t, uint32_t) { return zelisp_test::Rgb{160, 120, 90}; });
    Start();
    auto channel = [](const std::vector<uint8_t> &rgb, size_t c) {
        return Mean(rgb, 192 * 3, 0, 192 * 3, kFirstBarRow, 108, 3, c);
    };
    const auto tinted = Capture(0)[1]; // RGB24
    EXPECT_GT(channel(tinted, 0), channel(tinted, 1) * 1.15) << "one step taken, still red";
    std::vector<uint8_t> balanced;
    for (uint32_t sequence = 1; sequence < 30; ++sequence)
        balanced = Capture(sequence)[1];
    EXPECT_NEAR(channel(balanced, 0), channel(balanced, 1), channel(balanced, 1) * 0.03);
    EXPECT_NEAR(channel(balanced, 2), channel(balanced, 1), channel(balanced, 1) * 0.03);
    // Off, with no manual gains: the scene's own colour, from the next frame.
    SetControl(kAutoWhiteBalance, 0);
    const auto own = Capture(31)[1];
    EXPECT_NEAR(channel(own, 0), 160, 3);
    EXPECT_NEAR(channel(own, 1), 120, 3);
    EXPECT_NEAR(channel(own, 2), 90, 3);
}

TEST_F(IspMeteringTest, StrongDenoiseSmoothsAwayFineDetail)
{
    // Left: one-pixel stripes, the finest detail; right: flat grey.
    ShowScene([](uint32_t x, uint32_t) {
        const uint8_t level = x >= 96 ? 120 : x % 2 ? 180 : 60;
        return zelisp_test::Rgb{level, level, level};
    });
    config_.noise = 0;
    Start();
    SetControl(kExposureAuto, 1);
    SetControl(kAutoWhiteBalance, 0);
    // Detail: the mean step between neighbouring pixels of the stripes.
    auto detail = [](const std::vector<uint8_t> &nv12) {
        double sum = 0;
        for (uint32_t y = kFirstBarRow; y < 108; ++y)
            for (uint32_t x = 4; x < 90; ++x)
                sum += std::abs(LumaAt(nv12, x + 1, y) - LumaAt(nv12, x, y));
        return sum / double((108 - kFirstBarRow) * 86);
    };
    std::vector<double> details;
    for (int32_t strength = 5; strength <= 10; ++strength) {
        SetControl(kLumaDenoise, strength);
        const auto frame = Capture(uint32_t(strength))[0];
        details.push_back(detail(frame));
        EXPECT_NEAR(Mean(frame, 192, 100, 192, kFirstBarRow, 108), LumaAt(frame, 150, 60), 0.01)
            << "flat areas stay flat";
    }
    EXPECT_NEAR(details[0], (180 - 60) * 219 / 255.0, 1.5) << "up to strength 5 the picture is untouched";
    EXPECT_NEAR(details[3], details[0] * 0.4, 2) << "strength 8 keeps 40% of the finest detail";
    EXPECT_LT(details[5], 2) << "strength 10 smooths it all away";
    EXPECT_TRUE(std::is_sorted(details.rbegin(), details.rend()));
}


// IspResizeRegs: first crop top, bottom, left, right; second crop top,
// bottom, left, right; scaled width, height; reserved.
std::vector<uint8_t> ResizeRecord(std::vector<uint16_t> words)
{
    words.resize(11, 0);
    std::vector<uint8_t> record(22);
    std::memcpy(record.data(), words.data(), 22);
    return record;
}

TEST_F(IspTest, ResizeCropsScalesAndCropsView1AndItsSizeFollows)
{
    config_.views[1] = {zsim::kNV12, 192, 108};
    // The cyan bar (x 48..72), rows 30..90, scaled to 96 x 120, all kept.
    Start(ResizeRecord({30, 90, 48, 72, 0, 120, 0, 96, 96, 120}));
    EXPECT_EQ(View(1).width, 96u);
    EXPECT_EQ(View(1).height, 120u);
    EXPECT_EQ(View(0).width, 192u) << "other views keep their size";
    EXPECT_EQ(format_.fmt.pix_mp.plane_fmt[1].sizeimage, 96u * 120 * 3 / 2);
    const auto cyan = Capture(3)[1]; // cell 2: the number in rows 2..6, the block in 8..10
    for (uint32_t y = 12; y < 120; y += 9)
        for (uint32_t x = 0; x < 96; x += 7)
            ASSERT_EQ(cyan[y * 96 + x], 131) << x << "," << y;
    EXPECT_EQ(cyan[96 * 120 + 30 * 96], 156);
    EXPECT_EQ(cyan[96 * 120 + 30 * 96 + 1], 44);
    Stop();

    // Across the white/yellow edge, no scaling, the right half of it kept:
    // the second crop is taken from the scaled image.
    Start(ResizeRecord({0, 108, 0, 96, 24, 108, 12, 60, 96, 108}));
    EXPECT_EQ(View(1).width, 48u);
    EXPECT_EQ(View(1).height, 84u);
    const auto cut = Capture(4)[1];
    EXPECT_EQ(cut[40 * 48 + 2], 180);  // x 14 of the first crop: white
    EXPECT_EQ(cut[40 * 48 + 20], 162); // x 32: yellow
    EXPECT_EQ(cut[40 * 48 + 44], 131); // x 56: cyan
    Stop();

    // An all-zero record passes view 1 through, and closing the node
    // forgets a resize.
    Start(ResizeRecord({}));
    EXPECT_EQ(View(1).width, 192u);
    EXPECT_EQ(View(1).height, 108u);
}

} // namespace
