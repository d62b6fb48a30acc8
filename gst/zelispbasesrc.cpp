/*
 * zelispbasesrc.cpp - the streaming thread, state changes, queries and
 * common properties of the source elements.
 *
 * A camera has only a few buffers. When downstream holds so many that fewer
 * than two would stay queued in the driver, a frame is copied into a pooled
 * buffer and given back at once: the sensor keeps its rate and the copies
 * are counted in "stats".
 */
#include "zelispbasesrc.h"

#include <algorithm>
#include <mutex>

#include "formats.h"

GST_DEBUG_CATEGORY_STATIC(zelispbasesrc_debug);
#define GST_CAT_DEFAULT zelispbasesrc_debug

using namespace gstzelisp;

namespace {

constexpr int kDefaultBuffers = 4;
constexpr int kDefaultTimeoutMs = 2000;
// A failing dequeue and a refused frame both return -11: give up after this
// many in a row.
constexpr int kMostRefusedInARow = 100;
// Fewer queued buffers than this and the sensor would drop frames.
constexpr int kQueuedReserve = 2;

enum {
    PROP_0,
    PROP_BUFFERS,
    PROP_TIMEOUT_MS,
    PROP_NUM_BUFFERS,
    PROP_STATS,
};

} // namespace

struct GstZelispBaseSrcPrivate {
    Source *source;
};

G_DEFINE_ABSTRACT_TYPE_WITH_PRIVATE(GstZelispBaseSrc, gst_zelisp_base_src, GST_TYPE_ELEMENT)

Source &gst_zelisp_base_src_source(gpointer element)
{
    auto *priv = static_cast<GstZelispBaseSrcPrivate *>(
        gst_zelisp_base_src_get_instance_private(GST_ZELISP_BASE_SRC(element)));
    return *priv->source;
}

void gst_zelisp_base_src_set_source(GstZelispBaseSrc *element, Source *source)
{
    auto *priv = static_cast<GstZelispBaseSrcPrivate *>(gst_zelisp_base_src_get_instance_private(element));
    priv->source = source;
}

