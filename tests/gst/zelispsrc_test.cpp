// zelispsrc_test.cpp - the single-camera source element, in-process on the
// simulated driver with scripted frames.
#include <gst/allocators/allocators.h>
#include <gst/controller/gstdirectcontrolbinding.h>
#include <gst/controller/gstinterpolationcontrolsource.h>
#include <gst/video/colorbalance.h>
#include <gst/video/video.h>
#include <linux/videodev2.h>

#include <set>

#include <functional>

#include "gst_support.h"

namespace zelisp_gst_test {
namespace {

class ZelispSrcTest : public GstTest {};

std::string harness_caps(GstHarness *harness)
{
    GstCaps *caps = gst_pad_get_current_caps(harness->sinkpad);
    if (!caps)
        return "";
    gchar *text = gst_caps_to_string(caps);
    std::string result = text;
    g_free(text);
    gst_caps_unref(caps);
    return result;
}

TEST_F(ZelispSrcTest, RepeatedNullToPlayingToNullDeliversPaintedFramesAndClosesEverything)
{
    zsim::set_frame_mode(0, zsim::FrameMode::Scripted);
    GstHarness *harness = source_harness("zelispsrc camera=0");
    for (int round = 0; round < 3; ++round) {
        push_frames(0, 10 * uint32_t(round) + 100, 2, 1000000 * uint64_t(round + 1));
        gst_harness_play(harness);
        for (int i = 0; i < 2; ++i) {
            GstBuffer *buffer = gst_harness_pull(harness);
            ASSERT_NE(buffer, nullptr);
            uint32_t expected = 10 * uint32_t(round) + 100 + uint32_t(i);
            EXPECT_EQ(painted_number(buffer, 1920, 1080), expected);
            EXPECT_EQ(GST_BUFFER_OFFSET(buffer), expected);
            EXPECT_EQ(gst_buffer_get_size(buffer), 1920u * 1080 * 3 / 2);
            gst_buffer_unref(buffer);
        }
        EXPECT_EQ(harness_caps(harness), "video/x-raw, format=(string)NV12, colorimetry=(string)bt601, "
                                         "width=(int)1920, height=(int)1080, framerate=(fraction)30/1");
        EXPECT_EQ(stats_field(harness->element, "frames"), 2u);
        ASSERT_EQ(gst_element_set_state(harness->element, GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
        EXPECT_EQ(zsim::live_descriptors(), 0u) << "round " << round;
        EXPECT_EQ(zsim::live_mappings(), 0u) << "round " << round;
    }
    gst_harness_teardown(harness);
    EXPECT_EQ(warnings(), std::vector<std::string>());
}

TEST_F(ZelispSrcTest, ABufferHeldPastNullStaysReadableWhileTheCameraIsSetUpAgain)
{
    GstHarness *harness = playing_harness("zelispsrc camera=0", 0, 1, 1);
    GstBuffer *buffer = gst_harness_pull(harness);
    ASSERT_NE(buffer, nullptr);
    ASSERT_EQ(gst_element_set_state(harness->element, GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
    // The camera is closed; the held frame keeps only its own mapping and
    // descriptor of the plane it shows (one of four buffers).
    EXPECT_EQ(zsim::live_descriptors(), 4u);
    EXPECT_EQ(zsim::live_mappings(), 4u);
    // The camera opens again at once, and its new frames do not disturb the
    // held one.
    push_frames(0, 7, 1, 2000000);
    gst_harness_play(harness);
    GstBuffer *next = gst_harness_pull(harness);
    ASSERT_NE(next, nullptr);
    EXPECT_EQ(painted_number(next, 1920, 1080), 7u);
    gst_buffer_unref(next);
    EXPECT_EQ(painted_number(buffer, 1920, 1080), 1u);
    ASSERT_EQ(gst_element_set_state(harness->element, GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
    gst_buffer_unref(buffer);
    EXPECT_EQ(zsim::live_descriptors(), 0u);
    EXPECT_EQ(zsim::live_mappings(), 0u);
    gst_harness_teardown(harness);
}

TEST_F(ZelispSrcTest, CapsFollowEveryViewFormatTheDriverReports)
{
    // The driver describes its RGB as full-range SMPTE 170M, its YUV as
    // BT.601 (limited range).
    struct Case {
        uint32_t fourcc;
        const char *format;
        const char *colorimetry;
        size_t bytes;
    } cases[] = {
        {zsim::kNV12, "NV12", "bt601", 640 * 360 * 3 / 2}, {zsim::kNV21, "NV21", "bt601", 640 * 360 * 3 / 2},
        {zsim::kYUYV, "YUY2", "bt601", 640 * 360 * 2},     {zsim::kGREY, "GRAY8", "bt601", 640 * 360},
        {zsim::kRGB24, "RGB", "1:1:16:4", 640 * 360 * 3},
    };
    for (const Case &c : cases) {
        zsim::CameraConfig config;
        config.views[0] = {c.fourcc, 640, 360};
        zsim::set_camera(2, config);
        GstHarness *harness = playing_harness("zelispsrc camera=2", 2, 5, 1);
        GstBuffer *buffer = gst_harness_pull(harness);
        ASSERT_NE(buffer, nullptr) << c.format;
        EXPECT_EQ(harness_caps(harness), std::string("video/x-raw, format=(string)") + c.format +
                                             ", colorimetry=(string)" + c.colorimetry +
                                             ", width=(int)640, height=(int)360, framerate=(fraction)30/1");
        EXPECT_EQ(gst_buffer_get_size(buffer), c.bytes) << c.format;
        GstVideoMeta *meta = gst_buffer_get_video_meta(buffer);
        ASSERT_NE(meta, nullptr);
        EXPECT_EQ(meta->stride[0], c.fourcc == zsim::kYUYV ? 1280 : c.fourcc == zsim::kRGB24 ? 1920 : 640);
        GstCaps *caps = gst_pad_get_current_caps(harness->sinkpad);
        EXPECT_EQ(painted_number(buffer, caps), 5u) << c.format;
        gst_caps_unref(caps);
        gst_buffer_unref(buffer);
        gst_harness_teardown(harness);
    }
}

TEST_F(ZelispSrcTest, BuffersWrapTheLibraryMappingAndTheExportedDescriptor)
{
    GstHarness *harness = playing_harness("zelispsrc camera=0", 0, 1, 1);
    GstBuffer *buffer = gst_harness_pull(harness);
    ASSERT_NE(buffer, nullptr);
    GstMapInfo map;
    ASSERT_TRUE(gst_buffer_map(buffer, &map, GST_MAP_READ));
    // The plane the driver filled, as the library mapped it: not a copy.
    EXPECT_EQ(mapping_of(map.data).rfind("/memfd:zelisp-sim-plane", 0), 0u) << mapping_of(map.data);
    gst_buffer_unmap(buffer, &map);
    gst_buffer_unref(buffer);
    gst_harness_teardown(harness);

    push_frames(0, 2, 1, 2000000);
    harness = source_harness("zelispsrc camera=0");
    gst_harness_set_sink_caps_str(harness, "video/x-raw(memory:DMABuf)");
    gst_harness_play(harness);
    buffer = gst_harness_pull(harness);
    ASSERT_NE(buffer, nullptr);
    GstMemory *memory = gst_buffer_peek_memory(buffer, 0);
    ASSERT_TRUE(gst_is_dmabuf_memory(memory));
    int fd = gst_dmabuf_memory_get_fd(memory);
    EXPECT_EQ(descriptor_target(fd).rfind("/memfd:zelisp-sim-plane", 0), 0u);
    EXPECT_EQ(gst_memory_get_sizes(memory, nullptr, nullptr), 1920u * 1080 * 3 / 2);
    EXPECT_EQ(stats_field(harness->element, "copied"), 0u);
    gst_buffer_unref(buffer);
    gst_harness_teardown(harness);
    // The descriptors stayed the camera's and closed with it.
    EXPECT_EQ(zsim::live_descriptors(), 0u);
}

TEST_F(ZelispSrcTest, DownstreamHoldingBuffersGetsCopiesAndLosesNoFrame)
{
    GstHarness *harness = playing_harness("zelispsrc camera=0 buffers=4", 0, 1, 8);
    std::vector<GstBuffer *> held;
    for (uint32_t sequence = 1; sequence <= 8; ++sequence) {
        GstBuffer *buffer = gst_harness_pull(harness);
        ASSERT_NE(buffer, nullptr) << "the camera starved at frame " << sequence;
        EXPECT_EQ(GST_BUFFER_OFFSET(buffer), sequence);
        EXPECT_EQ(painted_number(buffer, 1920, 1080), sequence);
        EXPECT_FALSE(GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DISCONT) && sequence > 1);
        GstMapInfo map;
        ASSERT_TRUE(gst_buffer_map(buffer, &map, GST_MAP_READ));
        // Two frames stay wrapped, the rest are copies.
        bool wrapped = mapping_of(map.data).rfind("/memfd:zelisp-sim-plane", 0) == 0;
        EXPECT_EQ(wrapped, sequence <= 2) << "frame " << sequence;
        gst_buffer_unmap(buffer, &map);
        held.push_back(buffer);
    }
    EXPECT_EQ(stats_field(harness->element, "copied"), 6u);
    EXPECT_EQ(stats_field(harness->element, "dropped"), 0u);
    EXPECT_EQ(zsim::counters(0).dropped, 0u);
    for (GstBuffer *buffer : held)
        gst_buffer_unref(buffer);
    // Released: the next frames are wrapped again.
    push_frames(0, 9, 2, 2000000);
    for (int i = 0; i < 2; ++i) {
        GstBuffer *buffer = gst_harness_pull(harness);
        ASSERT_NE(buffer, nullptr);
        gst_buffer_unref(buffer);
    }
    EXPECT_EQ(stats_field(harness->element, "copied"), 6u);
    gst_harness_teardown(harness);
}

TEST_F(ZelispSrcTest, CopiesStopAtMaxCopiesPastWhichFramesAreDroppedAndCounted)
{
    for (bool dmabuf : {false, true}) {
        zsim::reset();
        zsim::set_frame_mode(0, zsim::FrameMode::Scripted);
        push_frames(0, 1, 6);
        GstHarness *harness = source_harness("zelispsrc camera=0 buffers=3 max-copies=2");
        if (dmabuf)
            gst_harness_set_sink_caps_str(harness, "video/x-raw(memory:DMABuf)");
        gst_harness_play(harness);
        // Frame 1 is wrapped and held: the camera keeps two buffers. Frames
        // 2 and 3 are copies, also held; 4 to 6 find no copy left.
        std::vector<GstBuffer *> held;
        for (int i = 0; i < 3; ++i)
            held.push_back(gst_harness_pull(harness));
        ASSERT_TRUE(eventually([&] { return stats_field(harness->element, "copies-exhausted") == 3; }));
        // One copy comes back: frame 7 reuses its memory.
        GstMemory *returned = gst_buffer_peek_memory(held[1], 0);
        int returned_fd = dmabuf ? gst_dmabuf_memory_get_fd(returned) : -1;
        GstMapInfo map;
        ASSERT_TRUE(gst_memory_map(returned, &map, GST_MAP_READ));
        const void *returned_data = map.data;
        gst_memory_unmap(returned, &map);
        gst_buffer_unref(held[1]);
        held.erase(held.begin() + 1);
        push_frames(0, 7, 1, 2000000);
        GstBuffer *seventh = gst_harness_pull(harness);
        ASSERT_NE(seventh, nullptr);
        EXPECT_EQ(GST_BUFFER_OFFSET(seventh), 7u);
        EXPECT_TRUE(GST_BUFFER_FLAG_IS_SET(seventh, GST_BUFFER_FLAG_DISCONT));
        EXPECT_EQ(painted_number(seventh, 1920, 1080), 7u);
        GstMemory *memory = gst_buffer_peek_memory(seventh, 0);
        if (dmabuf) {
            EXPECT_EQ(gst_dmabuf_memory_get_fd(memory), returned_fd);
            EXPECT_EQ(descriptor_target(returned_fd).rfind("/memfd:zelisp-copy", 0), 0u);
        } else {
            ASSERT_TRUE(gst_memory_map(memory, &map, GST_MAP_READ));
            EXPECT_EQ(map.data, returned_data);
            gst_memory_unmap(memory, &map);
        }
        held.push_back(seventh);
        EXPECT_EQ(GST_BUFFER_OFFSET(held[0]), 1u);
        EXPECT_EQ(GST_BUFFER_OFFSET(held[1]), 3u);
        EXPECT_EQ(stats_field(harness->element, "copied"), 3u);
        EXPECT_EQ(stats_field(harness->element, "copies-exhausted"), 3u);
        EXPECT_EQ(stats_field(harness->element, "dropped"), 3u);
        EXPECT_EQ(stats_field(harness->element, "frames"), 4u);
        EXPECT_EQ(zsim::counters(0).dropped, 0u) << "the camera never starved";
        for (GstBuffer *buffer : held)
            gst_buffer_unref(buffer);
        gst_harness_teardown(harness);
    }
}

TEST_F(ZelispSrcTest, SequenceGapsAreDiscontAndRefusedFramesAreCountedNotPushed)
{
    zsim::set_frame_mode(0, zsim::FrameMode::Scripted);
    push_frames(0, 1, 2);           // 1, 2
    push_frames(0, 5, 1, 1200000);  // gap of two
    push_frames(0, 4, 1, 1300000);  // lower than 5: the library refuses it
    push_frames(0, 6, 1, 1400000);
    push_frames(0, 7, 1, 1405000);  // 5 ms after 6 (a sensor faster than the 12 ms rule): refused
    push_frames(0, 8, 1, 1500000);  // a gap, but no frame lost
    GstHarness *harness = source_harness("zelispsrc camera=0");
    gst_harness_play(harness);
    std::vector<guint64> offsets;
    std::vector<bool> discont;
    for (int i = 0; i < 5; ++i) {
        GstBuffer *buffer = gst_harness_pull(harness);
        ASSERT_NE(buffer, nullptr);
        offsets.push_back(GST_BUFFER_OFFSET(buffer));
        discont.push_back(GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DISCONT));
        gst_buffer_unref(buffer);
    }
    EXPECT_EQ(offsets, (std::vector<guint64>{1, 2, 5, 6, 8}));
    // The first buffer starts the stream; a refused frame is a gap in it too.
    EXPECT_EQ(discont, (std::vector<bool>{true, false, true, false, true}));
    EXPECT_EQ(stats_field(harness->element, "frames"), 5u);
    EXPECT_EQ(stats_field(harness->element, "dropped"), 2u);
    EXPECT_EQ(stats_field(harness->element, "refused"), 2u);
    gst_harness_teardown(harness);
}

TEST_F(ZelispSrcTest, DecimationSkipsAreNotCountedAsDrops)
{
    GstHarness *harness = playing_harness("zelispsrc camera=0 drop=30/20", 0, 1, 9);
    std::vector<guint64> offsets;
    for (int i = 0; i < 3; ++i) {
        GstBuffer *buffer = gst_harness_pull(harness);
        ASSERT_NE(buffer, nullptr);
        offsets.push_back(GST_BUFFER_OFFSET(buffer));
        gst_buffer_unref(buffer);
    }
    EXPECT_EQ(offsets, (std::vector<guint64>{3, 6, 9})); // one in three kept
    EXPECT_EQ(stats_field(harness->element, "dropped"), 0u);
    gchar *drop = nullptr;
    g_object_get(harness->element, "drop", &drop, nullptr);
    EXPECT_STREQ(drop, "30/20");
    g_free(drop);
    gst_harness_teardown(harness);
}

TEST_F(ZelispSrcTest, RequestPadsCarryTheOtherViewsOfTheSameFrames)
{
    zsim::set_frame_mode(0, zsim::FrameMode::Scripted);
    push_frames(0, 40, 2);
    GstHarness *harness = source_harness("zelispsrc camera=0 view=1");
    GstPad *view2 = gst_element_request_pad_simple(harness->element, "src_2");
    ASSERT_NE(view2, nullptr);
    EXPECT_STREQ(GST_PAD_NAME(view2), "src_2");
    GstHarness *second = gst_harness_new_with_element(harness->element, nullptr, "src_2");
    gst_harness_play(harness);
    for (uint32_t sequence = 40; sequence < 42; ++sequence) {
        GstBuffer *main_view = gst_harness_pull(harness);
        GstBuffer *other_view = gst_harness_pull(second);
        ASSERT_NE(main_view, nullptr);
        ASSERT_NE(other_view, nullptr);
        EXPECT_EQ(painted_number(main_view, 1280, 720), sequence);
        EXPECT_EQ(painted_number(other_view, 640, 360), sequence);
        EXPECT_EQ(GST_BUFFER_OFFSET(main_view), sequence);
        EXPECT_EQ(GST_BUFFER_OFFSET(other_view), sequence);
        EXPECT_EQ(GST_BUFFER_PTS(main_view), GST_BUFFER_PTS(other_view));
        gst_buffer_unref(main_view);
        gst_buffer_unref(other_view);
    }
    GstCaps *caps = gst_pad_get_current_caps(second->sinkpad);
    EXPECT_EQ(caps_field(caps, "width"), "640");
    gst_caps_unref(caps);
    // The view combination asked of the driver: views 1 and 2.
    std::vector<zsim::LogEntry> inputs = zsim::requests(VIDIOC_S_INPUT);
    ASSERT_EQ(inputs.size(), 1u);
    EXPECT_EQ(*reinterpret_cast<const int *>(inputs[0].raw.data()), 6);

    // No second pad for a view, none past view 2, none once set up.
    EXPECT_EQ(gst_element_request_pad_simple(harness->element, "src_1"), nullptr);
    EXPECT_EQ(gst_element_request_pad_simple(harness->element, "src_0"), nullptr);
    std::vector<std::string> logged = warnings();
    ASSERT_EQ(logged.size(), 2u) << testing::PrintToString(logged);
    EXPECT_NE(logged[0].find("no request pad: view 1 already has a pad"), std::string::npos) << logged[0];
    EXPECT_NE(logged[1].find("request pads in the NULL or READY state"), std::string::npos) << logged[1];
    gst_harness_teardown(second);
    gst_harness_teardown(harness);
    gst_object_unref(view2);
}

TEST_F(ZelispSrcTest, ControlsGoToTheDriverWhilePlayingAndReadBackFromIt)
{
    GstHarness *harness = playing_harness("zelispsrc camera=0 brightness=10 denoise-chroma=9 awb=false", 0, 1, 1);
    GstBuffer *buffer = gst_harness_pull(harness);
    ASSERT_NE(buffer, nullptr);
    gst_buffer_unref(buffer);
    int32_t value = -1;
    ASSERT_TRUE(zsim::control_value(0, V4L2_CID_BRIGHTNESS, &value));
    EXPECT_EQ(value, 10);
    ASSERT_TRUE(zsim::control_value(0, V4L2_CID_AUTO_WHITE_BALANCE, &value));
    EXPECT_EQ(value, 0);
    ASSERT_TRUE(zsim::control_value(0, 0x00981994, &value));
    EXPECT_EQ(value, 9);
    ASSERT_TRUE(zsim::control_value(0, 0x00981993, &value)); // luma denoise kept
    EXPECT_EQ(value, 5);

    g_object_set(harness->element, "contrast", 200u, "gamma", 0xFFFFFFFFu, nullptr);
    ASSERT_TRUE(zsim::control_value(0, V4L2_CID_CONTRAST, &value));
    EXPECT_EQ(value, 200);
    zsim::set_control_value(0, V4L2_CID_HUE, 77);
    guint hue = 0, gamma = 0;
    g_object_get(harness->element, "hue", &hue, "gamma", &gamma, nullptr);
    EXPECT_EQ(hue, 77u); // what the driver holds
    EXPECT_EQ(gamma, 0xFFFFFFFFu);

    // Out of range: GLib refuses it, the driver is not asked.
    zsim::clear_log();
    g_object_set(harness->element, "sharpness", 11u, nullptr);
    EXPECT_TRUE(zsim::requests(VIDIOC_S_CTRL).empty());
    // Refused by the driver: a warning with the library's words, old value kept.
    zsim::fail_request(VIDIOC_S_CTRL, 1, EIO);
    g_object_set(harness->element, "saturation", 3u, nullptr);
    guint saturation = 0;
    g_object_get(harness->element, "saturation", &saturation, nullptr);
    EXPECT_EQ(saturation, 128u);
    std::vector<std::string> logged = warnings();
    ASSERT_EQ(logged.size(), 2u);
    EXPECT_NE(logged[0].find("sharpness"), std::string::npos) << logged[0];
    EXPECT_NE(logged[1].find("refused saturation: isp_camera_set_saturation: a driver request failed, or the frame "
                             "was refused (-11); the value stays as it was"),
              std::string::npos)
        << logged[1];
    gst_harness_teardown(harness);
}

TEST_F(ZelispSrcTest, ManualExposureGainAndWhiteBalanceGainsReachTheDriver)
{
    // The manual records cannot be read back: they show what was sent.
    GstHarness *harness = playing_harness("zelispsrc camera=0 aec=1 exposure=20000 awb=false "
                                          "wb-gains=\"<300, 256, 200>\"",
                                          0, 1, 1);
    GstBuffer *buffer = gst_harness_pull(harness);
    ASSERT_NE(buffer, nullptr);
    gst_buffer_unref(buffer);
    // 36-byte payloads: the exposure words from byte 4, the gains (three
    // times over) from byte 16, little-endian.
    auto word = [](const std::vector<uint8_t> &payload, size_t at) { return payload[at] | payload[at + 1] << 8; };
    std::vector<uint8_t> exposure = zsim::manual_payload(0, 0x00981992);
    EXPECT_EQ(word(exposure, 4), 20000);
    EXPECT_EQ(word(exposure, 6), 0); // gain: the driver's unity
    std::vector<uint8_t> balance = zsim::manual_payload(0, 0x00981991);
    EXPECT_EQ(balance[0], 1u); // the manual flag
    for (size_t triple = 0; triple < 3; ++triple) {
        EXPECT_EQ(word(balance, 16 + 6 * triple), 300);
        EXPECT_EQ(word(balance, 18 + 6 * triple), 256);
        EXPECT_EQ(word(balance, 20 + 6 * triple), 200);
    }
    // While playing; the gain goes with the exposure already set.
    g_object_set(harness->element, "gain", 512u, nullptr);
    exposure = zsim::manual_payload(0, 0x00981992);
    EXPECT_EQ(word(exposure, 4), 20000);
    EXPECT_EQ(word(exposure, 6), 512);
    guint gain = 0;
    g_object_get(harness->element, "gain", &gain, nullptr);
    EXPECT_EQ(gain, 512u);
    GValue gains = G_VALUE_INIT;
    g_value_init(&gains, GST_TYPE_ARRAY);
    g_object_get_property(G_OBJECT(harness->element), "wb-gains", &gains);
    gchar *text = gst_value_serialize(&gains);
    EXPECT_STREQ(text, "< (uint)300, (uint)256, (uint)200 >");
    g_free(text);
    g_value_unset(&gains);
    // Not three gains: refused, nothing sent.
    zsim::clear_log();
    gst_util_set_object_arg(G_OBJECT(harness->element), "wb-gains", "<1, 2>");
    EXPECT_TRUE(zsim::requests(VIDIOC_S_EXT_CTRLS).empty());
    std::vector<std::string> logged = warnings();
    ASSERT_EQ(logged.size(), 1u);
    EXPECT_NE(logged[0].find("refused wb-gains: wb-gains takes three gains (red, green, blue), got 2"),
              std::string::npos)
        << logged[0];
    gst_harness_teardown(harness);
}

TEST_F(ZelispSrcTest, TuningPropertiesAreControllableAndFollowTheirControlSource)
{
    GstElement *element = gst_element_factory_make("zelispsrc", nullptr);
    for (const char *name : {"brightness", "contrast", "saturation", "hue", "gamma", "sharpness", "denoise-luma",
                             "denoise-chroma", "awb", "aec", "exposure", "gain", "wb-gains"}) {
        GParamSpec *pspec = g_object_class_find_property(G_OBJECT_GET_CLASS(element), name);
        ASSERT_NE(pspec, nullptr) << name;
        EXPECT_TRUE(pspec->flags & GST_PARAM_CONTROLLABLE) << name;
    }
    gst_object_unref(element);

    // Brightness 40 from the start, 200 from 10 s: the first frames get 40.
    zsim::set_frame_mode(0, zsim::FrameMode::Scripted);
    push_frames(0, 1, 2);
    GstHarness *harness = source_harness("zelispsrc camera=0");
    GstControlSource *source = gst_interpolation_control_source_new();
    g_object_set(source, "mode", GST_INTERPOLATION_MODE_NONE, nullptr);
    GstTimedValueControlSource *timed = GST_TIMED_VALUE_CONTROL_SOURCE(source);
    gst_timed_value_control_source_set(timed, 0, 40.0);
    gst_timed_value_control_source_set(timed, 10 * GST_SECOND, 200.0);
    gst_object_add_control_binding(GST_OBJECT(harness->element),
                                   gst_direct_control_binding_new_absolute(GST_OBJECT(harness->element),
                                                                           "brightness", source));
    gst_object_unref(source);
    gst_harness_play(harness);
    for (int i = 0; i < 2; ++i)
        gst_buffer_unref(gst_harness_pull(harness));
    int32_t value = -1;
    ASSERT_TRUE(zsim::control_value(0, V4L2_CID_BRIGHTNESS, &value));
    EXPECT_EQ(value, 40);
    gst_harness_teardown(harness);
}

TEST_F(ZelispSrcTest, ColourBalanceChannelsAreThePictureControls)
{
    GstHarness *harness = playing_harness("zelispsrc camera=0", 0, 1, 1);
    gst_buffer_unref(gst_harness_pull(harness));
    ASSERT_TRUE(GST_IS_COLOR_BALANCE(harness->element));
    GstColorBalance *balance = GST_COLOR_BALANCE(harness->element);
    EXPECT_EQ(gst_color_balance_get_balance_type(balance), GST_COLOR_BALANCE_HARDWARE);
    std::vector<std::string> labels;
    GstColorBalanceChannel *saturation = nullptr;
    for (const GList *item = gst_color_balance_list_channels(balance); item; item = item->next) {
        auto *channel = static_cast<GstColorBalanceChannel *>(item->data);
        labels.push_back(channel->label);
        EXPECT_EQ(channel->min_value, 0);
        EXPECT_EQ(channel->max_value, 255);
        if (labels.back() == "SATURATION")
            saturation = channel;
    }
    EXPECT_EQ(labels, (std::vector<std::string>{"BRIGHTNESS", "CONTRAST", "SATURATION", "HUE"}));
    ASSERT_NE(saturation, nullptr);
    gst_color_balance_set_value(balance, saturation, 200);
    int32_t value = -1;
    ASSERT_TRUE(zsim::control_value(0, V4L2_CID_SATURATION, &value));
    EXPECT_EQ(value, 200);
    zsim::set_control_value(0, V4L2_CID_SATURATION, 90);
    EXPECT_EQ(gst_color_balance_get_value(balance, saturation), 90); // what the driver holds
    gst_harness_teardown(harness);
}

TEST_F(ZelispSrcTest, BadPropertyTextsAreRefusedAndTheOldValueKept)
{
    GstElement *element = gst_element_factory_make("zelispsrc", "cam");
    g_object_set(element, "drop", "30/10", "resize", "0,0,1280,720:640,360", nullptr);
    g_object_set(element, "drop", "7/9", "resize", "1,2,3", "buffers", 9, nullptr);
    gchar *drop = nullptr, *resize = nullptr;
    int buffers = 0;
    g_object_get(element, "drop", &drop, "resize", &resize, "buffers", &buffers, nullptr);
    EXPECT_STREQ(drop, "30/10");
    EXPECT_STREQ(resize, "0,0,1280,720:640,360:0,0,640,360");
    EXPECT_EQ(buffers, 4);
    g_free(drop);
    g_free(resize);
    std::vector<std::string> logged = warnings();
    ASSERT_EQ(logged.size(), 3u);
    EXPECT_EQ(logged[0], "cam: refused drop: drop takes TOTAL/DROP, DROP frames dropped out of every TOTAL (1 <= "
                         "TOTAL <= 120, DROP < TOTAL), got '7/9'; the value stays as it was");
    EXPECT_EQ(logged[1], "cam: refused resize: resize takes X,Y,W,H[:SW,SH[:X,Y,W,H]], got '1,2,3'; the value "
                         "stays as it was");
    EXPECT_NE(logged[2].find("buffers"), std::string::npos);
    gst_object_unref(element);
}

TEST_F(ZelispSrcTest, LibraryFailuresPostTheCallAndTheLibraryWords)
{
    struct Case {
        const char *description;
        std::function<void()> fault;
        const char *error;
    } cases[] = {
        {"zelispsrc camera=7", [] {}, "camera 7 does not exist: the platform lists cameras 0,1,2,3"},
        {"zelispsrc camera=2", [] { zsim::set_open_errno("/dev/video2", EACCES); },
         "isp_open_video: camera 2 could not be opened in mode 1: video device /dev/video2 open failed"},
        {"zelispsrc camera=0", [] { zsim::fail_request(VIDIOC_REQBUFS, 1, EIO); },
         "isp_init_video: a driver request failed, or the frame was refused (-11)"},
        {"zelispsrc camera=0 drop=30/7", [] {},
         "isp_set_frame_drop_num: invalid argument (-15)"},
        {"zelispsrc camera=0 resize=0,0,4000,720", [] {},
         "isp_init_video: a driver request failed, or the frame was refused (-11)"},
        {"zelispsrc camera=0 timeout-ms=50", [] { zsim::set_frame_mode(0, zsim::FrameMode::Scripted); },
         "isp_get_frame_buf: no frame arrived within the time limit (-13)"},
        {"zelispsrc camera=0", [] {
             zsim::set_frame_mode(0, zsim::FrameMode::Scripted);
             push_frames(0, 1, 1);
             zsim::fail_request(VIDIOC_DQBUF, 1, EIO, "", 200);
         },
         "isp_get_frame_buf: a driver request failed, or the frame was refused (-11)"},
    };
    for (const Case &c : cases) {
        zsim::reset();
        c.fault();
        GstHarness *harness = source_harness(c.description);
        gst_element_set_state(harness->element, GST_STATE_PLAYING);
        gst_element_get_state(harness->element, nullptr, nullptr, GST_CLOCK_TIME_NONE);
        // A failure at start fails the state change; a streaming failure
        // ends the stream: either way the error is on the bus.
        std::string text;
        GstBus *bus = gst_element_get_bus(harness->element);
        GstMessage *message = gst_bus_timed_pop_filtered(bus, 60 * GST_SECOND, GST_MESSAGE_ERROR);
        gst_object_unref(bus);
        ASSERT_NE(message, nullptr) << c.description;
        GError *error = nullptr;
        gst_message_parse_error(message, &error, nullptr);
        EXPECT_EQ(std::string(error->message), c.error) << c.description;
        g_error_free(error);
        gst_message_unref(message);
        gst_element_set_state(harness->element, GST_STATE_NULL);
        EXPECT_EQ(zsim::live_descriptors(), 0u) << c.description;
        EXPECT_EQ(zsim::live_mappings(), 0u) << c.description;
        gst_harness_teardown(harness);
    }
}

} // namespace
} // namespace zelisp_gst_test
