// Denoise, 3A, manual payloads and abnormal information against the
// simulated camera driver, and the refusal rules every control shares:
// argument refusals send nothing, driver refusals print the node path with
// the operation's text and its label's perror line, and leave the caller's
// variable alone.
#include <linux/videodev2.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "sim_fixture.h"

namespace {

constexpr uint32_t kCidMwb = 0x00981991;
constexpr uint32_t kCidMec = 0x00981992;
constexpr uint32_t kCidYdns = 0x00981993;
constexpr uint32_t kCidUvdns = 0x00981994;
constexpr uint32_t kGetAbnormalInfo = 0x800E56CC;

class TuningControlsTest : public zelisp_test::SimTest {
protected:
    void SetUp() override
    {
        SimTest::SetUp();
        camera_ = isp_open_video(0, 1);
        ASSERT_NE(camera_, 0u);
        zsim::clear_log();
    }
    void TearDown() override
    {
        if (camera_ != 0)
            isp_close_video(camera_);
        SimTest::TearDown();
    }

    static std::vector<std::string> Details(unsigned long request)
    {
        std::vector<std::string> details;
        for (const zsim::LogEntry &entry : zsim::requests(uint32_t(request)))
            details.push_back(entry.detail);
        return details;
    }
    static int32_t DriverValue(uint32_t id)
    {
        int32_t value = -1;
        EXPECT_TRUE(zsim::control_value(0, id, &value));
        return value;
    }

