/* The crop / scale / crop record: validation when stored, edges sent at Init. */
#include <cerrno>

#include "camera_fixture.h"

namespace zelisp_test {
namespace {

constexpr uint32_t kSetResize = 0x401656cf;

zelvideo::_resize_param_t Record(zelvideo::_resize_crop_t before, zelvideo::_resize_scale_t scale,
                                 zelvideo::_resize_crop_t after, uint8_t sel = 0)
{
    zelvideo::_resize_param_t record = {};
    record.cropBefore = before;
    record.scale = scale;
    record.cropAfter = after;
    record.sel = sel;
    return record;
}

// The 11 words the driver received with each resize request.
std::vector<std::vector<uint16_t>> SentResizes()
{
    std::vector<std::vector<uint16_t>> sent;
    for (const zsim::LogEntry &entry : zsim::requests(kSetResize)) {
        std::vector<uint16_t> words(11);
        EXPECT_EQ(entry.raw.size(), 22u);
        std::memcpy(words.data(), entry.raw.data(), std::min<size_t>(entry.raw.size(), 22));
        sent.push_back(words);
    }
    return sent;
}

using Resize = CameraTest;

TEST_F(Resize, StoredRecordReachesTheDriverAsEdgesAtInit)
{
    unsigned long handle = Open();
    auto record = Record({16, 8, 640, 480}, {0, 0}, {0, 0, 640, 480});
    OutputCapture output;
    EXPECT_EQ(isp_resize_resolution(handle, &record), ISP_OK);
    output.Stop();
    EXPECT_EQ(output.out(), "cropBefore [640,480], scale [0,0], cropAfter[640,480]\n");
    EXPECT_TRUE(zsim::requests(kSetResize).empty());
    ASSERT_EQ(isp_init_video(handle, 7, 3), ISP_OK);
    auto sent = SentResizes();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0], (std::vector<uint16_t>{8, 488, 16, 656, 0, 480, 0, 640, 640, 480, 0}));
    // Sent after the formats, before the buffers.
    auto names = RequestNames();
    auto at = std::find(names.begin(), names.end(), zsim::requests(kSetResize)[0].name);
    EXPECT_EQ(*(at - 1), "VIDIOC_S_FMT");
    EXPECT_EQ(*(at + 1), "VIDIOC_REQBUFS");
}

TEST_F(Resize, ScaleIsSentAsGivenUnlessBothAreZero)
{
    unsigned long handle = Open();
    auto record = Record({0, 0, 1280, 720}, {320, 0}, {0, 0, 320, 0});
    ASSERT_EQ(isp_resize_resolution(handle, &record), ISP_OK);
    zsim::fail_request(kSetResize, 1, EINVAL); // the driver judges the second crop
    OutputCapture output;
    EXPECT_EQ(isp_init_video(handle, 7, 3), ISP_ERR_REQUEST);
    output.Stop();
    EXPECT_EQ(output.err(), Perror("Resize resolution", EINVAL) + Perror("Resize Failed\n", EINVAL));
    auto sent = SentResizes();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0][8], 320);
    EXPECT_EQ(sent[0][9], 0);
}

