// negotiation_test.cpp - what zelispsrc agrees with downstream before the
// camera is set up: colorimetry, frame rate (divided by the ISP's
// decimation), format and size (set on the driver), and a new agreement
// each time the pipeline comes back from READY. The frame numbers the
// simulated sensor paints prove which frames came, and in which layout.
#include <gst/app/gstappsink.h>
#include <linux/videodev2.h>

#include "gst_support.h"

namespace zelisp_gst_test {
namespace {

// A frame with no painted number.
constexpr uint32_t kUnreadable = UINT32_MAX;

struct Received {
    std::string caps; // the last sample's
    std::vector<std::string> each_caps; // every sample's, in order
    std::vector<uint32_t> numbers; // painted frame numbers, kUnreadable when there is none
    std::vector<std::vector<int>> green; // RGB of the green bar, RGB caps only
};

class NegotiationTest : public GstTest {
protected:
    GstElement *pipeline_ = nullptr;

    void TearDown() override
    {
        stop();
        GstTest::TearDown();
    }
    void stop()
    {
        if (!pipeline_)
            return;
        gst_element_set_state(pipeline_, GST_STATE_NULL);
        gst_object_unref(pipeline_);
        pipeline_ = nullptr;
    }
    void launch(const std::string &description)
    {
        GError *error = nullptr;
        pipeline_ = gst_parse_launch(description.c_str(), &error);
        ASSERT_NE(pipeline_, nullptr) << (error ? error->message : "");
    }
    // Plays until `count` samples reached the appsink "sink".
    Received receive(int count)
    {
        Received received;
        EXPECT_NE(gst_element_set_state(pipeline_, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
        GstElement *sink = gst_bin_get_by_name(GST_BIN(pipeline_), "sink");
        for (int i = 0; i < count; ++i) {
            GstSample *sample = gst_app_sink_try_pull_sample(GST_APP_SINK(sink), 60 * GST_SECOND);
            if (!sample) {
                ADD_FAILURE() << "no sample " << i << ": " << error_text(pipeline_);
                break;
            }
            GstCaps *caps = gst_sample_get_caps(sample);
            gchar *text = gst_caps_to_string(caps);
            received.caps = text;
            received.each_caps.push_back(text);
            g_free(text);
            GstBuffer *buffer = gst_sample_get_buffer(sample);
            received.numbers.push_back(painted_number(buffer, caps).value_or(kUnreadable));
            GstStructure *structure = gst_caps_get_structure(caps, 0);
            if (g_strcmp0(gst_structure_get_string(structure, "format"), "RGB") == 0) {
                int width = 0, height = 0;
                gst_structure_get_int(structure, "width", &width);
                gst_structure_get_int(structure, "height", &height);
                // The fourth of eight bars, three quarters down.
                received.green.push_back(rgb_at(buffer, caps, width * 7 / 16, height * 3 / 4));
            }
            gst_sample_unref(sample);
        }
        gst_object_unref(sink);
        return received;
    }
    std::string bus_error() { return error_text(pipeline_, 60 * GST_SECOND); }
};

std::vector<zsim::LogEntry> view_format_requests()
{
    std::vector<zsim::LogEntry> sets;
    for (const zsim::LogEntry &entry : zsim::requests(VIDIOC_S_FMT))
        sets.push_back(entry);
    return sets;
}

TEST_F(NegotiationTest, ColorimetryIsTheDriversSoEveryViewDecodesToTheSameColours)
{
    // 75 % green is (0, 191, 0) in BT.601, which the driver reports
    // (videoconvert's fixed point makes it 187); read as BT.709, what
    // GStreamer assumes for HD sizes without colorimetry, it would come out
    // near (0, 157, 0).
    for (int view : {0, 2}) {
        launch("zelispsrc view=" + std::to_string(view) +
               " ! videoconvert ! video/x-raw,format=RGB ! appsink name=sink sync=false");
        Received received = receive(1);
        ASSERT_EQ(received.green.size(), 1u) << "view " << view;
        EXPECT_NEAR(received.green[0][0], 0, 4) << "view " << view;
        EXPECT_NEAR(received.green[0][1], 189, 4) << "view " << view;
        EXPECT_NEAR(received.green[0][2], 0, 4) << "view " << view;
        stop();
    }
    // The property wins over the driver: the caps say BT.709 and the same
    // pixels decode differently.
    launch("zelispsrc colorimetry=bt709 ! tee name=t t. ! queue ! appsink name=raw sync=false "
           "t. ! queue ! videoconvert ! video/x-raw,format=RGB ! appsink name=sink sync=false");
    Received received = receive(1);
    ASSERT_EQ(received.green.size(), 1u);
    EXPECT_GT(191 - received.green[0][1], 20);
    GstElement *raw = gst_bin_get_by_name(GST_BIN(pipeline_), "raw");
    GstSample *sample = gst_app_sink_pull_sample(GST_APP_SINK(raw));
    ASSERT_NE(sample, nullptr);
    EXPECT_EQ(caps_field(gst_sample_get_caps(sample), "colorimetry"), "bt709");
    gst_sample_unref(sample);
    gst_object_unref(raw);
    stop();

    // A view of the other kind than the one the driver described: RGB next
    // to a YUV main view is sRGB.
    zsim::CameraConfig config;
    config.views[2] = {zsim::kRGB24, 640, 360};
    zsim::set_camera(0, config);
    launch("zelispsrc name=s ! queue ! fakesink s.src_2 ! queue ! appsink name=sink sync=false");
    received = receive(1);
    EXPECT_EQ(received.caps, "video/x-raw, format=(string)RGB, colorimetry=(string)sRGB, width=(int)640, "
                             "height=(int)360, framerate=(fraction)30/1");
    EXPECT_NE(received.numbers[0], kUnreadable);

    GstElement *element = gst_element_factory_make("zelispsrc", "cam");
    g_object_set(element, "colorimetry", "bt7O9", nullptr);
    gchar *kept = nullptr;
    g_object_get(element, "colorimetry", &kept, nullptr);
    EXPECT_STREQ(kept, "");
    g_free(kept);
    gst_object_unref(element);
    EXPECT_EQ(warnings(), std::vector<std::string>{
                              "cam: refused colorimetry: colorimetry takes a GStreamer colorimetry (bt601, bt709, "
                              "sRGB, bt2020 or RANGE:MATRIX:TRANSFER:PRIMARIES), or nothing for the driver's, got "
                              "'bt7O9'; the value stays as it was"});
}

TEST_F(NegotiationTest, ARateThatDividesTheSensorsIsDeliveredByDecimationAnyOtherIsRefused)
{
    zsim::set_frame_mode(0, zsim::FrameMode::Scripted);
    push_frames(0, 1, 9);
    launch("zelispsrc name=s ! video/x-raw,framerate=10/1 ! appsink name=sink sync=false");
    Received received = receive(3);
    EXPECT_EQ(received.caps, "video/x-raw, format=(string)NV12, colorimetry=(string)bt601, width=(int)1920, "
                             "height=(int)1080, framerate=(fraction)10/1");
    EXPECT_EQ(received.numbers, (std::vector<uint32_t>{3, 6, 9})); // one frame in three
    GstElement *source = gst_bin_get_by_name(GST_BIN(pipeline_), "s");
    EXPECT_EQ(stats_field(source, "dropped"), 0u);
    gst_object_unref(source);
    stop();

    // Without a request, the sensor's own rate; a range is met at its
    // fastest whole division.
    push_frames(0, 20, 4, 3000000);
    launch("zelispsrc ! video/x-raw,framerate=[ 12/1, 20/1 ] ! appsink name=sink sync=false");
    received = receive(2);
    EXPECT_NE(received.caps.find("framerate=(fraction)15/1"), std::string::npos) << received.caps;
    EXPECT_EQ(received.numbers, (std::vector<uint32_t>{21, 23}));
    stop();

    // "drop" decides the rate itself.
    zsim::reset();
    launch("zelispsrc drop=30/20 ! appsink name=sink sync=false");
    received = receive(1);
    EXPECT_NE(received.caps.find("framerate=(fraction)10/1"), std::string::npos) << received.caps;
    stop();

    launch("zelispsrc ! video/x-raw,framerate=7/1 ! fakesink");
    EXPECT_EQ(gst_element_set_state(pipeline_, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    std::string error = bus_error();
    EXPECT_EQ(error.substr(0, error.find("; downstream takes")),
              "view 0: downstream asks for a frame rate the camera cannot deliver: it runs at 30/1 frames a second "
              "and delivers that rate divided by a whole number up to 120 (30/1, 30/2, 30/3, ...)");
    stop();
    launch("zelispsrc drop=30/20 ! video/x-raw,framerate=30/1 ! fakesink");
    EXPECT_EQ(gst_element_set_state(pipeline_, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    error = bus_error();
    EXPECT_EQ(error.substr(0, error.find("; downstream takes")),
              "view 0: downstream asks for another frame rate than the 10/1 this view comes at");
    stop();
    EXPECT_EQ(zsim::live_descriptors(), 0u);
}

TEST_F(NegotiationTest, DownstreamChoosesFormatAndSizeThroughTheDriverBeforeTheBuffersAreMade)
{
    struct Case {
        const char *filter;
        const char *request;
        const char *caps;
    } cases[] = {
        {"video/x-raw,width=640,height=360", "view=0 width=640 height=360 fourcc=NV12",
         "video/x-raw, format=(string)NV12, colorimetry=(string)bt601, width=(int)640, height=(int)360, "
         "framerate=(fraction)30/1"},
        {"video/x-raw,format=YUY2", "view=0 width=1920 height=1080 fourcc=YUYV",
         "video/x-raw, format=(string)YUY2, colorimetry=(string)bt601, width=(int)1920, height=(int)1080, "
         "framerate=(fraction)30/1"},
        {"video/x-raw,format=GRAY8,width=320,height=[ 100, 200 ]", "view=0 width=320 height=200 fourcc=GREY",
         "video/x-raw, format=(string)GRAY8, colorimetry=(string)bt601, width=(int)320, height=(int)200, "
         "framerate=(fraction)30/1"},
    };
    for (const Case &c : cases) {
        zsim::reset();
        zsim::set_frame_mode(0, zsim::FrameMode::Scripted);
        push_frames(0, 50, 2);
        launch(std::string("zelispsrc ! ") + c.filter + " ! appsink name=sink sync=false");
        Received received = receive(2);
        EXPECT_EQ(received.caps, c.caps) << c.filter;
        EXPECT_EQ(received.numbers, (std::vector<uint32_t>{50, 51})) << c.filter;
        // Asked of the driver before the buffers: then kept by the set-up.
        std::vector<zsim::LogEntry> sets = view_format_requests();
        ASSERT_GE(sets.size(), 2u) << c.filter;
        EXPECT_EQ(sets[0].detail, c.request) << c.filter;
        EXPECT_EQ(sets[1].detail, c.request) << c.filter;
        stop();
    }
    // The driver's own format needs no request of ours: only the set-up's.
    zsim::reset();
    launch("zelispsrc ! appsink name=sink sync=false");
    receive(1);
    EXPECT_EQ(view_format_requests().size(), 1u);
    stop();
    // A format of the plugin's that this driver does not list.
    launch("zelispsrc ! video/x-raw,format=NV16 ! fakesink");
    EXPECT_EQ(gst_element_set_state(pipeline_, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    EXPECT_EQ(bus_error().rfind("view 0: downstream takes none of the camera's formats video/x-raw, format=(string)NV12", 0),
              0u);
}

TEST_F(NegotiationTest, BackInReadyTheNextStartNegotiatesAgain)
{
    // Scripted frames: each start gets exactly the frames it is shown, so a
    // painted number tells which start a sample comes from. An appsink keeps
    // what it queued across READY (only NULL or a flush empties it), so a
    // frame of the first start that the test did not pull would be handed
    // out in the second with the first start's caps, as a free-running
    // sensor does whenever the test thread is slow to leave PLAYING.
    zsim::set_frame_mode(0, zsim::FrameMode::Scripted);
    push_frames(0, 1, 2);
    launch("zelispsrc ! capsfilter name=f caps=video/x-raw,width=640,height=360 ! appsink name=sink sync=false");
    const std::string small = "video/x-raw, format=(string)NV12, colorimetry=(string)bt601, width=(int)640, "
                              "height=(int)360, framerate=(fraction)30/1";
    Received first = receive(2);
    EXPECT_EQ(first.each_caps, (std::vector<std::string>{small, small}));
    EXPECT_EQ(first.numbers, (std::vector<uint32_t>{1, 2}));
    ASSERT_EQ(gst_element_set_state(pipeline_, GST_STATE_READY), GST_STATE_CHANGE_SUCCESS);
    GstElement *sink = gst_bin_get_by_name(GST_BIN(pipeline_), "sink");
    GstSample *left = gst_app_sink_try_pull_sample(GST_APP_SINK(sink), 0);
    EXPECT_EQ(left, nullptr) << "a sample of the first start is still queued";
    if (left)
        gst_sample_unref(left);
    gst_object_unref(sink);

    GstElement *filter = gst_bin_get_by_name(GST_BIN(pipeline_), "f");
    GstCaps *caps = gst_caps_from_string("video/x-raw,format=GRAY8,width=1280,height=720,framerate=15/1");
    g_object_set(filter, "caps", caps, nullptr);
    gst_caps_unref(caps);
    gst_object_unref(filter);
    push_frames(0, 100, 6, 3000000);
    const std::string grey = "video/x-raw, format=(string)GRAY8, colorimetry=(string)bt601, width=(int)1280, "
                             "height=(int)720, framerate=(fraction)15/1";
    Received second = receive(3);
    EXPECT_EQ(second.each_caps, (std::vector<std::string>{grey, grey, grey}));
    EXPECT_EQ(second.numbers, (std::vector<uint32_t>{101, 103, 105})); // fresh frames, one in two
    // Each start asked the driver for its own format before its buffers
    // (negotiation, then the set-up).
    std::vector<std::string> requests;
    for (const zsim::LogEntry &entry : view_format_requests())
        requests.push_back(entry.detail);
    EXPECT_EQ(requests, (std::vector<std::string>{
                            "view=0 width=640 height=360 fourcc=NV12", "view=0 width=640 height=360 fourcc=NV12",
                            "view=0 width=1280 height=720 fourcc=GREY", "view=0 width=1280 height=720 fourcc=GREY"}));
}

TEST_F(NegotiationTest, AResizedViewComesAtTheSizeTheResizeMakes)
{
    launch("zelispsrc view=1 resize=0,0,1280,720:640,360 ! video/x-raw,width=640 ! appsink name=sink sync=false");
    Received received = receive(1);
    EXPECT_EQ(received.caps, "video/x-raw, format=(string)NV12, colorimetry=(string)bt601, width=(int)640, "
                             "height=(int)360, framerate=(fraction)30/1");
    EXPECT_NE(received.numbers[0], kUnreadable);
    stop();
    launch("zelispsrc view=1 resize=0,0,1280,720:640,360 ! video/x-raw,width=1280 ! fakesink");
    EXPECT_EQ(gst_element_set_state(pipeline_, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    EXPECT_EQ(bus_error().rfind("view 1: downstream takes none of the camera's formats video/x-raw, format=(string)NV12, "
                                "colorimetry=(string)bt601, width=(int)640, height=(int)360",
                                0),
              0u);
}

} // namespace
} // namespace zelisp_gst_test