namespace gstzelisp {

void Source::refuse_while_set_up(GObject *object, const char *property) const
{
    refuse_property(object, property,
                    std::string("the ") + noun_ + " is set up; change it in the READY or NULL state");
}

// ---- Pads ----

namespace {

gboolean pad_query(GstPad *pad, GstObject *parent, GstQuery *query)
{
    return gst_zelisp_base_src_source(parent).query(pad, parent, query);
}

} // namespace

GstPad *Source::make_pad(GstPadTemplate *templ, const std::string &name, std::unique_ptr<PadOutput> output)
{
    GstPad *pad = gst_pad_new_from_template(templ, name.c_str());
    gst_pad_set_query_function(pad, pad_query);
    gst_pad_use_fixed_caps(pad);
    output->pad = pad;
    GST_OBJECT_LOCK(element_);
    outputs_.push_back(std::move(output));
    GST_OBJECT_UNLOCK(element_);
    return pad;
}

void Source::forget_pad(GstPad *pad)
{
    for (auto it = outputs_.begin(); it != outputs_.end(); ++it)
        if ((*it)->pad == pad) {
            outputs_.erase(it);
            return;
        }
}

gboolean Source::query(GstPad *pad, GstObject *parent, GstQuery *query)
{
    switch (GST_QUERY_TYPE(query)) {
    case GST_QUERY_CAPS: {
        GstCaps *caps = nullptr;
        GST_OBJECT_LOCK(element_);
        for (auto &output : outputs_)
            if (output->pad == pad && is_set_up())
                caps = view_caps(output->output.format);
        GST_OBJECT_UNLOCK(element_);
        if (!caps)
            caps = gst_pad_get_pad_template_caps(pad);
        GstCaps *filter = nullptr;
        gst_query_parse_caps(query, &filter);
        if (filter) {
            GstCaps *both = gst_caps_intersect_full(filter, caps, GST_CAPS_INTERSECT_FIRST);
            gst_caps_unref(caps);
            caps = both;
        }
        gst_query_set_caps_result(query, caps);
        gst_caps_unref(caps);
        return TRUE;
    }
    case GST_QUERY_LATENCY: {
        if (!is_set_up())
            return FALSE;
        // A frame is complete one frame period after its capture time, and
        // the driver can hold the frames of all but two buffers.
        GstClockTime interval = frame_interval_;
        gst_query_set_latency(query, TRUE, interval, interval * guint64(buffers - kQueuedReserve + 1));
        return TRUE;
    }
    default:
        return gst_pad_query_default(pad, parent, query);
    }
}

// Stream start, caps (the view's format in the memory the peer takes) and
// segment on every pad.
bool Source::start_pads()
{
    guint group_id = gst_util_group_id_next();
    for (auto &output : outputs_) {
        output->eos = false;
        gchar *id = gst_pad_create_stream_id(output->pad, element_, output->stream_name.c_str());
        GstEvent *start = gst_event_new_stream_start(id);
        gst_event_set_group_id(start, group_id);
        gst_pad_push_event(output->pad, start);
        g_free(id);
        GstCaps *ours = view_caps(output->output.format);
        GstCaps *peer = gst_pad_peer_query_caps(output->pad, ours);
        gst_caps_unref(ours);
        if (gst_caps_is_empty(peer)) {
            gst_caps_unref(peer);
            if (!gst_pad_is_linked(output->pad))
                continue;
            GST_ELEMENT_ERROR(element_, CORE, NEGOTIATION,
                              ("%s: downstream takes no caps of %s", GST_PAD_NAME(output->pad), output->label.c_str()),
                              (nullptr));
            return false;
        }
        GstCaps *chosen = gst_caps_fixate(peer);
        output->output.dmabuf = caps_want_dmabuf(chosen);
        GST_DEBUG_OBJECT(element_, "%s: %s in %s memory: %" GST_PTR_FORMAT, GST_PAD_NAME(output->pad),
                         output->label.c_str(), output->output.dmabuf ? "DMA-buf" : "system", chosen);
        gst_pad_push_event(output->pad, gst_event_new_caps(chosen));
        gst_caps_unref(chosen);
        GstSegment segment;
        gst_segment_init(&segment, GST_FORMAT_TIME);
        gst_pad_push_event(output->pad, gst_event_new_segment(&segment));
    }
    return true;
}

// ---- Set-up and teardown ----

bool Source::set_up()
{
    std::vector<unsigned long> handles;
    Stream *stream = open(&handles);
    if (!stream)
        return false;
    // The streaming thread waits on the camera nodes itself, so that a state
    // change can interrupt the wait (the library's own wait cannot be).
    std::vector<GstPollFD> fds(handles.size());
    for (size_t i = 0; i < handles.size(); ++i) {
        int64_t fd = -1;
        int result = isp_camera_get_native_fd(handles[i], &fd);
        if (result != ISP_OK) {
            post_library_error(element_, "isp_camera_get_native_fd", result);
            stream->unref();
            return false;
        }
        gst_poll_fd_init(&fds[i]);
        fds[i].fd = int(fd);
    }
    GstPoll *poll = gst_poll_new(TRUE);
    poll_fds_ = std::move(fds);
    for (auto &fd : poll_fds_)
        gst_poll_add_fd(poll, &fd);
    handles_ = std::move(handles);
    have_sequence_ = false;
    capturing_ = false;
    started_pads_ = false;
    eos_pending_ = false;
    pushed_ = 0;
    GST_OBJECT_LOCK(element_);
    poll_ = poll;
    stream_ = stream;
    counters_ = SourceCounters();
    GST_OBJECT_UNLOCK(element_);
    return true;
}

void Source::tear_down()
{
    GST_OBJECT_LOCK(element_);
    Stream *stream = stream_;
    stream_ = nullptr;
    GST_OBJECT_UNLOCK(element_);
    if (!stream)
        return;
    stream->stop();
    if (capturing_) {
        std::lock_guard<std::mutex> guard(stream->library_lock());
        stop_capture();
    }
    capturing_ = false;
    // Closes the camera now, or when downstream frees the last frame.
    stream->unref();
    GST_OBJECT_LOCK(element_);
    GstPoll *poll = poll_;
    poll_ = nullptr;
    GST_OBJECT_UNLOCK(element_);
    gst_poll_free(poll);
    poll_fds_.clear();
    for (auto &output : outputs_)
        output->output.copies.reset();
}

// An EOS sent to the element (gst-launch-1.0 -e, an application ending a
// recording) ends the stream after the frame in flight.
void Source::request_eos()
{
    eos_pending_ = true;
    request_flush(TRUE);
}

void Source::request_flush(gboolean flushing)
{
    GST_OBJECT_LOCK(element_);
    if (poll_)
        gst_poll_set_flushing(poll_, flushing);
    GST_OBJECT_UNLOCK(element_);
}

GstStructure *Source::stats() const
{
    GST_OBJECT_LOCK(element_);
    SourceCounters counters = counters_;
    GST_OBJECT_UNLOCK(element_);
    return stats_structure(counters);
}

// ---- Streaming ----

// Waits until every camera of the set has a filled buffer waiting.
WaitResult Source::wait_for_all(int timeout, gint64 deadline)
{
    for (auto &fd : poll_fds_) {
        gst_poll_fd_ctl_read(poll_, &fd, TRUE);
        gint64 left = deadline - g_get_monotonic_time();
        WaitResult wait =
            wait_readable(poll_, timeout < 0 ? GST_CLOCK_TIME_NONE : GstClockTime(MAX(left, 0)) * GST_USECOND);
        gst_poll_fd_ctl_read(poll_, &fd, FALSE);
        if (wait != WaitResult::Ready)
            return wait;
    }
    return WaitResult::Ready;
}

// Takes the next set the library accepts; the flow return on failure.
GstFlowReturn Source::take_set(FrameSet *set)
{
    GST_OBJECT_LOCK(element_);
    int timeout = timeout_ms;
    GST_OBJECT_UNLOCK(element_);
    gint64 deadline = g_get_monotonic_time() + gint64(timeout) * 1000;
    int refused_in_a_row = 0;
    for (;;) {
        {
            std::lock_guard<std::mutex> guard(stream_->library_lock());
            stream_->put_back_released();
        }
        WaitResult wait = wait_for_all(timeout, deadline);
        if (wait == WaitResult::Flushing)
            return GST_FLOW_FLUSHING;
        if (wait != WaitResult::Ready) {
            post_library_error(element_, take_call(),
                               wait == WaitResult::TimedOut ? ISP_ERR_TIMEOUT : ISP_ERR_SELECT);
            return GST_FLOW_ERROR;
        }
        int result;
        {
            // Every node is readable: no wait inside the library, so a state
            // change never waits for the sensor.
            std::lock_guard<std::mutex> guard(stream_->library_lock());
            result = take(set);
        }
        if (result == ISP_OK)
            return GST_FLOW_OK;
        if (result == ISP_ERR_NOT_READY) {
            // Decimation skipped the frames that were ready.
            if (timeout < 0 || g_get_monotonic_time() < deadline)
                continue;
            result = ISP_ERR_TIMEOUT;
        } else if (result == ISP_ERR_REQUEST && ++refused_in_a_row < kMostRefusedInARow) {
            GST_OBJECT_LOCK(element_);
            ++counters_.refused;
            GST_OBJECT_UNLOCK(element_);
            continue;
        }
        post_library_error(element_, take_call(), result);
        return GST_FLOW_ERROR;
    }
}

void Source::pause_streaming(GstFlowReturn flow)
{
    GST_DEBUG_OBJECT(element_, "pausing: %s", gst_flow_get_name(flow));
    if (flow == GST_FLOW_EOS || flow <= GST_FLOW_NOT_NEGOTIATED) {
        if (flow != GST_FLOW_EOS && flow != GST_FLOW_ERROR)
            GST_ELEMENT_FLOW_ERROR(element_, flow);
        for (auto &output : outputs_)
            gst_pad_push_event(output->pad, gst_event_new_eos());
    }
    gst_pad_pause_task(outputs_[0]->pad);
}

void Source::loop()
{
    if (!capturing_) {
        const char *call = "";
        int result;
        {
            std::lock_guard<std::mutex> guard(stream_->library_lock());
            result = start_capture(&call);
        }
        if (result != ISP_OK) {
            post_library_error(element_, call, result);
            return pause_streaming(GST_FLOW_ERROR);
        }
        capturing_ = true;
    }
    if (!started_pads_) {
        if (!start_pads())
            return pause_streaming(GST_FLOW_NOT_NEGOTIATED);
        started_pads_ = true;
    }
    GST_OBJECT_LOCK(element_);
    int most = num_buffers;
    GST_OBJECT_UNLOCK(element_);
    if (eos_pending_ || (most >= 0 && pushed_ >= guint64(most)))
        return pause_streaming(GST_FLOW_EOS);

    FrameSet set;
    GstFlowReturn flow = take_set(&set);
    if (flow == GST_FLOW_FLUSHING && eos_pending_)
        flow = GST_FLOW_EOS;
    if (flow != GST_FLOW_OK)
        return pause_streaming(flow);
    push_set(set);
}

void Source::push_set(FrameSet &set)
{
    // One PTS for the whole set: its earliest capture; the spread of the
    // capture times is the set's skew.
    const int view = outputs_[0]->output.view;
    uint64_t first = UINT64_MAX, last = 0;
    for (size_t i = 0; i < set.count; ++i) {
        first = std::min<uint64_t>(first, set.frames[i].views[view].timestamp);
        last = std::max<uint64_t>(last, set.frames[i].views[view].timestamp);
    }
    uint32_t sequence = set.frames[0].views[view].sequence;
    bool discont = !have_sequence_;
    guint64 missing = 0;
    if (have_sequence_ && sequence > last_sequence_ + 1) {
        missing = guint64(sequence - last_sequence_ - 1) - skipped_between(last_sequence_ + 1, sequence - 1);
        discont = missing > 0;
    }
    if (have_sequence_ && first > last_timestamp_us_) {
        guint64 steps = sequence > last_sequence_ ? sequence - last_sequence_ : 1;
        frame_interval_ = (first - last_timestamp_us_) * GST_USECOND / steps;
    }
    have_sequence_ = true;
    last_sequence_ = sequence;
    last_timestamp_us_ = first;
    GstClockTime pts = capture_running_time(element_, first);

    // Wrap unless that would leave the driver fewer than two buffers.
    Stream::Frame *frames[kMostFramesInSet];
    bool copy[kMostFramesInSet];
    guint64 copies = 0;
    for (size_t i = 0; i < set.count; ++i) {
        copy[i] = stream_->held(handles_[i]) >= buffers - kQueuedReserve;
        copies += copy[i] ? 1 : 0;
        frames[i] = stream_->hold(handles_[i], set.frames[i]);
    }
    GstFlowReturn flow = GST_FLOW_OK;
    std::vector<GstBuffer *> out;
    for (auto &output : outputs_) {
        GstBuffer *buffer =
            output->eos ? nullptr : view_buffer(stream_, frames[output->frame], output->output, copy[output->frame]);
        if (buffer) {
            GST_BUFFER_PTS(buffer) = pts;
            if (discont)
                GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_DISCONT);
        } else if (!output->eos) {
            GST_ELEMENT_ERROR(element_, RESOURCE, READ,
                              ("%s: the plane cannot hold a %ux%u image", output->label.c_str(),
                               output->output.format.width, output->output.format.height),
                              (nullptr));
            flow = GST_FLOW_ERROR;
        }
        out.push_back(buffer);
    }
    for (size_t i = 0; i < set.count; ++i)
        stream_->done(frames[i]);
    if (flow != GST_FLOW_OK) {
        for (GstBuffer *buffer : out)
            if (buffer)
                gst_buffer_unref(buffer);
        return pause_streaming(flow);
    }
    GST_OBJECT_LOCK(element_);
    ++counters_.frames;
    counters_.dropped += missing;
    counters_.copied += copies;
    counters_.skew_us = last - first;
    counters_.max_skew_us = std::max<guint64>(counters_.max_skew_us, last - first);
    GST_OBJECT_UNLOCK(element_);
    ++pushed_;
    GST_LOG_OBJECT(element_, "frame %u%s%s, skew %" G_GUINT64_FORMAT " us, pts %" GST_TIME_FORMAT, sequence,
                   copies ? " (copied)" : "", missing ? " after a gap" : "", last - first, GST_TIME_ARGS(pts));