    unsigned long camera_ = 0;
};

std::string DenoiseDetail(uint32_t id, uint32_t value)
{
    char text[96];
    snprintf(text, sizeof text, "ctrl_class=0x00980000 count=1 id=0x%08x size=4 value=%u", id, value);
    return text;
}

TEST_F(TuningControlsTest, DenoiseSendsLumaThenChromaAndRefusesAboveTen)
{
    EXPECT_EQ(isp_camera_set_denoise(camera_, 11, 0), -15);
    EXPECT_EQ(isp_camera_set_denoise(camera_, 0, 11), -15);
    EXPECT_EQ(isp_camera_set_denoise(camera_, 10, 10), 0);
    EXPECT_EQ(isp_camera_set_denoise(camera_, 0, 0), 0);
    EXPECT_EQ(Details(VIDIOC_S_EXT_CTRLS),
              (std::vector<std::string>{DenoiseDetail(kCidYdns, 10), DenoiseDetail(kCidUvdns, 10),
                                        DenoiseDetail(kCidYdns, 0), DenoiseDetail(kCidUvdns, 0)}));

    ASSERT_EQ(isp_camera_set_denoise(camera_, 3, 7), 0);
    uint32_t luma = 0, chroma = 0;
    EXPECT_EQ(isp_camera_get_denoise(camera_, &luma, &chroma), 0);
    EXPECT_EQ(luma, 3u);
    EXPECT_EQ(chroma, 7u);
    EXPECT_EQ(Details(VIDIOC_G_EXT_CTRLS),
              (std::vector<std::string>{DenoiseDetail(kCidYdns, 3), DenoiseDetail(kCidUvdns, 7)}));
}

TEST_F(TuningControlsTest, DenoiseStopsAtTheRefusedStepAndKeepsWhatWentThrough)
{
    zelisp_test::OutputCapture output; // lines: EveryRefusalPrintsPathTextAndLabel...
    ASSERT_EQ(isp_camera_set_denoise(camera_, 4, 4), 0);
    zsim::clear_log();

    zsim::fail_request(uint32_t(VIDIOC_S_EXT_CTRLS), 1, EIO);
    EXPECT_EQ(isp_camera_set_denoise(camera_, 6, 6), -11);
    EXPECT_EQ(zsim::requests(uint32_t(VIDIOC_S_EXT_CTRLS)).size(), 1u);
    EXPECT_EQ(DriverValue(kCidYdns), 4);

    zsim::fail_request(uint32_t(VIDIOC_S_EXT_CTRLS), 2, EIO);
    EXPECT_EQ(isp_camera_set_denoise(camera_, 8, 8), -11);
    EXPECT_EQ(DriverValue(kCidYdns), 8);
    EXPECT_EQ(DriverValue(kCidUvdns), 4);

    zsim::fail_request(uint32_t(VIDIOC_G_EXT_CTRLS), 2, EIO);
    uint32_t luma = 99, chroma = 99;
    EXPECT_EQ(isp_camera_get_denoise(camera_, &luma, &chroma), -11);
    EXPECT_EQ(luma, 8u);
    EXPECT_EQ(chroma, 99u);
}

TEST_F(TuningControlsTest, ManualPayloadsCarryLow16BitsInPlace)
{
    ASSERT_EQ(isp_camera_set_mwb(camera_, 0x12345, 0x10002, 0xFFFF), 0);
    std::vector<uint8_t> mwb(36, 0);
    mwb[0] = 1; // wb_flag
    for (int triple = 0; triple < 3; ++triple) {
        const uint8_t gains[6] = {0x45, 0x23, 0x02, 0x00, 0xFF, 0xFF};
        memcpy(&mwb[16 + 6 * triple], gains, sizeof gains);
    }
    EXPECT_EQ(zsim::manual_payload(0, kCidMwb), mwb);

    const zelvideo::_mec_param_t mec = {{0x10001, 2, 0xFFFF0003, 4, 5, 0x123456}};
    ASSERT_EQ(isp_camera_set_mec(camera_, &mec), 0);
    std::vector<uint8_t> exposure(36, 0);
    const uint8_t words[12] = {1, 0, 2, 0, 3, 0, 4, 0, 5, 0, 0x56, 0x34};
    memcpy(&exposure[4], words, sizeof words);
    EXPECT_EQ(zsim::manual_payload(0, kCidMec), exposure);

    const std::vector<std::string> sent = Details(VIDIOC_S_EXT_CTRLS);
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_NE(sent[0].find("ctrl_class=0x00980000 count=1 id=0x00981991 size=36 payload="), std::string::npos);
    EXPECT_NE(sent[1].find("ctrl_class=0x00980000 count=1 id=0x00981992 size=36 payload="), std::string::npos);
}

TEST_F(TuningControlsTest, AutoSwitchesSendAnyByteAndReadNonzeroAsOne)
{
    EXPECT_EQ(isp_camera_set_aec(camera_, 2), 0);
    EXPECT_EQ(isp_camera_set_aec(camera_, 255), 0);
    EXPECT_EQ(isp_camera_set_awb(camera_, 0), 0);
    EXPECT_EQ(Details(VIDIOC_S_CTRL),
              (std::vector<std::string>{"id=0x009a0901 value=2", "id=0x009a0901 value=255", "id=0x0098090c value=0"}));

    uint8_t on = 7;
    EXPECT_EQ(isp_camera_get_awb(camera_, &on), 0);
    EXPECT_EQ(on, 0);
    ASSERT_TRUE(zsim::set_control_value(0, V4L2_CID_AUTO_WHITE_BALANCE, 2));
    EXPECT_EQ(isp_camera_get_awb(camera_, &on), 0);
    EXPECT_EQ(on, 1);
    ASSERT_TRUE(zsim::set_control_value(0, V4L2_CID_EXPOSURE_AUTO, 255));
    on = 7;
    EXPECT_EQ(isp_camera_get_aec(camera_, &on), 0);
    EXPECT_EQ(on, 1);
}

TEST_F(TuningControlsTest, AbnormalInfoIsTheDriversFourteenBytes)
{
    const uint8_t info[14] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14};
    zsim::set_abnormal_info(0, info);
    uint8_t buffer[16];
    memset(buffer, 0xEE, sizeof buffer);
    EXPECT_EQ(isp_camera_get_abnormal_info(camera_, buffer), 0);
    EXPECT_EQ(memcmp(buffer, info, 14), 0);
    EXPECT_EQ(buffer[14], 0xEE);
    EXPECT_EQ(buffer[15], 0xEE);
    EXPECT_EQ(zsim::requests(kGetAbnormalInfo).size(), 1u);
}

