// The texts zelisp-cam's options and the GStreamer properties share: what
// they read, and what they refuse with which words.
#include <gtest/gtest.h>

#include <utility>

#include "decimation.h"
#include "numbers.h"
#include "resize_syntax.h"
#include "trigger_syntax.h"

using namespace capture_syntax;

namespace {

std::string crops(const zelvideo::_resize_param_t &p)
{
    auto crop = [](const zelvideo::_resize_crop_t &c) {
        return std::to_string(c.x) + "," + std::to_string(c.y) + "," + std::to_string(c.width) + "," +
               std::to_string(c.height);
    };
    return crop(p.cropBefore) + ":" + std::to_string(p.scale.width) + "," + std::to_string(p.scale.height) + ":" +
           crop(p.cropAfter);
}

} // namespace

TEST(CaptureSyntax, NumbersAreWholeUnsignedAndWithinTheirLimit)
{
    unsigned long long value = 0;
    EXPECT_TRUE(parse_unsigned("0x10", 16, &value));
    EXPECT_EQ(value, 16u);
    for (const char *bad : {"", "-1", "+1", " 1", "1 ", "17", "1a"})
        EXPECT_FALSE(parse_unsigned(bad, 16, &value)) << bad;
    EXPECT_EQ(split("1,,2", ","), (std::vector<std::string>{"1", "", "2"}));
    uint16_t out[2];
    EXPECT_FALSE(parse_numbers("1,65536", 2, out));
    EXPECT_FALSE(parse_numbers("1,2,3", 2, out));
}

TEST(CaptureSyntax, ResizeFillsTheSecondCropFromWhatCameBefore)
{
    zelvideo::_resize_param_t param{};
    std::string error;
    ASSERT_TRUE(parse_resize("8,4,640,360", "--resize", &param, &error));
    EXPECT_EQ(crops(param), "8,4,640,360:0,0:0,0,640,360");
    ASSERT_TRUE(parse_resize("0,0,1920,1080:1280,720", "--resize", &param, &error));
    EXPECT_EQ(crops(param), "0,0,1920,1080:1280,720:0,0,1280,720");
    ASSERT_TRUE(parse_resize("0,0,1920,1080:1280,720:10,20,300,200", "--resize", &param, &error));
    EXPECT_EQ(crops(param), "0,0,1920,1080:1280,720:10,20,300,200");
    EXPECT_EQ(odd_step(param), nullptr);

    // The first odd step in the order the library looks, the others aside.
    const std::pair<const char *, const char *> odd[] = {
        {"1,1,3,3", "the first crop"},
        {"0,0,640,481:321,200:1,0,2,2", "the first crop"},
        {"0,0,640,480:320,201:1,0,2,2", "the scaled size"},
        {"0,0,640,480:320,200:0,3,2,2", "the second crop"},
    };
    for (const auto &[text, step] : odd) {
        ASSERT_TRUE(parse_resize(text, "--resize", &param, &error)) << text;
        EXPECT_STREQ(odd_step(param), step) << text;
    }
}

TEST(CaptureSyntax, ResizeRefusalsNameTheOptionAndThePartAndKeepTheRecord)
{
    zelvideo::_resize_param_t param{};
    param.scale.width = 77;
    std::string error;
    EXPECT_FALSE(parse_resize("1,2,3", "--resize", &param, &error));
    EXPECT_EQ(error, "--resize takes X,Y,W,H[:SW,SH[:X,Y,W,H]], got '1,2,3'");
    EXPECT_FALSE(parse_resize("0,0,8,8:4", "resize", &param, &error));
    EXPECT_EQ(error, "resize: the scaled size is SW,SH, got '4'");
    EXPECT_FALSE(parse_resize("0,0,8,8:4,4:1,1", "resize", &param, &error));
    EXPECT_EQ(error, "resize: the second crop is X,Y,W,H, got '1,1'");
    EXPECT_FALSE(parse_resize("0,0,8,8:4,4:0,0,4,4:1", "resize", &param, &error));
    EXPECT_EQ(param.scale.width, 77);
}

TEST(CaptureSyntax, DropRatiosAndTheFramesDecimationSkips)
{
    DropRatio ratio;
    ASSERT_TRUE(parse_drop("30/20", &ratio));
    EXPECT_EQ(ratio.total, 30);
    EXPECT_EQ(ratio.drop, 20);
    for (const char *bad : {"30", "0/0", "30/30", "121/1", "30/-1", "a/b", "30/1/1"})
        EXPECT_FALSE(parse_drop(bad, &ratio)) << bad;
    EXPECT_EQ(ratio.total, 30);

    // The library's two rules: one frame in N dropped, or one in N kept.
    for (DropRatio ratio : {DropRatio{30, 0}, DropRatio{30, 10}, DropRatio{30, 15}, DropRatio{30, 20},
                            DropRatio{120, 119}, DropRatio{2, 1}})
        EXPECT_TRUE(one_frame_in_n(ratio)) << ratio.total << "/" << ratio.drop;
    for (DropRatio ratio : {DropRatio{30, 7}, DropRatio{25, 10}, DropRatio{5, 2}, DropRatio{30, 23}})
        EXPECT_FALSE(one_frame_in_n(ratio)) << ratio.total << "/" << ratio.drop;

    EXPECT_FALSE(DecimationRule(DropRatio{30, 0}).active());
    // Dropping one of every two: every even sequence number goes.
    EXPECT_EQ(DecimationRule(DropRatio{30, 15}).skipped_between(1, 10), 5u);
    // Keeping one of every three: two of every three go.
    EXPECT_EQ(DecimationRule(DropRatio{30, 20}).skipped_between(1, 9), 6u);
    EXPECT_TRUE(DecimationRule(DropRatio{30, 15}).skips(4));
    EXPECT_FALSE(DecimationRule(DropRatio{30, 15}).skips(5));
    EXPECT_FALSE(DecimationRule(DropRatio{30, 20}).skips(6));
    EXPECT_TRUE(DecimationRule(DropRatio{30, 20}).skips(7));
    EXPECT_FALSE(DecimationRule(DropRatio{30, 0}).skips(7));
    EXPECT_EQ(DecimationRule(DropRatio{30, 20}).skipped_between(5, 4), 0u);
}

TEST(CaptureSyntax, TriggerModesParametersAndRefusals)
{
    TriggerSetting setting;
    std::string bad;
    ASSERT_EQ(parse_trigger_words({"external", "1", "2", "0"}, false, &setting, &bad), TriggerRefusal::None);
    EXPECT_EQ(setting.mode, TriggerSetting::External);
    EXPECT_EQ(setting.param[1], 2u);
    ASSERT_EQ(parse_trigger_words({"none"}, true, &setting, &bad), TriggerRefusal::None);
    EXPECT_EQ(setting.mode, TriggerSetting::None);

    EXPECT_EQ(parse_trigger_words({"none"}, false, &setting, &bad), TriggerRefusal::Shape);
    EXPECT_EQ(parse_trigger_words({"none", "1"}, true, &setting, &bad), TriggerRefusal::Shape);
    EXPECT_EQ(parse_trigger_words({}, true, &setting, &bad), TriggerRefusal::Shape);
    EXPECT_EQ(parse_trigger_words({"internal", "1", "2", "3", "4"}, true, &setting, &bad), TriggerRefusal::Shape);
    EXPECT_EQ(parse_trigger_words({"internal", "1", "x"}, true, &setting, &bad), TriggerRefusal::Parameter);
    EXPECT_EQ(bad, "x");
    EXPECT_EQ(setting.mode, TriggerSetting::None); // untouched by a refusal
}