    // The last pads first: the always pad's peer is often the slowest.
    size_t finished = 0, unlinked = 0;
    for (size_t i = outputs_.size(); i-- > 0;) {
        PadOutput &output = *outputs_[i];
        if (!out[i]) {
            ++finished;
            continue;
        }
        GstFlowReturn pushed = gst_pad_push(output.pad, out[i]);
        if (pushed == GST_FLOW_EOS) {
            output.eos = true;
            ++finished;
        } else if (pushed == GST_FLOW_NOT_LINKED) {
            ++unlinked; // an unlinked pad does not stop the others
        } else if (pushed != GST_FLOW_OK) {
            flow = pushed;
        }
    }
    if (flow == GST_FLOW_OK && finished == outputs_.size())
        flow = GST_FLOW_EOS;
    else if (flow == GST_FLOW_OK && unlinked + finished == outputs_.size())
        flow = GST_FLOW_NOT_LINKED;
    if (flow != GST_FLOW_OK)
        pause_streaming(flow);
}

} // namespace gstzelisp

// ---- The GObject ----

namespace {

Source &source_of(gpointer element) { return gst_zelisp_base_src_source(element); }

void stream_loop(gpointer element) { source_of(element).loop(); }

GstStateChangeReturn change_state(GstElement *element, GstStateChange transition)
{
    Source &source = source_of(element);
    switch (transition) {
    case GST_STATE_CHANGE_READY_TO_PAUSED:
        if (!source.set_up())
            return GST_STATE_CHANGE_FAILURE;
        break;
    case GST_STATE_CHANGE_PLAYING_TO_PAUSED:
    case GST_STATE_CHANGE_PAUSED_TO_READY:
        // Wakes the streaming thread out of its wait for the sensor.
        source.request_flush(TRUE);
        break;
    default:
        break;
    }
    GstStateChangeReturn result =
        GST_ELEMENT_CLASS(gst_zelisp_base_src_parent_class)->change_state(element, transition);
    if (result == GST_STATE_CHANGE_FAILURE) {
        if (transition == GST_STATE_CHANGE_READY_TO_PAUSED)
            source.tear_down();
        return result;
    }
    // The streaming thread is the first pad's task (set up means a pad).
    switch (transition) {
    case GST_STATE_CHANGE_READY_TO_PAUSED:
        result = GST_STATE_CHANGE_NO_PREROLL; // live: frames only in PLAYING
        break;
    case GST_STATE_CHANGE_PAUSED_TO_PLAYING:
        source.request_flush(FALSE);
        gst_pad_start_task(source.outputs()[0]->pad, stream_loop, element, nullptr);
        break;
    case GST_STATE_CHANGE_PLAYING_TO_PAUSED:
        gst_pad_pause_task(source.outputs()[0]->pad);
        result = GST_STATE_CHANGE_NO_PREROLL;
        break;
    case GST_STATE_CHANGE_PAUSED_TO_READY:
        gst_pad_stop_task(source.outputs()[0]->pad);
        source.tear_down();
        break;
    default:
        break;
    }
    return result;
}

gboolean send_event(GstElement *element, GstEvent *event)
{
    if (GST_EVENT_TYPE(event) != GST_EVENT_EOS)
        return GST_ELEMENT_CLASS(gst_zelisp_base_src_parent_class)->send_event(element, event);
    gst_event_unref(event);
    source_of(element).request_eos();
    return TRUE;
}

void set_property(GObject *object, guint id, const GValue *value, GParamSpec *pspec)
{
    Source &source = source_of(object);
    if (id == PROP_BUFFERS && source.is_set_up()) {
        source.refuse_while_set_up(object, pspec->name);
        return;
    }
    GST_OBJECT_LOCK(object);
    switch (id) {
    case PROP_BUFFERS:
        source.buffers = g_value_get_int(value);
        break;
    case PROP_TIMEOUT_MS:
        source.timeout_ms = g_value_get_int(value);
        break;
    case PROP_NUM_BUFFERS:
        source.num_buffers = g_value_get_int(value);
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        break;
    }
    GST_OBJECT_UNLOCK(object);
}

void get_property(GObject *object, guint id, GValue *value, GParamSpec *pspec)
{
    Source &source = source_of(object);
    if (id == PROP_STATS) {
        g_value_take_boxed(value, source.stats());
        return;
    }
    GST_OBJECT_LOCK(object);
    switch (id) {
    case PROP_BUFFERS:
        g_value_set_int(value, source.buffers);
        break;
    case PROP_TIMEOUT_MS:
        g_value_set_int(value, source.timeout_ms);
        break;
    case PROP_NUM_BUFFERS:
        g_value_set_int(value, source.num_buffers);
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        break;
    }
    GST_OBJECT_UNLOCK(object);
}

void finalize(GObject *object)
{
    delete &source_of(object);
    G_OBJECT_CLASS(gst_zelisp_base_src_parent_class)->finalize(object);
}

} // namespace

