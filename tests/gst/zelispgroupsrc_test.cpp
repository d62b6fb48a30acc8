// zelispgroupsrc_test.cpp - the camera group source element, in-process on
// the simulated driver with scripted frames.
#include <gst/app/gstappsink.h>
#include <linux/videodev2.h>

#include "gst_support.h"

namespace zelisp_gst_test {
namespace {

class ZelispGroupSrcTest : public GstTest {
protected:
    GstElement *pipeline_ = nullptr;

    void launch(const std::string &description)
    {
        GError *error = nullptr;
        pipeline_ = gst_parse_launch(description.c_str(), &error);
        ASSERT_NE(pipeline_, nullptr) << (error ? error->message : "");
    }
    GstSample *pull(const char *sink)
    {
        GstElement *element = gst_bin_get_by_name(GST_BIN(pipeline_), sink);
        GstSample *sample = gst_app_sink_try_pull_sample(GST_APP_SINK(element), 60 * GST_SECOND);
        gst_object_unref(element);
        return sample;
    }
    GstElement *group() { return gst_bin_get_by_name(GST_BIN(pipeline_), "g"); }
    std::string bus_error() { return error_text(pipeline_, 60 * GST_SECOND); }
    void TearDown() override
    {
        if (pipeline_) {
            gst_element_set_state(pipeline_, GST_STATE_NULL);
            gst_object_unref(pipeline_);
        }
        GstTest::TearDown();
    }
};

TEST_F(ZelispGroupSrcTest, EveryMemberPushesItsFrameOfEachSetWithTheSetsPts)
{
    for (int node : {0, 1, 3})
        zsim::set_frame_mode(node, zsim::FrameMode::Scripted);
    launch("zelispgroupsrc name=g cameras=0,1,3 trigger=internal,2,7 "
           "g.src_0 ! queue ! appsink name=a0 g.src_1 ! queue ! appsink name=a1 g.src_3 ! queue ! appsink name=a3");
    ASSERT_NE(gst_element_set_state(pipeline_, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    for (uint32_t sequence = 20; sequence < 23; ++sequence) {
        // Camera 3 captures 300 us later than camera 0, camera 1 120 us later.
        uint64_t time = 5000000 + (sequence - 20) * 40000;
        push_frames(0, sequence, 1, time);
        push_frames(1, sequence, 1, time + 120);
        push_frames(3, sequence, 1, time + 300);
        GstClockTime pts[3];
        const char *sinks[3] = {"a0", "a1", "a3"};
        for (int i = 0; i < 3; ++i) {
            GstSample *sample = pull(sinks[i]);
            ASSERT_NE(sample, nullptr) << sinks[i];
            GstBuffer *buffer = gst_sample_get_buffer(sample);
            EXPECT_EQ(GST_BUFFER_OFFSET(buffer), sequence);
            EXPECT_EQ(painted_number(buffer, 1920, 1080), sequence);
            pts[i] = GST_BUFFER_PTS(buffer);
            gst_sample_unref(sample);
        }
        EXPECT_EQ(pts[0], pts[1]);
        EXPECT_EQ(pts[0], pts[2]);
    }
    GstElement *element = group();
    EXPECT_EQ(stats_field(element, "frames"), 3u);
    EXPECT_EQ(stats_field(element, "skew-us"), 300u);
    EXPECT_EQ(stats_field(element, "max-skew-us"), 300u);
    EXPECT_EQ(stats_field(element, "copied"), 0u); // each set released before the next
    gst_object_unref(element);
    EXPECT_EQ(zsim::trigger_mode(), zsim::TriggerMode::Internal);
    std::vector<zsim::LogEntry> trigger = zsim::requests(0x80047943);
    ASSERT_EQ(trigger.size(), 1u);
    EXPECT_EQ(trigger[0].detail,
              "trigger_mode=0 trigger_param1=2 internal_param3=0 trigger_param2=7 external_param3=0");
}

TEST_F(ZelispGroupSrcTest, PadsFollowTheCameraListAndBadTextsAreRefused)
{
    GstElement *element = gst_element_factory_make("zelispgroupsrc", "g");
    g_object_set(element, "cameras", "4,2,11", "views", "2,0", nullptr);
    std::vector<std::string> names;
    for (GList *pad = GST_ELEMENT(element)->srcpads; pad; pad = pad->next)
        names.push_back(GST_PAD_NAME(pad->data));
    EXPECT_EQ(names, (std::vector<std::string>{"src_4", "src_2", "src_11"}));
    g_object_set(element, "cameras", "1,1", "views", "3", "trigger", "sometimes", nullptr);
    g_object_set(element, "cameras", "0,1,2,3,4,5,6,7,8", nullptr);
    gchar *cameras = nullptr, *views = nullptr, *trigger = nullptr;
    g_object_get(element, "cameras", &cameras, "views", &views, "trigger", &trigger, nullptr);
    EXPECT_STREQ(cameras, "4,2,11");
    EXPECT_STREQ(views, "0,2");
    EXPECT_STREQ(trigger, "none");
    g_free(cameras);
    g_free(views);
    g_free(trigger);
    EXPECT_EQ(warnings(), (std::vector<std::string>{
                              "g: refused cameras: '1,1' names 1 twice; the value stays as it was",
                              "g: refused views: '3' is not a list of numbers 0..2 separated by commas; the value "
                              "stays as it was",
                              "g: refused trigger: trigger takes none, or internal|external and up to three "
                              "parameters, got 'sometimes'; the value stays as it was",
                              "g: refused cameras: '0,1,2,3,4,5,6,7,8' names more than 8; the value stays as it was",
                          }));
    gst_object_unref(element);
}

// The luma of the white bar (the first of eight), three quarters down.
int white_bar_luma(GstSample *sample)
{
    GstBuffer *buffer = gst_sample_get_buffer(sample);
    GstMapInfo map;
    if (!gst_buffer_map(buffer, &map, GST_MAP_READ))
        return -1;
    int luma = map.data[size_t(1080 * 3 / 4) * 1920 + 1920 / 16];
    gst_buffer_unmap(buffer, &map);
    return luma;
}

TEST_F(ZelispGroupSrcTest, MembersAreChildObjectsTunedLikeElements)
{
    // The sensor's white is luma 180; brightness B adds B - 128.
    launch("zelispgroupsrc name=g cameras=0,2 g::cam2::brightness=40 "
           "g.src_0 ! queue ! appsink name=a0 g.src_2 ! queue ! appsink name=a2");
    GstElement *element = group();
    EXPECT_EQ(gst_child_proxy_get_children_count(GST_CHILD_PROXY(element)), 2u);
    ASSERT_NE(gst_element_set_state(pipeline_, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    for (int set = 0; set < 3; ++set) {
        GstSample *first = pull("a0"), *second = pull("a2");
        ASSERT_NE(first, nullptr);
        ASSERT_NE(second, nullptr);
        EXPECT_EQ(white_bar_luma(first), 180) << "set " << set;
        EXPECT_EQ(white_bar_luma(second), 92) << "set " << set;
        gst_sample_unref(first);
        gst_sample_unref(second);
    }
    int32_t value = -1;
    ASSERT_TRUE(zsim::control_value(2, V4L2_CID_BRIGHTNESS, &value));
    EXPECT_EQ(value, 40);
    ASSERT_TRUE(zsim::control_value(0, V4L2_CID_BRIGHTNESS, &value));
    EXPECT_EQ(value, 128);
    // From code, while playing, through the pipeline's own path too.
    gst_child_proxy_set(GST_CHILD_PROXY(element), "cam0::contrast", 200u, nullptr);
    gst_child_proxy_set(GST_CHILD_PROXY(pipeline_), "g::cam0::sharpness", 9u, nullptr);
    ASSERT_TRUE(zsim::control_value(0, V4L2_CID_CONTRAST, &value));
    EXPECT_EQ(value, 200);
    ASSERT_TRUE(zsim::control_value(0, V4L2_CID_SHARPNESS, &value));
    EXPECT_EQ(value, 9);
    zsim::set_control_value(2, V4L2_CID_HUE, 77);
    guint hue = 0;
    gst_child_proxy_get(GST_CHILD_PROXY(element), "cam2::hue", &hue, nullptr);
    EXPECT_EQ(hue, 77u); // what the member's driver holds
    // A member that stays in the list keeps its tuning.
    ASSERT_EQ(gst_element_set_state(pipeline_, GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
    g_object_set(element, "cameras", "2,3", nullptr);
    guint brightness = 0;
    gst_child_proxy_get(GST_CHILD_PROXY(element), "cam2::brightness", &brightness, nullptr);
    EXPECT_EQ(brightness, 40u);
    GObject *gone = gst_child_proxy_get_child_by_name(GST_CHILD_PROXY(element), "cam0");
    EXPECT_EQ(gone, nullptr);
    gst_object_unref(element);
}

TEST_F(ZelispGroupSrcTest, ARefusedTriggerWarnsThatTheCamerasRunFree)
{
    // The driver takes the first trigger parameter up to 2 only.
    launch("zelispgroupsrc name=g cameras=0,1 trigger=internal,3,0 num-buffers=2 "
           "g.src_0 ! queue ! appsink name=a0 g.src_1 ! queue ! appsink name=a1");
    ASSERT_NE(gst_element_set_state(pipeline_, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    GstSample *sample = pull("a1");
    ASSERT_NE(sample, nullptr) << "the group still streams";
    gst_sample_unref(sample);
    EXPECT_EQ(warning_texts(pipeline_),
              std::vector<std::string>{"isp_group_set_internal_trigger: ioctl IOC_SET_MIPI_TRIGGER_MODE failed! : the "
                                       "cameras run free, their frames are not captured together"});
    EXPECT_EQ(zsim::trigger_mode(), zsim::TriggerMode::None);
}

TEST_F(ZelispGroupSrcTest, ASetSpreadOverHalfAFramePeriodUnderATriggerWarnsOnce)
{
    for (bool triggered : {true, false}) {
        zsim::reset();
        for (int node : {0, 1})
            zsim::set_frame_mode(node, zsim::FrameMode::Scripted);
        launch(std::string("zelispgroupsrc name=g cameras=0,1 ") + (triggered ? "trigger=internal " : "") +
               "g.src_0 ! queue ! appsink name=a0 g.src_1 ! queue ! appsink name=a1");
        ASSERT_NE(gst_element_set_state(pipeline_, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
        // Camera 1 captures 25 ms after camera 0, sets 40 ms apart.
        for (uint32_t sequence = 1; sequence <= 3; ++sequence) {
            uint64_t time = 5000000 + sequence * 40000;
            push_frames(0, sequence, 1, time);
            push_frames(1, sequence, 1, time + 25000);
            for (const char *sink : {"a0", "a1"}) {
                GstSample *sample = pull(sink);
                ASSERT_NE(sample, nullptr);
                gst_sample_unref(sample);
            }
        }
        GstElement *element = group();
        EXPECT_EQ(stats_field(element, "max-skew-us"), 25000u);
        gst_object_unref(element);
        std::vector<std::string> expected;
        if (triggered)
            expected.push_back("cameras 0,1: one frame set spans 25000 us under the internal trigger, more than half "
                               "a frame period (33000 us): the trigger does not hold them together");
        EXPECT_EQ(warning_texts(pipeline_), expected) << (triggered ? "triggered" : "free-running");
        gst_element_set_state(pipeline_, GST_STATE_NULL);
        gst_object_unref(pipeline_);
        pipeline_ = nullptr;
    }
}

TEST_F(ZelispGroupSrcTest, AMissingMemberFailsTheStartWithTheLibraryWords)
{
    // Not listed by the platform: refused on the way to READY.
    launch("zelispgroupsrc name=g cameras=0,9 g.src_0 ! queue ! fakesink g.src_9 ! queue ! fakesink");
    EXPECT_EQ(gst_element_set_state(pipeline_, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    EXPECT_EQ(bus_error(), "camera 9 does not exist: the platform lists cameras 0,1,2,3");
    gst_element_set_state(pipeline_, GST_STATE_NULL);
    gst_object_unref(pipeline_);
    // Listed, but its node cannot be opened: the library's words.
    zsim::set_open_errno("/dev/video1", EACCES);
    launch("zelispgroupsrc name=g cameras=0,1 g.src_0 ! queue ! fakesink g.src_1 ! queue ! fakesink");
    EXPECT_EQ(gst_element_set_state(pipeline_, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    EXPECT_EQ(bus_error(), "isp_group_open_video: a device node could not be opened, or the sensor bus could not be "
                           "taken (-9)");
    gst_element_set_state(pipeline_, GST_STATE_NULL);
    EXPECT_EQ(zsim::live_descriptors(), 0u);
}

// An unplugged member fails every request on its node: the stream ends at
// once with the driver's failure, not as frames the library refused, and
// not as a time-out (with none set, not at all).
TEST_F(ZelispGroupSrcTest, AMemberUnpluggedMidStreamEndsItAtOnceWithTheDriversFailure)
{
    for (int node : {0, 1})
        zsim::set_frame_mode(node, zsim::FrameMode::Scripted);
    launch("zelispgroupsrc name=g cameras=0,1 timeout-ms=-1 g.src_0 ! queue ! appsink name=a0 "
           "g.src_1 ! queue ! appsink name=a1");
    ASSERT_NE(gst_element_set_state(pipeline_, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    push_frames(0, 0, 1);
    push_frames(1, 0, 1);
    for (const char *sink : {"a0", "a1"}) {
        GstSample *sample = pull(sink);
        ASSERT_NE(sample, nullptr) << sink;
        gst_sample_unref(sample);
    }
    zsim::disconnect_camera(1);
    push_frames(0, 1, 1, 1033000);
    EXPECT_EQ(bus_error(), "isp_group_get_sync_frame: a driver request failed, or the frame was refused (-11)");
    GstElement *element = group();
    EXPECT_EQ(stats_field(element, "frames"), 1u);
    EXPECT_EQ(stats_field(element, "refused"), 0u);
    gst_object_unref(element);
}

} // namespace
} // namespace zelisp_gst_test
