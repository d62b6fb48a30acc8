// Tuning controls against the simulated camera driver: ranges, the exact
// records and payloads the driver receives, the rules every control shares
// (argument refusals send nothing; a driver refusal prints the node path with
// the operation's text and a perror line with its label, returns -11 and
// leaves the caller's variable alone), and controls in every camera state.
#include <linux/videodev2.h>

#include <cerrno>
#include <cstdio>
#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "driver/isp_requests.h"
#include "sim_fixture.h"

namespace {

using Strings = std::vector<std::string>;

class ControlsTest : public zelisp_test::SimTest {
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
        isp_close_video(camera_);
        SimTest::TearDown();
    }
    static Strings Sent(unsigned long request)
    {
        Strings details;
        for (const zsim::LogEntry &entry : zsim::requests(uint32_t(request)))
            details.push_back(entry.detail);
        return details;
    }
    static int32_t Driver(uint32_t id)
    {
        int32_t value = -1;
        EXPECT_TRUE(zsim::control_value(0, id, &value));
        return value;
    }
    unsigned long camera_ = 0;
};

std::string Plain(uint32_t id, uint32_t value)
{
    char text[64];
    snprintf(text, sizeof text, "id=0x%08x value=%d", id, int32_t(value));
    return text;
}

std::string Denoise(uint32_t id, uint32_t value)
{
    char text[96];
    snprintf(text, sizeof text, "ctrl_class=0x00980000 count=1 id=0x%08x size=4 value=%u", id, value);
    return text;
}

TEST_F(ControlsTest, PictureSettersSendTheirTopValueAndRefuseAboveUnsent)
{
    const struct {
        int (*set)(unsigned long, uint32_t);
        int (*get)(unsigned long, uint32_t *);
        uint32_t id, top;
    } pictures[] = {{isp_camera_set_brightness, isp_camera_get_brightness, V4L2_CID_BRIGHTNESS, 255},
                    {isp_camera_set_contrast, isp_camera_get_contrast, V4L2_CID_CONTRAST, 255},
                    {isp_camera_set_saturation, isp_camera_get_saturation, V4L2_CID_SATURATION, 255},
                    {isp_camera_set_hue, isp_camera_get_hue, V4L2_CID_HUE, 255},
                    {isp_camera_set_sharpness, isp_camera_get_sharpness, V4L2_CID_SHARPNESS, 10},
                    {isp_camera_set_gamma, isp_camera_get_gamma, V4L2_CID_GAMMA, 0xFFFFFFFF}};
    for (const auto &picture : pictures) {
        SCOPED_TRACE(picture.id);
        zsim::clear_log();
        EXPECT_EQ(picture.set(camera_, 0), 0);
        EXPECT_EQ(picture.set(camera_, picture.top), 0);
        if (picture.top != 0xFFFFFFFF) {
            EXPECT_EQ(picture.set(camera_, picture.top + 1), -15);
            EXPECT_EQ(picture.set(camera_, uint32_t(-1)), -15); // a caller's -1
        }
        EXPECT_EQ(Sent(VIDIOC_S_CTRL), (Strings{Plain(picture.id, 0), Plain(picture.id, picture.top)}));
        uint32_t value = 0;
        EXPECT_EQ(picture.get(camera_, &value), 0);
        EXPECT_EQ(value, picture.top);
    }
}

TEST_F(ControlsTest, NullHandleOrPointerIsRefusedWithoutARequest)
{
    uint32_t word = 5;
    uint8_t byte = 5;
    const zelvideo::_mec_param_t mec = {};
    std::vector<int> results;
    zelisp_test::OutputCapture output;
    for (auto set : {isp_camera_set_brightness, isp_camera_set_contrast, isp_camera_set_saturation,
                     isp_camera_set_hue, isp_camera_set_gamma, isp_camera_set_sharpness})
        results.push_back(set(0, 1));
    for (auto get : {isp_camera_get_brightness, isp_camera_get_contrast, isp_camera_get_saturation,
                     isp_camera_get_hue, isp_camera_get_gamma, isp_camera_get_sharpness})
        results.insert(results.end(), {get(0, &word), get(camera_, nullptr)});
    for (auto set : {isp_camera_set_awb, isp_camera_set_aec})
        results.push_back(set(0, 1));
    for (auto get : {isp_camera_get_awb, isp_camera_get_aec})
        results.insert(results.end(), {get(0, &byte), get(camera_, nullptr)});
    results.insert(results.end(), {isp_camera_set_denoise(0, 1, 1), isp_camera_get_denoise(0, &word, &word),
                                   isp_camera_get_denoise(camera_, nullptr, &word),
                                   isp_camera_get_denoise(camera_, &word, nullptr), isp_camera_set_mwb(0, 1, 1, 1),
                                   isp_camera_set_mec(0, &mec), isp_camera_set_mec(camera_, nullptr),
                                   isp_camera_get_abnormal_info(0, &word),
                                   isp_camera_get_abnormal_info(camera_, nullptr)});
    output.Stop();
    EXPECT_EQ(results, std::vector<int>(results.size(), -15));
    EXPECT_EQ(output.out() + output.err(), "");
    EXPECT_EQ(word, 5u);
    EXPECT_EQ(byte, 5);
    EXPECT_TRUE(zsim::request_log().empty());
}