static void gst_zelisp_base_src_class_init(GstZelispBaseSrcClass *klass)
{
    GObjectClass *object_class = G_OBJECT_CLASS(klass);
    GstElementClass *element_class = GST_ELEMENT_CLASS(klass);
    object_class->set_property = set_property;
    object_class->get_property = get_property;
    object_class->finalize = finalize;
    element_class->change_state = change_state;
    element_class->send_event = send_event;

    const GParamFlags flags = GParamFlags(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_READY);
    g_object_class_install_property(object_class, PROP_BUFFERS,
                                    g_param_spec_int("buffers", "Buffers",
                                                     "Capture buffers the driver fills, for each camera", 3, 8,
                                                     kDefaultBuffers, flags));
    g_object_class_install_property(
        object_class, PROP_TIMEOUT_MS,
        g_param_spec_int("timeout-ms", "Timeout",
                         "How long to wait for a frame before posting an error, in milliseconds (-1: forever)", -1,
                         G_MAXINT, kDefaultTimeoutMs,
                         GParamFlags(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_PLAYING)));
    g_object_class_install_property(
        object_class, PROP_NUM_BUFFERS,
        g_param_spec_int("num-buffers", "num-buffers",
                         "Number of frames (frame sets of a group) to push before EOS (-1: unlimited)", -1, G_MAXINT,
                         -1, flags));
    g_object_class_install_property(
        object_class, PROP_STATS,
        g_param_spec_boxed("stats", "Statistics",
                           "frames (frame sets of a group) pushed, dropped (sequence gaps), refused by the library, "
                           "copied under buffer pressure; a group adds the spread of its members' capture times in "
                           "the last set and at most (skew-us, max-skew-us)",
                           GST_TYPE_STRUCTURE, GParamFlags(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS)));
    GST_DEBUG_CATEGORY_INIT(zelispbasesrc_debug, "zelispbasesrc", 0, "ISP camera sources: streaming");
}

static void gst_zelisp_base_src_init(GstZelispBaseSrc *self)
{
    GST_OBJECT_FLAG_SET(self, GST_ELEMENT_FLAG_SOURCE);
}
