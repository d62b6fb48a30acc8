// plugin_test.cpp - what the plugin adds around its elements: the device
// provider that lists the cameras, the ranks and description that let
// autovideosrc and inspectors find them, and the library's lines routed to
// GStreamer's log and bus instead of standard output.
#include <gst/app/gstappsink.h>
#include <linux/videodev2.h>

#include <algorithm>
#include <mutex>

#include "gst_support.h"

namespace zelisp_gst_test {
namespace {

class PluginTest : public GstTest {};

GstDeviceProvider *camera_provider()
{
    return gst_device_provider_factory_get_by_name("zelispdeviceprovider");
}

std::vector<GstDevice *> probe(GstDeviceProvider *provider)
{
    std::vector<GstDevice *> devices;
    GList *list = gst_device_provider_get_devices(provider);
    for (GList *item = list; item; item = item->next)
        devices.push_back(GST_DEVICE(item->data));
    g_list_free(list);
    return devices;
}

TEST_F(PluginTest, TheProviderListsEveryCameraWithItsCapsAndAnElementThatCapturesIt)
{
    zsim::CameraConfig small;
    small.views[0] = {zsim::kNV12, 640, 360};
    small.fps = 10;
    zsim::set_camera(1, small);
    GstDeviceProvider *provider = camera_provider();
    ASSERT_NE(provider, nullptr);
    // The ISP's nodes are not listed a second time as plain V4L2 devices.
    gchar **hidden = gst_device_provider_get_hidden_providers(provider);
    ASSERT_NE(hidden, nullptr);
    EXPECT_STREQ(hidden[0], "v4l2deviceprovider");
    g_strfreev(hidden);

    std::vector<GstDevice *> devices = probe(provider);
    ASSERT_EQ(devices.size(), 4u);
    // Probing opened each camera for a moment only.
    EXPECT_EQ(zsim::live_descriptors(), 0u);
    GstDevice *second = devices[1];
    gchar *name = gst_device_get_display_name(second);
    EXPECT_STREQ(name, "ISP camera 1");
    g_free(name);
    EXPECT_TRUE(gst_device_has_classes(second, "Video/Source"));
    GstCaps *caps = gst_device_get_caps(second);
    GstCaps *first = gst_caps_copy_nth(caps, 0);
    gchar *text = gst_caps_to_string(first);
    EXPECT_STREQ(text, "video/x-raw, format=(string)NV12, colorimetry=(string)bt601, width=(int)640, "
                       "height=(int)360, framerate=(fraction)[ 1/12, 10/1 ]");
    g_free(text);
    gst_caps_unref(first);
    gst_caps_unref(caps);
    GstStructure *properties = gst_device_get_properties(second);
    EXPECT_STREQ(gst_structure_get_string(properties, "device.path"), "/dev/video1");
    gst_structure_free(properties);

    // Its element captures that camera.
    zsim::set_frame_mode(1, zsim::FrameMode::Scripted);
    push_frames(1, 33, 1);
    GstElement *element = gst_device_create_element(second, "picked");
    GstHarness *harness = gst_harness_new_with_element(element, nullptr, "src");
    gst_object_unref(element);
    gst_harness_play(harness);
    GstBuffer *buffer = gst_harness_pull(harness);
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(painted_number(buffer, 640, 360), 33u);
    gst_buffer_unref(buffer);
    gst_harness_teardown(harness);
    for (GstDevice *device : devices)
        gst_object_unref(device);

    // A camera that cannot be opened is left out.
    zsim::set_open_errno("/dev/video2", EACCES);
    std::vector<GstDevice *> three = probe(provider);
    ASSERT_EQ(three.size(), 3u);
    name = gst_device_get_display_name(three[2]);
    EXPECT_STREQ(name, "ISP camera 3");
    g_free(name);
    for (GstDevice *device : three)
        gst_object_unref(device);

    // No ISP platform: nothing to list.
    zsim::set_node_kind("/dev/isp_misc", zsim::NodeKind::Missing);
    EXPECT_TRUE(probe(provider).empty());
    gst_object_unref(provider);
}

// An application lists the cameras (a device picker, GstDeviceMonitor)
// while one of them streams in its own pipeline: the list is whole, and the
// stream goes on untouched.
TEST_F(PluginTest, ProbingWhileACameraStreamsListsItAndLeavesTheStreamAlone)
{
    zsim::set_frame_mode(0, zsim::FrameMode::Scripted);
    GstHarness *harness = gst_harness_new_parse("zelispsrc camera=0");
    gst_harness_play(harness);
    push_frames(0, 1, 1);
    GstBuffer *buffer = gst_harness_pull(harness);
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(painted_number(buffer, 1920, 1080), 1u);
    gst_buffer_unref(buffer);

    GstDeviceProvider *provider = camera_provider();
    for (int round = 0; round < 2; ++round) {
        std::vector<GstDevice *> devices = probe(provider);
        EXPECT_EQ(devices.size(), 4u) << "round " << round;
        for (GstDevice *device : devices)
            gst_object_unref(device);
    }
    gst_object_unref(provider);

    push_frames(0, 2, 1, 1033000);
    buffer = gst_harness_pull(harness);
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(painted_number(buffer, 1920, 1080), 2u);
    EXPECT_EQ(GST_BUFFER_OFFSET(buffer), 2u);
    gst_buffer_unref(buffer);
    GstElement *source = gst_harness_find_element(harness, "zelispsrc");
    EXPECT_EQ(stats_field(source, "frames"), 2u);
    gst_object_unref(source);
    EXPECT_EQ(error_text(harness), "");
    gst_harness_teardown(harness);
}

TEST_F(PluginTest, ZelispsrcOutranksV4l2srcAndTheGroupIsNeverPickedAutomatically)
{
    GstPluginFeature *source = GST_PLUGIN_FEATURE(gst_element_factory_find("zelispsrc"));
    GstPluginFeature *group = GST_PLUGIN_FEATURE(gst_element_factory_find("zelispgroupsrc"));
    EXPECT_EQ(gst_plugin_feature_get_rank(source), guint(GST_RANK_PRIMARY + 1));
    EXPECT_EQ(gst_plugin_feature_get_rank(group), guint(GST_RANK_NONE));
    GstPlugin *plugin = gst_plugin_feature_get_plugin(source);
    EXPECT_STREQ(gst_plugin_get_license(plugin), "LGPL");
    EXPECT_STREQ(gst_plugin_get_origin(plugin), "https://github.com/libzelisp/libzelisp");
    gst_object_unref(plugin);
    gst_object_unref(source);
    gst_object_unref(group);
}

// GStreamer's debug log of the category "zelisp", as it is written.
std::mutex log_lock;
std::vector<std::string> logged_lines;

void record_log(GstDebugCategory *category, GstDebugLevel, const gchar *, const gchar *, gint, GObject *object,
                GstDebugMessage *message, gpointer)
{
    if (std::string(gst_debug_category_get_name(category)) != "zelisp")
        return;
    std::lock_guard<std::mutex> guard(log_lock);
    logged_lines.push_back(std::string(object && GST_IS_OBJECT(object) ? GST_OBJECT_NAME(object) : "-") + ": " +
                           gst_debug_message_get(message));
}

TEST_F(PluginTest, TheLibrarysLinesGoToTheLogAndItsFailuresToTheBusNeverToStandardOutput)
{
    GstDebugLevel level = gst_debug_get_default_threshold();
    gst_debug_set_threshold_for_name("zelisp", GST_LEVEL_INFO);
    gst_debug_add_log_function(record_log, nullptr, nullptr);
    {
        std::lock_guard<std::mutex> guard(log_lock);
        logged_lines.clear();
    }
    // Standard output is captured for the two runs: what they find is
    // checked afterwards, where the test's own report may print.
    zelisp_test::OutputCapture output;

    // A refused buffer request: the library's two lines are warnings of the
    // element, and the details of its error.
    zsim::fail_request(VIDIOC_REQBUFS, 1, EIO);
    GstElement *pipeline = gst_parse_launch("zelispsrc name=cam ! fakesink", nullptr);
    GstStateChangeReturn refused = gst_element_set_state(pipeline, GST_STATE_PLAYING);
    std::vector<std::string> warnings;
    std::string error_message, error_details;
    GstBus *bus = gst_element_get_bus(pipeline);
    while (GstMessage *message = gst_bus_pop(bus)) {
        GError *error = nullptr;
        gchar *details = nullptr;
        if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_WARNING) {
            gst_message_parse_warning(message, &error, nullptr);
            warnings.push_back(error->message);
        } else if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
            gst_message_parse_error(message, &error, &details);
            error_message = error->message;
            error_details = details ? details : "";
        }
        g_clear_error(&error);
        g_free(details);
        gst_message_unref(message);
    }
    gst_object_unref(bus);
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(pipeline);