TEST_F(TuningControlsTest, NullHandleOrPointerIsRefusedWithoutARequest)
{
    uint32_t word = 5;
    uint8_t byte = 5;
    uint8_t info[14] = {};
    const zelvideo::_mec_param_t mec = {};
    int (*const setters[])(unsigned long, uint32_t) = {isp_camera_set_brightness, isp_camera_set_contrast,
                                                        isp_camera_set_saturation, isp_camera_set_hue,
                                                        isp_camera_set_gamma,      isp_camera_set_sharpness};
    int (*const getters[])(unsigned long, uint32_t *) = {isp_camera_get_brightness, isp_camera_get_contrast,
                                                         isp_camera_get_saturation, isp_camera_get_hue,
                                                         isp_camera_get_gamma,      isp_camera_get_sharpness};
    zelisp_test::OutputCapture output;
    for (auto set : setters)
        EXPECT_EQ(set(0, 1), -15);
    for (auto get : getters) {
        EXPECT_EQ(get(0, &word), -15);
        EXPECT_EQ(get(camera_, nullptr), -15);
    }
    EXPECT_EQ(isp_camera_set_denoise(0, 1, 1), -15);
    EXPECT_EQ(isp_camera_get_denoise(0, &word, &word), -15);
    EXPECT_EQ(isp_camera_get_denoise(camera_, nullptr, &word), -15);
    EXPECT_EQ(isp_camera_get_denoise(camera_, &word, nullptr), -15);
    EXPECT_EQ(isp_camera_set_awb(0, 1), -15);
    EXPECT_EQ(isp_camera_get_awb(0, &byte), -15);
    EXPECT_EQ(isp_camera_get_awb(camera_, nullptr), -15);
    EXPECT_EQ(isp_camera_set_aec(0, 1), -15);
    EXPECT_EQ(isp_camera_get_aec(0, &byte), -15);
    EXPECT_EQ(isp_camera_get_aec(camera_, nullptr), -15);
    EXPECT_EQ(isp_camera_set_mwb(0, 1, 1, 1), -15);
    EXPECT_EQ(isp_camera_set_mec(0, &mec), -15);
    EXPECT_EQ(isp_camera_set_mec(camera_, nullptr), -15);
    EXPECT_EQ(isp_camera_get_abnormal_info(0, info), -15);
    EXPECT_EQ(isp_camera_get_abnormal_info(camera_, nullptr), -15);
    output.Stop();
    EXPECT_EQ(output.out(), "");
    EXPECT_EQ(output.err(), "");
    EXPECT_EQ(word, 5u);
    EXPECT_EQ(byte, 5);
    EXPECT_TRUE(zsim::request_log().empty());
}

struct Refusal {
    unsigned long request;
    int nth; // which request of the operation the driver refuses
    std::function<int(unsigned long)> call;
    std::string failure;
    std::string label;
};

// A getter whose variable must come back untouched from a refusal.
template <typename T> std::function<int(unsigned long)> Untouched(int (*get)(unsigned long, T *))
{
    return [get](unsigned long camera) {
        T value = 77;
        const int result = get(camera, &value);
        EXPECT_EQ(value, T(77));
        return result;
    };
}