TEST_F(Resize, InvalidRecordIsRefusedAndTheStoredOneKept)
{
    unsigned long handle = Open();
    auto good = Record({2, 2, 640, 480}, {0, 0}, {0, 0, 640, 480});
    ASSERT_EQ(isp_resize_resolution(handle, &good), ISP_OK);

    auto bad_sel = Record({0, 0, 640, 480}, {0, 0}, {0, 0, 640, 480}, 3);
    auto odd_before = Record({1, 0, 640, 480}, {0, 0}, {0, 0, 641, 480});
    auto odd_scale = Record({0, 0, 640, 480}, {321, 240}, {0, 0, 641, 480});
    auto odd_after = Record({0, 0, 640, 480}, {0, 0}, {0, 3, 640, 480});
    OutputCapture output;
    errno = 0;
    EXPECT_EQ(isp_resize_resolution(handle, &bad_sel), ISP_ERR_INVALID);
    EXPECT_EQ(isp_resize_resolution(handle, &odd_before), ISP_ERR_INVALID);
    EXPECT_EQ(isp_resize_resolution(handle, &odd_scale), ISP_ERR_INVALID);
    EXPECT_EQ(isp_resize_resolution(handle, &odd_after), ISP_ERR_INVALID);
    EXPECT_EQ(isp_resize_resolution(handle, nullptr), ISP_ERR_INVALID);
    EXPECT_EQ(isp_resize_resolution(0, &good), ISP_ERR_INVALID);
    output.Stop();
    EXPECT_EQ(output.out(), "cropBefore [640,480], scale [0,0], cropAfter[641,480]\n"
                            "cropBefore [640,480], scale [321,240], cropAfter[641,480]\n"
                            "cropBefore [640,480], scale [0,0], cropAfter[640,480]\n");
    EXPECT_EQ(output.err(), Perror("Invailed cropBefore param: odd number!\n", 0) +
                                Perror("Invailed scale param: odd number!\n", 0) +
                                Perror("Invailed cropAfter param: odd number!\n", 0));
    EXPECT_EQ(std::memcmp(&Video(handle).resize_param, &good, sizeof(good)), 0);
}

TEST_F(Resize, AllZeroRecordMeansNoResizeButSelAloneCounts)
{
    unsigned long cancelled = Open(0);
    auto good = Record({0, 0, 640, 480}, {0, 0}, {0, 0, 640, 480});
    auto zero = Record({0, 0, 0, 0}, {0, 0}, {0, 0, 0, 0});
    ASSERT_EQ(isp_resize_resolution(cancelled, &good), ISP_OK);
    ASSERT_EQ(isp_resize_resolution(cancelled, &zero), ISP_OK);
    ASSERT_EQ(isp_init_video(cancelled, 7, 3), ISP_OK);
    EXPECT_TRUE(zsim::requests(kSetResize).empty());

    unsigned long sel_only = Open(1);
    auto sel = Record({0, 0, 0, 0}, {0, 0}, {0, 0, 0, 0}, 2);
    ASSERT_EQ(isp_resize_resolution(sel_only, &sel), ISP_OK);
    ASSERT_EQ(isp_init_video(sel_only, 7, 3), ISP_OK);
    EXPECT_EQ(SentResizes(), (std::vector<std::vector<uint16_t>>{std::vector<uint16_t>(11, 0)}));

    unsigned long mode2 = Open(2, 2);
    ASSERT_EQ(isp_resize_resolution(mode2, &good), ISP_OK);
    ASSERT_EQ(isp_init_video(mode2, 7, 3), ISP_OK);
    EXPECT_EQ(zsim::requests(kSetResize).size(), 1u);
}

TEST_F(Resize, FirstCropMustFitViewOne)
{
    unsigned long handle = Open();
    auto wide = Record({2, 0, 1280, 720}, {0, 0}, {0, 0, 640, 480});
    auto tall = Record({0, 2, 1280, 720}, {0, 0}, {0, 0, 640, 480});
    auto exact = Record({0, 0, 1280, 720}, {0, 0}, {0, 0, 640, 480});
    for (auto [record, line] : {std::pair{wide, "invalid corp_before width param: 1282\n"},
                                std::pair{tall, "invalid corp_before height param: 722\n"}}) {
        ASSERT_EQ(isp_resize_resolution(handle, &record), ISP_OK);
        OutputCapture output;
        EXPECT_EQ(isp_init_video(handle, 7, 3), ISP_ERR_REQUEST);
        output.Stop();
        EXPECT_NE(output.out().find(line), std::string::npos);
        EXPECT_EQ(output.err().rfind("Resize Failed\n: ", 0), 0u); // errno is whatever it was
    }
    EXPECT_TRUE(zsim::requests(kSetResize).empty());
    ASSERT_EQ(isp_resize_resolution(handle, &exact), ISP_OK);
    EXPECT_EQ(isp_init_video(handle, 7, 3), ISP_OK);
}

} // namespace
} // namespace zelisp_test