// Calls a getter and checks that a refusal left its variable untouched.
template <typename T> std::function<int(unsigned long)> Untouched(int (*get)(unsigned long, T *))
{
    return [get](unsigned long camera) {
        T value = 77;
        const int result = get(camera, &value);
        EXPECT_EQ(value, T(77));
        return result;
    };
}

TEST_F(ControlsTest, EveryDriverRefusalPrintsPathTextAndLabel)
{
    const zelvideo::_mec_param_t mec = {};
    const struct {
        unsigned long request;
        int nth; // which request of the operation the driver refuses
        std::function<int(unsigned long)> call;
        std::string text, label;
    } refusals[] = {
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
        {VIDIOC_G_EXT_CTRLS, 2, [](unsigned long c) { uint32_t y = 7, uv = 7; int r = isp_camera_get_denoise(c, &y, &uv); EXPECT_EQ(uv, 7u); return r; }, " GetUVDNS failed", "GetUVDNS"},
        {VIDIOC_S_CTRL, 1, [](unsigned long c) { return isp_camera_set_awb(c, 1); }, " Set auto white balance failed", "SetAWB"},
        {VIDIOC_G_CTRL, 1, Untouched(isp_camera_get_awb), " Get auto white balance failed", "GetAWB"},
        {VIDIOC_S_EXT_CTRLS, 1, [](unsigned long c) { return isp_camera_set_mwb(c, 1, 2, 3); }, " Set white balance manually failed", "SetMWB"},
        {VIDIOC_S_CTRL, 1, [](unsigned long c) { return isp_camera_set_aec(c, 1); }, " Set auto exposure failed", "SetAEC"},
        {VIDIOC_G_CTRL, 1, Untouched(isp_camera_get_aec), " Get AEC failed", "GetAEC"},
        {VIDIOC_S_EXT_CTRLS, 1, [&mec](unsigned long c) { return isp_camera_set_mec(c, &mec); }, " Set exposure manually failed", "SetMEC"},
        {zelisp::VIDIOC_ISP_GET_ABNORMAL_INFO, 1, [](unsigned long c) { uint8_t info[14]; return isp_camera_get_abnormal_info(c, info); }, " Get abnormal info failed", "GetAbnormalInfo"},
    };
    for (const auto &refusal : refusals) {
        SCOPED_TRACE(refusal.label);
        zsim::fail_request(uint32_t(refusal.request), refusal.nth, EINVAL, "/dev/video0");
        zelisp_test::OutputCapture output;
        EXPECT_EQ(refusal.call(camera_), -11);
        output.Stop();
        EXPECT_EQ(output.out(), "/dev/video0" + refusal.text + "\n");
        EXPECT_EQ(output.err(), refusal.label + ": " + zelisp_test::ErrorText(EINVAL) + "\n");
        zsim::clear_faults();
    }
}

TEST_F(ControlsTest, DenoiseSendsLumaThenChromaAndKeepsWhatWentThroughOnARefusal)
{
    EXPECT_EQ(isp_camera_set_denoise(camera_, 11, 0), -15);
    EXPECT_EQ(isp_camera_set_denoise(camera_, 0, 11), -15);
    EXPECT_EQ(isp_camera_set_denoise(camera_, 10, 10), 0);
    EXPECT_EQ(isp_camera_set_denoise(camera_, 0, 0), 0);
    EXPECT_EQ(Sent(VIDIOC_S_EXT_CTRLS), (Strings{Denoise(zelisp::ISP_CID_YDNS, 10), Denoise(zelisp::ISP_CID_UVDNS, 10),
                                                 Denoise(zelisp::ISP_CID_YDNS, 0), Denoise(zelisp::ISP_CID_UVDNS, 0)}));

    zelisp_test::OutputCapture output; // the lines: EveryDriverRefusalPrintsPathTextAndLabel
    zsim::fail_request(uint32_t(VIDIOC_S_EXT_CTRLS), 1, EIO);
    EXPECT_EQ(isp_camera_set_denoise(camera_, 6, 6), -11);
    EXPECT_EQ(Sent(VIDIOC_S_EXT_CTRLS).size(), 5u); // chroma not sent
    zsim::fail_request(uint32_t(VIDIOC_S_EXT_CTRLS), 2, EIO);
    EXPECT_EQ(isp_camera_set_denoise(camera_, 8, 8), -11);
    EXPECT_EQ(Driver(zelisp::ISP_CID_YDNS), 8);
    EXPECT_EQ(Driver(zelisp::ISP_CID_UVDNS), 0);

    zsim::fail_request(uint32_t(VIDIOC_G_EXT_CTRLS), 2, EIO);
    uint32_t luma = 99, chroma = 99;
    EXPECT_EQ(isp_camera_get_denoise(camera_, &luma, &chroma), -11);
    EXPECT_EQ(luma, 8u);
    EXPECT_EQ(chroma, 99u);
}