TEST_F(TuningControlsTest, EveryRefusalPrintsPathTextAndLabelAndReturnsMinus11)
{
    uint8_t info[14];
    const zelvideo::_mec_param_t mec = {};
    const Refusal refusals[] = {
        {VIDIOC_S_CTRL, 1, [](unsigned long c) { return isp_camera_set_brightness(c, 1); }, " SetBrightness failed", "SetBrightness"},
        {VIDIOC_G_CTRL, 1, Untouched(isp_camera_get_brightness), " GetBrightness failed", "GetBrightness"},
        {VIDIOC_S_CTRL, 1, [](unsigned long c) { return isp_camera_set_contrast(c, 1); }, " SetContrast failed", "SetContrast"},
        {VIDIOC_G_CTRL, 1, Untouched(isp_camera_get_contrast), " GetContrast failed", "GetContrast"},
        {VIDIOC_S_CTRL, 1, [](unsigned long c) { return isp_camera_set_saturation(c, 1); }, " SetSaturation failed", "SetSaturation"},
        {VIDIOC_G_CTRL, 1, Untouched(isp_camera_get_saturation), " GetSaturation failed", "GetSaturation"},
        {VIDIOC_S_CTRL, 1, [](unsigned long c) { return isp_camera_set_hue(c, 1); }, " SetHue failed", "SetHue"},
        {VIDIOC_G_CTRL, 1, Untouched(isp_camera_get_hue), " GetHue failed", "GetHue"},
        {VIDIOC_S_CTRL, 1, [](unsigned long c) { return isp_camera_set_gamma(c, 1); }, " Set gamma failed", "SetGamma"},
        {VIDIOC_G_CTRL, 1, Untouched(isp_camera_get_gamma), " Get gamma failed", "GetGamma"},
        {VIDIOC_S_CTRL, 1, [](unsigned long c) { return isp_camera_set_sharpness(c, 1); }, " SetSharpness failed", "SetSharpness"},
        {VIDIOC_G_CTRL, 1, Untouched(isp_camera_get_sharpness), " GetSharpness failed", "GetSharpness"},
        {VIDIOC_S_EXT_CTRLS, 1, [](unsigned long c) { return isp_camera_set_denoise(c, 1, 1); }, " SetYDNS failed", "SetYDNS"},
        {VIDIOC_S_EXT_CTRLS, 2, [](unsigned long c) { return isp_camera_set_denoise(c, 1, 1); }, " SetUVDNS failed", "SetUVDNS"},
        {VIDIOC_G_EXT_CTRLS, 1, [](unsigned long c) { uint32_t y = 7, uv = 7; int r = isp_camera_get_denoise(c, &y, &uv); EXPECT_EQ(y, 7u); EXPECT_EQ(uv, 7u); return r; }, " GetYDNS failed", "GetYDNS"},
        {VIDIOC_G_EXT_CTRLS, 2, [](unsigned long c) { uint32_t y = 7, uv = 7; return isp_camera_get_denoise(c, &y, &uv); }, " GetUVDNS failed", "GetUVDNS"},
        {VIDIOC_S_CTRL, 1, [](unsigned long c) { return isp_camera_set_awb(c, 1); }, " Set auto white balance failed", "SetAWB"},
        {VIDIOC_G_CTRL, 1, Untouched(isp_camera_get_awb), " Get auto white balance failed", "GetAWB"},
        {VIDIOC_S_EXT_CTRLS, 1, [](unsigned long c) { return isp_camera_set_mwb(c, 1, 2, 3); }, " Set white balance manually failed", "SetMWB"},
        {VIDIOC_S_CTRL, 1, [](unsigned long c) { return isp_camera_set_aec(c, 1); }, " Set auto exposure failed", "SetAEC"},
        {VIDIOC_G_CTRL, 1, Untouched(isp_camera_get_aec), " Get AEC failed", "GetAEC"},
        {VIDIOC_S_EXT_CTRLS, 1, [&mec](unsigned long c) { return isp_camera_set_mec(c, &mec); }, " Set exposure manually failed", "SetMEC"},
        {kGetAbnormalInfo, 1, [&info](unsigned long c) { return isp_camera_get_abnormal_info(c, info); }, " Get abnormal info failed", "GetAbnormalInfo"},
    };
    for (const Refusal &refusal : refusals) {
        SCOPED_TRACE(refusal.label);
        zsim::fail_request(uint32_t(refusal.request), refusal.nth, EINVAL, "/dev/video0");
        zelisp_test::OutputCapture output;
        EXPECT_EQ(refusal.call(camera_), -11);
        output.Stop();
        EXPECT_EQ(output.out(), "/dev/video0" + refusal.failure + "\n");
        EXPECT_EQ(output.err(), refusal.label + ": " + zelisp_test::ErrorText(EINVAL) + "\n");
        zsim::clear_faults();
    }
}

} // namespace
