/* Frame decimation: which ratios are kept, and which sequence numbers come out. */
#include "camera_fixture.h"

namespace zelisp_test {
namespace {

using Decimation = CameraTest;
using zelisp::DECIMATION_DROP_ONE;
using zelisp::DECIMATION_KEEP_ONE;

TEST_F(Decimation, RatioBecomesOneRuleOrIsRefusedLeavingTheLast)
{
    const zelisp::IspVideo &video = Video(Open());
    const struct {
        int total, drop, result;
        uint32_t mode, interval;
    } cases[] = {
        {30, 10, ISP_OK, DECIMATION_DROP_ONE, 3},    {30, 20, ISP_OK, DECIMATION_KEEP_ONE, 3},
        {30, 15, ISP_OK, DECIMATION_DROP_ONE, 2},    {25, 10, ISP_ERR_INVALID, DECIMATION_DROP_ONE, 2},
        {120, 119, ISP_OK, DECIMATION_KEEP_ONE, 120}, {5, 2, ISP_ERR_INVALID, DECIMATION_KEEP_ONE, 120},
        {121, 1, ISP_ERR_INVALID, DECIMATION_KEEP_ONE, 120}, {0, 0, ISP_ERR_INVALID, DECIMATION_KEEP_ONE, 120},
        {10, 10, ISP_ERR_INVALID, DECIMATION_KEEP_ONE, 120}, {10, -1, ISP_ERR_INVALID, DECIMATION_KEEP_ONE, 120},
        {30, 0, ISP_OK, zelisp::DECIMATION_OFF, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.total << "/" << c.drop);
        EXPECT_EQ(isp_set_frame_drop_num(handles_[0], c.total, c.drop), c.result);
        EXPECT_EQ(video.decimation_mode, c.mode);
        EXPECT_EQ(c.mode == DECIMATION_DROP_ONE ? video.drop_interval
                  : c.mode == DECIMATION_KEEP_ONE ? video.keep_interval : 0u, c.interval);
    }
    EXPECT_EQ(isp_set_frame_drop_num(0, 30, 10), ISP_ERR_INVALID);
}

// Pushes frames 0..frames-1 (40 ms apart) and takes `returned` of them.
std::vector<uint32_t> ExpectedSequences(unsigned long handle, int frames, int returned)
{
    for (int i = 0; i < frames; ++i)
        Push(uint32_t(i), 1000000 + uint64_t(i) * 40000);
    std::vector<uint32_t> sequences;
    zelvideo::_isp_buf_t frame;
    for (int i = 0; i < returned; ++i) {
        EXPECT_EQ(isp_get_expected_frame(handle, &frame, 5000), ISP_OK);
        sequences.push_back(frame.views[1].sequence);
        EXPECT_EQ(isp_put_frame_buf(handle, &frame), ISP_OK);
    }
    return sequences;
}

TEST_F(Decimation, DropOneInThreeSkipsMultiplesOfThree)
{
    unsigned long handle = Capturing(2, 3); // view 1 only
    ASSERT_EQ(isp_set_frame_drop_num(handle, 30, 10), ISP_OK);
    EXPECT_EQ(ExpectedSequences(handle, 9, 6), (std::vector<uint32_t>{1, 2, 4, 5, 7, 8}));
    EXPECT_EQ(zsim::counters(0).delivered, 9u);
}

TEST_F(Decimation, KeepOneInThreeReturnsMultiplesOfThreeAndTimesOutUntouched)
{
    unsigned long handle = Capturing(2, 3);
    ASSERT_EQ(isp_set_frame_drop_num(handle, 30, 20), ISP_OK);
    EXPECT_EQ(ExpectedSequences(handle, 8, 3), (std::vector<uint32_t>{0, 3, 6}));
    zelvideo::_isp_buf_t frame;
    std::memset(&frame, 0xAB, sizeof(frame));
    EXPECT_EQ(isp_get_expected_frame(handle, &frame, 30), ISP_ERR_TIMEOUT); // 7 dropped, then nothing
    EXPECT_EQ(frame.index, 0xABABABABu);
    EXPECT_EQ(isp_get_expected_frame(handle, nullptr, 30), ISP_ERR_INVALID);
}

} // namespace
} // namespace zelisp_test
