// live_state_test.cpp - the sources as live sources: state changes at any
// moment never wait for the streaming thread, whatever downstream does
// (prerolling sinks that sync to the clock, an appsink nobody pulls, a
// released pad), and time moves on across a pause.
#include <gst/app/gstappsink.h>
#include <linux/videodev2.h>

#include <condition_variable>
#include <iterator>
#include <mutex>

#include "gst_support.h"

namespace zelisp_gst_test {
namespace {

// What a probe on the source's pad saw go out, in order.
struct Pushed {
    GstClockTime pts;
    bool discont;
    guint64 offset;
};

class LiveStateTest : public GstTest {
protected:
    GstElement *pipeline_ = nullptr;
    std::mutex lock_;
    std::condition_variable changed_;
    std::vector<Pushed> pushed_;

    void SetUp() override
    {
        GstTest::SetUp();
        // A fast sensor, so that every wait for frames is short.
        zsim::CameraConfig config;
        config.fps = 60;
        zsim::set_camera(0, config);
    }
    void TearDown() override
    {
        stop();
        GstTest::TearDown();
    }
    void launch(const std::string &description, const char *watched = "s", const char *pad = "src")
    {
        GError *error = nullptr;
        pipeline_ = gst_parse_launch(description.c_str(), &error);
        ASSERT_NE(pipeline_, nullptr) << (error ? error->message : "");
        pushed_.clear();
        GstElement *source = gst_bin_get_by_name(GST_BIN(pipeline_), watched);
        GstPad *src = gst_element_get_static_pad(source, pad);
        gst_pad_add_probe(src, GST_PAD_PROBE_TYPE_BUFFER, record, this, nullptr);
        gst_object_unref(src);
        gst_object_unref(source);
    }
    static GstPadProbeReturn record(GstPad *, GstPadProbeInfo *info, gpointer self)
    {
        auto *test = static_cast<LiveStateTest *>(self);
        GstBuffer *buffer = GST_PAD_PROBE_INFO_BUFFER(info);
        {
            std::lock_guard<std::mutex> guard(test->lock_);
            test->pushed_.push_back({GST_BUFFER_PTS(buffer), GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DISCONT),
                                     GST_BUFFER_OFFSET(buffer)});
        }
        test->changed_.notify_all();
        return GST_PAD_PROBE_OK;
    }
    // Waits until `count` buffers went out; a generous limit against a
    // source that stopped.
    bool wait_pushed(size_t count)
    {
        std::unique_lock<std::mutex> lock(lock_);
        return changed_.wait_for(lock, std::chrono::seconds(60), [&] { return pushed_.size() >= count; });
    }
    size_t pushed_count()
    {
        std::lock_guard<std::mutex> guard(lock_);
        return pushed_.size();
    }
    // Every state change of the run must come back: a deadlock hangs here
    // and fails the test by its time limit.
    GstStateChangeReturn set_state(GstState state)
    {
        GstStateChangeReturn result = gst_element_set_state(pipeline_, state);
        if (result == GST_STATE_CHANGE_ASYNC)
            result = gst_element_get_state(pipeline_, nullptr, nullptr, 60 * GST_SECOND);
        return result;
    }
    void stop()
    {
        if (!pipeline_)
            return;
        EXPECT_EQ(gst_element_set_state(pipeline_, GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
        gst_object_unref(pipeline_);
        pipeline_ = nullptr;
    }
    std::vector<Pushed> pushed()
    {
        std::lock_guard<std::mutex> guard(lock_);
        return pushed_;
    }
};

TEST_F(LiveStateTest, TwentyPauseResumeCyclesWithClockSyncedSinksNeverWaitAndPtsKeepRising)
{
    launch("zelispsrc name=s ! tee name=t t. ! queue ! fakesink sync=true t. ! fakesink sync=true");
    size_t resumes = 0;
    for (int cycle = 0; cycle < 20; ++cycle) {
        ASSERT_NE(set_state(GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE) << "cycle " << cycle;
        resumes += cycle > 0 ? 1 : 0;
        ASSERT_TRUE(wait_pushed(pushed_count() + 2)) << "cycle " << cycle;
        // Live: PAUSED needs no preroll and never waits for the push that
        // a prerolling sink holds.
        ASSERT_EQ(set_state(GST_STATE_PAUSED), GST_STATE_CHANGE_NO_PREROLL) << "cycle " << cycle;
    }
    stop();
    std::vector<Pushed> all = pushed();
    size_t disconts = 0;
    for (size_t i = 0; i < all.size(); ++i) {
        ASSERT_TRUE(GST_CLOCK_TIME_IS_VALID(all[i].pts));
        if (i > 0) {
            EXPECT_GT(all[i].pts, all[i - 1].pts) << "buffer " << i;
            EXPECT_GT(all[i].offset, all[i - 1].offset) << "buffer " << i;
        }
        disconts += all[i].discont ? 1 : 0;
    }
    // The first buffer, and the first after each resume at least.
    EXPECT_GE(disconts, resumes + 1);
    EXPECT_EQ(zsim::live_descriptors(), 0u);
}

// A pipeline may run on another clock after a pause (a clock provider
// added, or the application's choice): the PTS follow the clock the
// pipeline gives with the resume. Kept on the old clock with the new base
// time, every PTS would fall before the start and be nudged by 1 ns.
TEST_F(LiveStateTest, PtsFollowTheClockThePipelineChoseForTheResume)
{
    launch("zelispsrc name=s ! fakesink sync=false");
    GstClock *monotonic = gst_system_clock_obtain();
    GstClock *realtime = GST_CLOCK(g_object_new(GST_TYPE_SYSTEM_CLOCK, "clock-type", GST_CLOCK_TYPE_REALTIME, nullptr));
    gst_object_ref_sink(realtime);
    gst_pipeline_use_clock(GST_PIPELINE(pipeline_), monotonic);
    ASSERT_NE(set_state(GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    ASSERT_TRUE(wait_pushed(3));
    ASSERT_EQ(set_state(GST_STATE_PAUSED), GST_STATE_CHANGE_NO_PREROLL);
    const size_t before_resume = pushed_count();
    gst_pipeline_use_clock(GST_PIPELINE(pipeline_), realtime);
    ASSERT_NE(set_state(GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    ASSERT_TRUE(wait_pushed(before_resume + 4));
    stop();
    std::vector<Pushed> all = pushed();
    for (size_t i = before_resume + 1; i < all.size(); ++i)
        EXPECT_GT(all[i].pts, all[i - 1].pts + GST_USECOND) << "buffer " << i << " of a sensor at 60 frames a second";
    gst_object_unref(realtime);
    gst_object_unref(monotonic);
}

TEST_F(LiveStateTest, FramesCapturedWhilePausedAreNotPushedAndTimeMovesOn)
{
    zsim::set_frame_mode(0, zsim::FrameMode::Scripted);
    const uint64_t start_us = uint64_t(g_get_monotonic_time());
    // Stamped before the stream started: placed when they arrive.
    push_frames(0, 1, 2, start_us - 1000000);
    launch("zelispsrc name=s ! appsink name=sink sync=false");
    GstElement *sink = gst_bin_get_by_name(GST_BIN(pipeline_), "sink");
    ASSERT_NE(set_state(GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    for (int i = 0; i < 2; ++i) {
        GstSample *sample = gst_app_sink_try_pull_sample(GST_APP_SINK(sink), 60 * GST_SECOND);
        ASSERT_NE(sample, nullptr);
        gst_sample_unref(sample);
    }
    ASSERT_EQ(set_state(GST_STATE_PAUSED), GST_STATE_CHANGE_NO_PREROLL);
    // Captured now, while paused.
    zsim::ScriptedFrame paused;
    paused.sequence = 3;
    paused.timestamp_us = uint64_t(g_get_monotonic_time());
    paused.paint = true;
    zsim::push_frame(0, paused);
    // The sink prerolls again with the first frame after the resume.
    ASSERT_NE(gst_element_set_state(pipeline_, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    // Captured after the resume (or stamped in the future, which is not
    // trusted either way).
    uint64_t after = std::max<uint64_t>(uint64_t(g_get_monotonic_time()), paused.timestamp_us + 40000);
    push_frames(0, 4, 2, after);
    for (int i = 0; i < 2; ++i) {
        GstSample *sample = gst_app_sink_try_pull_sample(GST_APP_SINK(sink), 60 * GST_SECOND);
        ASSERT_NE(sample, nullptr);
        EXPECT_EQ(painted_number(gst_sample_get_buffer(sample), 1920, 1080), uint32_t(4 + i));
        gst_sample_unref(sample);
    }
    gst_object_unref(sink);
    std::vector<Pushed> all = pushed();
    ASSERT_EQ(all.size(), 4u);
    EXPECT_EQ(all[2].offset, 4u) << "frame 3 was captured while paused";
    EXPECT_TRUE(all[2].discont);
    EXPECT_FALSE(all[3].discont);
    for (size_t i = 1; i < all.size(); ++i)
        EXPECT_GT(all[i].pts, all[i - 1].pts) << "buffer " << i;
    // What a pause skips is the user's choice, not a loss.
    GstElement *source = gst_bin_get_by_name(GST_BIN(pipeline_), "s");
    EXPECT_EQ(stats_field(source, "dropped"), 0u);
    EXPECT_EQ(stats_field(source, "frames"), 4u);
    gst_object_unref(source);
}

TEST_F(LiveStateTest, NullFromPlayingAtAnyMomentWhateverDownstreamDoes)
{
    // An appsink nobody pulls takes max-buffers frames; the next push
    // waits inside it. Behind a tee each frame is let go by whichever of
    // three queue threads frees it last, so frames come back from several
    // threads at once while the element stops.
    struct Downstream {
        const char *description;
        size_t takes;
    } downstreams[] = {
        {"fakesink sync=true", SIZE_MAX},
        {"queue max-size-buffers=1 ! fakesink sync=true", SIZE_MAX},
        {"appsink max-buffers=2 drop=false sync=false", 3},
        {"appsink max-buffers=1 drop=false sync=true", 2},
        {"tee name=t t. ! queue ! fakesink t. ! queue ! fakesink t. ! queue max-size-buffers=1 ! fakesink sync=true",
         SIZE_MAX},
    };
    const int kinds = int(std::size(downstreams));
    for (int round = 0; round < 6 * kinds; ++round) {
        const Downstream &downstream = downstreams[round % kinds];
        launch(std::string("zelispsrc name=s buffers=3 ! ") + downstream.description);
        ASSERT_NE(gst_element_set_state(pipeline_, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
        // From before the first frame to after downstream stopped taking them.
        size_t frames = std::min(size_t(round / kinds), downstream.takes);
        ASSERT_TRUE(wait_pushed(frames)) << downstream.description;
        ASSERT_EQ(gst_element_set_state(pipeline_, GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS)
            << downstream.description << " after " << frames << " frames";
        gst_object_unref(pipeline_);
        pipeline_ = nullptr;
        EXPECT_EQ(zsim::live_descriptors(), 0u) << downstream.description;
        EXPECT_EQ(zsim::live_mappings(), 0u) << downstream.description;
    }
}

TEST_F(LiveStateTest, AnEosSentBeforeTheFirstFrameEndsTheStreamWithoutStartingTheCamera)
{
    launch("zelispsrc name=s ! fakesink");
    ASSERT_EQ(set_state(GST_STATE_PAUSED), GST_STATE_CHANGE_NO_PREROLL);
    EXPECT_TRUE(gst_element_send_event(pipeline_, gst_event_new_eos()));
    ASSERT_NE(gst_element_set_state(pipeline_, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    GstBus *bus = gst_element_get_bus(pipeline_);
    GstMessage *message =
        gst_bus_timed_pop_filtered(bus, 60 * GST_SECOND, GstMessageType(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(GST_MESSAGE_TYPE(message), GST_MESSAGE_EOS);
    gst_message_unref(message);
    gst_object_unref(bus);
    EXPECT_TRUE(pushed().empty());
    EXPECT_TRUE(zsim::requests(VIDIOC_STREAMON).empty());
}

TEST_F(LiveStateTest, ARequestPadReleasedWhileStreamingLeavesTheOthersStreaming)
{
    for (int round = 0; round < 5; ++round) {
        launch("zelispsrc name=s ! queue ! fakesink s.src_2 ! queue ! fakesink name=small", "s", "src");
        GstElement *source = gst_bin_get_by_name(GST_BIN(pipeline_), "s");
        GstPad *small = gst_element_get_static_pad(source, "src_2");
        ASSERT_NE(small, nullptr);
        ASSERT_NE(gst_element_set_state(pipeline_, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
        ASSERT_TRUE(wait_pushed(size_t(1 + round)));
        gst_element_release_request_pad(source, small);
        gst_object_unref(small);
        size_t now = pushed_count();
        ASSERT_TRUE(wait_pushed(now + 3)) << "the always pad stopped with its sibling";
        EXPECT_EQ(source->numsrcpads, 1u);
        gst_object_unref(source);
        stop();
    }
    EXPECT_EQ(zsim::live_descriptors(), 0u);
}

// A request pad asked for while the stream is being set up (here by
// downstream, while it answers the negotiation's caps query) comes too late
// for the views the set-up chose: refused, never a pad without caps that
// the streaming thread would start with none.
TEST_F(LiveStateTest, ARequestPadAskedForDuringTheSetUpIsRefused)
{
    launch("zelispsrc name=s ! fakesink name=sink");
    GstElement *source = gst_bin_get_by_name(GST_BIN(pipeline_), "s");
    GstElement *sink = gst_bin_get_by_name(GST_BIN(pipeline_), "sink");
    GstPad *sink_pad = gst_element_get_static_pad(sink, "sink");
    struct Ask {
        GstElement *source;
        bool asked = false;
        GstPad *granted = nullptr;
    } ask{source};
    gst_pad_add_probe(
        sink_pad, GST_PAD_PROBE_TYPE_QUERY_DOWNSTREAM,
        [](GstPad *, GstPadProbeInfo *info, gpointer data) {
            auto *ask = static_cast<Ask *>(data);
            if (GST_QUERY_TYPE(GST_PAD_PROBE_INFO_QUERY(info)) == GST_QUERY_CAPS && !ask->asked) {
                ask->asked = true;
                ask->granted = gst_element_request_pad_simple(ask->source, "src_2");
            }
            return GST_PAD_PROBE_OK;
        },
        &ask, nullptr);
    ASSERT_NE(gst_element_set_state(pipeline_, GST_STATE_PAUSED), GST_STATE_CHANGE_FAILURE);
    EXPECT_TRUE(ask.asked);
    EXPECT_EQ(ask.granted, nullptr);
    EXPECT_EQ(source->numsrcpads, 1u);
    std::vector<std::string> logged = warnings();
    ASSERT_EQ(logged.size(), 1u) << testing::PrintToString(logged);
    EXPECT_NE(logged[0].find("s: no request pad: the stream's views are chosen when it is set up"), std::string::npos)
        << logged[0];
    gst_object_unref(sink_pad);
    gst_object_unref(sink);
    gst_object_unref(source);
    stop();
}

} // namespace
} // namespace zelisp_gst_test