TEST_F(ControlsTest, ManualPayloadsCarryLow16BitsAtTheirOffsets)
{
    ASSERT_EQ(isp_camera_set_mwb(camera_, 0x12345, 0x10002, 0xFFFF), 0);
    const std::vector<uint8_t> mwb = {1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,       // flag, no exposure
                                      0x45, 0x23, 0x02, 0x00, 0xFF, 0xFF, 0x45, 0x23, 0x02, // gains three times
                                      0x00, 0xFF, 0xFF, 0x45, 0x23, 0x02, 0x00, 0xFF, 0xFF, 0, 0};
    EXPECT_EQ(zsim::manual_payload(0, zelisp::ISP_CID_MWB), mwb);

    const zelvideo::_mec_param_t mec = {{0x10001, 2, 0xFFFF0003, 4, 5, 0x123456}};
    ASSERT_EQ(isp_camera_set_mec(camera_, &mec), 0);
    std::vector<uint8_t> exposure(36, 0);
    const uint8_t words[12] = {1, 0, 2, 0, 3, 0, 4, 0, 5, 0, 0x56, 0x34};
    std::copy(words, words + 12, exposure.begin() + 4);
    EXPECT_EQ(zsim::manual_payload(0, zelisp::ISP_CID_MEC), exposure);
    const Strings sent = Sent(VIDIOC_S_EXT_CTRLS);
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0].rfind("ctrl_class=0x00980000 count=1 id=0x00981991 size=36 payload=", 0), 0u);
    EXPECT_EQ(sent[1].rfind("ctrl_class=0x00980000 count=1 id=0x00981992 size=36 payload=", 0), 0u);
}

TEST_F(ControlsTest, AutoSwitchesSendAnyByteAndReadNonzeroAsOne)
{
    EXPECT_EQ(isp_camera_set_aec(camera_, 2), 0);
    EXPECT_EQ(isp_camera_set_aec(camera_, 255), 0);
    EXPECT_EQ(isp_camera_set_awb(camera_, 0), 0);
    EXPECT_EQ(Sent(VIDIOC_S_CTRL), (Strings{Plain(V4L2_CID_EXPOSURE_AUTO, 2), Plain(V4L2_CID_EXPOSURE_AUTO, 255),
                                            Plain(V4L2_CID_AUTO_WHITE_BALANCE, 0)}));
    uint8_t on = 7;
    EXPECT_EQ(isp_camera_get_awb(camera_, &on), 0);
    EXPECT_EQ(on, 0);
    ASSERT_TRUE(zsim::set_control_value(0, V4L2_CID_AUTO_WHITE_BALANCE, 2));
    EXPECT_EQ(isp_camera_get_awb(camera_, &on), 0);
    EXPECT_EQ(on, 1);
    on = 7;
    EXPECT_EQ(isp_camera_get_aec(camera_, &on), 0);
    EXPECT_EQ(on, 1);
}

TEST_F(ControlsTest, AbnormalInfoIsTheDriversFourteenBytes)
{
    const uint8_t info[14] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14};
    zsim::set_abnormal_info(0, info);
    uint8_t buffer[16];
    memset(buffer, 0xEE, sizeof buffer);
    EXPECT_EQ(isp_camera_get_abnormal_info(camera_, buffer), 0);
    EXPECT_EQ(memcmp(buffer, info, 14), 0);
    EXPECT_EQ(buffer[14], 0xEE);
    EXPECT_EQ(buffer[15], 0xEE);
}

TEST_F(ControlsTest, InterruptedRequestIsRepeatedSilently)
{
    zsim::interrupt_request(uint32_t(VIDIOC_S_CTRL), 2);
    zelisp_test::OutputCapture output;
    EXPECT_EQ(isp_camera_set_hue(camera_, 40), 0);
    output.Stop();
    EXPECT_EQ(output.out() + output.err(), "");
    EXPECT_EQ(Driver(V4L2_CID_HUE), 40);
    EXPECT_EQ(zsim::requests(uint32_t(VIDIOC_S_CTRL)).size(), 3u);
}

TEST_F(ControlsTest, ControlsWorkInEveryCameraState)
{
    uint32_t value = 0;
    EXPECT_EQ(isp_camera_set_brightness(camera_, 1), 0); // opened
    ASSERT_EQ(isp_init_video(camera_, 1, 3), 0);
    EXPECT_EQ(isp_camera_set_brightness(camera_, 2), 0); // set up
    ASSERT_EQ(isp_start_capture(camera_), 0);
    EXPECT_EQ(isp_camera_set_brightness(camera_, 3), 0); // capturing
    EXPECT_EQ(isp_camera_get_brightness(camera_, &value), 0);
    EXPECT_EQ(value, 3u);
    EXPECT_EQ(Driver(V4L2_CID_BRIGHTNESS), 3);
}

} // namespace