    // A good run: its progress lines are in the log, on the element.
    pipeline = gst_parse_launch("zelispsrc name=good num-buffers=2 ! fakesink", nullptr);
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    bus = gst_element_get_bus(pipeline);
    GstMessage *message =
        gst_bus_timed_pop_filtered(bus, 60 * GST_SECOND, GstMessageType(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
    bool ended = message && GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS;
    if (message)
        gst_message_unref(message);
    gst_object_unref(bus);
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(pipeline);

    output.Stop();
    gst_debug_remove_log_function(record_log);
    gst_debug_set_threshold_for_name("zelisp", level);
    EXPECT_EQ(output.out(), "");
    EXPECT_EQ(refused, GST_STATE_CHANGE_FAILURE);
    EXPECT_EQ(warnings,
              (std::vector<std::string>{"/dev/video0 request buffers failed", "request buf: Input/output error"}));
    EXPECT_EQ(error_message, "isp_init_video: a driver request failed, or the frame was refused (-11)");
    // After the source location GStreamer puts first.
    EXPECT_EQ(error_details.substr(error_details.find('\n') + 1),
              "/dev/video0 request buffers failed; request buf: Input/output error");
    EXPECT_TRUE(ended);
    std::lock_guard<std::mutex> guard(log_lock);
    for (const char *line : {"cam: /dev/video0 request buffers failed", "cam: request buf: Input/output error",
                             "good: /dev/video0 view input supported combination: 7",
                             "good: /dev/video0 view input combination: 1"})
        EXPECT_NE(std::find(logged_lines.begin(), logged_lines.end(), line), logged_lines.end())
            << line << " not in " << testing::PrintToString(logged_lines);
}

} // namespace
} // namespace zelisp_gst_test
