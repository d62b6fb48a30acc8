/* The crop / scale / crop record: validated when stored, sent as edges at Init. */
#include <cerrno>

#include "driver/isp_requests.h"
#include "camera_fixture.h"

namespace zelisp_test {
namespace {

using Words = std::vector<uint16_t>;

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

// The 11 words of each resize request the driver received.
std::vector<Words> SentResizes()
{
    std::vector<Words> sent;
    for (const zsim::LogEntry &entry : zsim::requests(zelisp::VIDIOC_ISP_SET_RESIZE)) {
        EXPECT_EQ(entry.raw.size(), 22u);
        Words words(11);
        std::memcpy(words.data(), entry.raw.data(), std::min<size_t>(entry.raw.size(), 22));
        sent.push_back(words);
    }
    return sent;
}

using Resize = CameraTest;

TEST_F(Resize, StoredRecordReachesTheDriverAsEdgesAtInit)
{
    unsigned long crop = Open(0);
    unsigned long scale = Open(1);
    auto record = Record({16, 8, 640, 480}, {0, 0}, {0, 0, 640, 480});
    auto scaled = Record({0, 0, 1280, 720}, {320, 0}, {0, 0, 320, 0});
    Call call = Captured([&] { return isp_resize_resolution(crop, &record); });
    EXPECT_EQ(call.result, ISP_OK);
    EXPECT_EQ(call.out, "cropBefore [640,480], scale [0,0], cropAfter[640,480]\n");
    ASSERT_EQ(isp_resize_resolution(scale, &scaled), ISP_OK);
    EXPECT_TRUE(zsim::requests(zelisp::VIDIOC_ISP_SET_RESIZE).empty());

    ASSERT_EQ(isp_init_video(crop, 7, 3), ISP_OK);
    ASSERT_EQ(isp_init_video(scale, 7, 3), ISP_OK);
    EXPECT_EQ(SentResizes(), (std::vector<Words>{{8, 488, 16, 656, 0, 480, 0, 640, 640, 480, 0},
                                                 {0, 720, 0, 1280, 0, 0, 0, 320, 320, 0, 0}}));
    // Between the formats and the buffers.
    auto log = zsim::request_log();
    auto at = std::find_if(log.begin(), log.end(), [](auto &e) { return e.request == zelisp::VIDIOC_ISP_SET_RESIZE; });
    EXPECT_EQ((at - 1)->name, "VIDIOC_S_FMT");
    EXPECT_EQ((at + 1)->name, "VIDIOC_REQBUFS");
}

TEST_F(Resize, InvalidRecordIsRefusedAndTheStoredOneKept)
{
    unsigned long handle = Open();
    auto good = Record({2, 2, 640, 480}, {0, 0}, {0, 0, 640, 480});
    ASSERT_EQ(isp_resize_resolution(handle, &good), ISP_OK);
    const zelvideo::_resize_param_t bad[] = {
        Record({0, 0, 640, 480}, {0, 0}, {0, 0, 640, 480}, 3),
        Record({1, 0, 640, 480}, {0, 0}, {0, 0, 641, 480}),
        Record({0, 0, 640, 480}, {321, 240}, {0, 0, 641, 480}),
        Record({0, 0, 640, 480}, {0, 0}, {0, 3, 640, 480}),
    };
    Call call = Captured([&] {
        errno = 0;
        for (const auto &record : bad)
            EXPECT_EQ(isp_resize_resolution(handle, &record), ISP_ERR_INVALID);
        EXPECT_EQ(isp_resize_resolution(0, &good), ISP_ERR_INVALID);
        return isp_resize_resolution(handle, nullptr);
    });
    EXPECT_EQ(call.result, ISP_ERR_INVALID);
    EXPECT_EQ(call.out, "cropBefore [640,480], scale [0,0], cropAfter[641,480]\n"
                        "cropBefore [640,480], scale [321,240], cropAfter[641,480]\n"
                        "cropBefore [640,480], scale [0,0], cropAfter[640,480]\n");
    EXPECT_EQ(call.err, Perror("Invailed cropBefore param: odd number!\n", 0) +
                            Perror("Invailed scale param: odd number!\n", 0) +
                            Perror("Invailed cropAfter param: odd number!\n", 0));
    EXPECT_EQ(std::memcmp(&Video(handle).resize_param, &good, sizeof(good)), 0);
}

TEST_F(Resize, AllZeroRecordMeansNoResizeButSelAloneCounts)
{
    auto good = Record({0, 0, 640, 480}, {0, 0}, {0, 0, 640, 480});
    auto zero = Record({0, 0, 0, 0}, {0, 0}, {0, 0, 0, 0});
    auto sel = Record({0, 0, 0, 0}, {0, 0}, {0, 0, 0, 0}, 2);
    unsigned long cancelled = Open(0);
    unsigned long sel_only = Open(1);
    unsigned long mode2 = Open(2, 2);
    for (auto [handle, record] : {std::pair{cancelled, &good}, {cancelled, &zero}, {sel_only, &sel}, {mode2, &good}})
        ASSERT_EQ(isp_resize_resolution(handle, record), ISP_OK);
    for (unsigned long handle : {cancelled, sel_only, mode2})
        ASSERT_EQ(isp_init_video(handle, 7, 3), ISP_OK);
    EXPECT_EQ(SentResizes(), std::vector<Words>{Words(11, 0)}); // sel_only's alone
    EXPECT_EQ(zsim::requests(zelisp::VIDIOC_ISP_SET_RESIZE)[0].path, "/dev/video1");
}

TEST_F(Resize, FirstCropMustFitViewOneAndTheDriverJudgesTheRest)
{
    unsigned long handle = Open();
    auto wide = Record({2, 0, 1280, 720}, {0, 0}, {0, 0, 640, 480});
    auto tall = Record({0, 2, 1280, 720}, {0, 0}, {0, 0, 640, 480});
    auto exact = Record({0, 0, 1280, 720}, {0, 0}, {0, 0, 640, 480});
    for (auto [record, line] : {std::pair{&wide, "invalid corp_before width param: 1282\n"},
                                {&tall, "invalid corp_before height param: 722\n"}}) {
        ASSERT_EQ(isp_resize_resolution(handle, record), ISP_OK);
        Call call = Captured([&] { return isp_init_video(handle, 7, 3); });
        EXPECT_EQ(call.result, ISP_ERR_REQUEST);
        EXPECT_NE(call.out.find(line), std::string::npos);
        EXPECT_EQ(call.err.rfind("Resize Failed\n: ", 0), 0u); // errno is whatever it was
    }
    EXPECT_TRUE(zsim::requests(zelisp::VIDIOC_ISP_SET_RESIZE).empty());

    ASSERT_EQ(isp_resize_resolution(handle, &exact), ISP_OK);
    zsim::fail_request(zelisp::VIDIOC_ISP_SET_RESIZE, 1, EINVAL);
    Call refused = Captured([&] { return isp_init_video(handle, 7, 3); });
    EXPECT_EQ(refused.result, ISP_ERR_REQUEST);
    EXPECT_EQ(refused.err, Perror("Resize resolution", EINVAL) + Perror("Resize Failed\n", EINVAL));
    EXPECT_EQ(isp_init_video(handle, 7, 3), ISP_OK);
}

} // namespace
} // namespace zelisp_test
