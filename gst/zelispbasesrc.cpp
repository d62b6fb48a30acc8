/*
 * zelispbasesrc.cpp - the streaming thread, live state changes, queries and
 * common properties of the source elements.
 *
 * A live source produces only in PLAYING, and no state change may wait for
 * a streaming thread that is itself waiting: for the sensor, or inside a
 * push that a prerolling sink holds until the pipeline plays again. So the
 * task runs from PAUSED to READY: PLAYING to PAUSED only wakes it (it then
 * waits for PLAYING again, holding nothing the state change needs), and
 * PAUSED to READY wakes it for good once downstream flushes, before the pads
 * are deactivated and the task is joined.
 *
 * Locks, in the order they may be taken (never the other way round):
 *   1. the task pad's stream lock, held by the streaming thread while it
 *      runs; taken by others only through pad deactivation and the task
 *      calls of PAUSED to READY, after the thread has been woken;
 *   2. live_lock_: the playing and stopping flags and the resume count;
 *      held to set them and to wait on them (the streaming thread reads
 *      them without it while it plays on);
 *   3. Stream::library_lock(): every library call on the stream's cameras
 *      (the library's message handler may post from inside a call, which
 *      takes GST_OBJECT_LOCK);
 *   4. GST_OBJECT_LOCK(element): properties, the output list, the stream
 *      pointer; no call out of the element while held (the counters and
 *      the properties read every frame are atomics).
 * Frames freed downstream reach the streaming thread through the Stream's
 * list of released frames, which takes no lock.
 *
 * A camera has only a few buffers. When downstream holds so many that fewer
 * than two would stay queued in the driver, a frame is copied into a pooled
 * buffer and given back at once: the sensor keeps its rate and the copies
 * are counted in "stats". The pool holds at most "max-copies"; past that the
 * frame is dropped and counted, so memory stays flat behind a downstream
 * that never lets go.
 */
#include "zelispbasesrc.h"

#include <algorithm>
#include <array>

#include "formats.h"
#include "library_messages.h"

GST_DEBUG_CATEGORY_STATIC(zelispbasesrc_debug);
#define GST_CAT_DEFAULT zelispbasesrc_debug

using namespace gstzelisp;

namespace {

constexpr int kDefaultBuffers = 4;
constexpr int kDefaultMaxCopies = 16;
constexpr int kDefaultTimeoutMs = 2000;
// A failing dequeue and a refused frame both return -11: give up after this
// many in a row.
constexpr int kMostRefusedInARow = 100;
// Fewer queued buffers than this and the sensor would drop frames.
constexpr int kQueuedReserve = 2;

enum {
    PROP_0,
    PROP_BUFFERS,
    PROP_MAX_COPIES,
    PROP_TIMEOUT_MS,
    PROP_NUM_BUFFERS,
    PROP_STATS,
};

void stream_loop(gpointer element);

} // namespace

struct GstZelispBaseSrcPrivate {
    Source *source;
};

G_DEFINE_ABSTRACT_TYPE_WITH_PRIVATE(GstZelispBaseSrc, gst_zelisp_base_src, GST_TYPE_ELEMENT)

Source &gst_zelisp_base_src_source(gpointer element)
{
    // Called a frame by the streaming thread, with the element it was given:
    // no checked cast.
    auto *priv = static_cast<GstZelispBaseSrcPrivate *>(
        gst_zelisp_base_src_get_instance_private(static_cast<GstZelispBaseSrc *>(element)));
    return *priv->source;
}

void gst_zelisp_base_src_set_source(GstZelispBaseSrc *element, Source *source)
{
    auto *priv = static_cast<GstZelispBaseSrcPrivate *>(gst_zelisp_base_src_get_instance_private(element));
    priv->source = source;
}

namespace gstzelisp {

SourceCounters LiveCounters::snapshot() const
{
    SourceCounters counters;
    counters.frames = frames;
    counters.dropped = dropped;
    counters.refused = refused;
    counters.copied = copied;
    counters.copy_limit_drops = copy_limit_drops;
    counters.skew_us = skew_us;
    counters.max_skew_us = max_skew_us;
    return counters;
}

void LiveCounters::reset()
{
    for (auto *counter : {&frames, &dropped, &refused, &copied, &copy_limit_drops, &skew_us, &max_skew_us})
        *counter = 0;
}

PadOutput::~PadOutput()
{
    if (caps)
        gst_caps_unref(caps);
    if (pad)
        gst_object_unref(pad);
}

void Source::refuse_while_set_up(GObject *object, const char *property) const
{
    refuse_property(object, property,
                    std::string("the ") + noun_ + " is set up; change it in the READY or NULL state");
}

void Source::sync_controlled_values(GstClockTime running_time)
{
    gst_object_sync_values(GST_OBJECT_CAST(element_), running_time);
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
    output->pad = GST_PAD(gst_object_ref(pad));
    GST_OBJECT_LOCK(element_);
    outputs_.push_back(std::move(output));
    ++outputs_version_;
    GST_OBJECT_UNLOCK(element_);
    return pad;
}

void Source::set_caps(PadOutput &output, GstCaps *caps)
{
    GST_OBJECT_LOCK(element_);
    GstCaps *old = output.caps;
    output.caps = caps;
    output.output.dmabuf = caps_want_dmabuf(caps);
    GST_OBJECT_UNLOCK(element_);
    if (old)
        gst_caps_unref(old);
}

void Source::forget_pad(GstPad *pad)
{
    for (auto it = outputs_.begin(); it != outputs_.end(); ++it)
        if ((*it)->pad == pad) {
            (*it)->released = true;
            outputs_.erase(it);
            ++outputs_version_;
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
            if (output->pad == pad && is_set_up() && output->caps)
                caps = gst_caps_ref(output->caps);
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
        GST_OBJECT_LOCK(element_);
        bool set_up = is_set_up();
        int count = buffers;
        GST_OBJECT_UNLOCK(element_);
        if (!set_up)
            return FALSE;
        // A frame is complete one frame period after its capture time, and
        // the driver can hold the frames of all but two buffers.
        GstClockTime interval = frame_interval_;
        gst_query_set_latency(query, TRUE, interval, interval * guint64(count - kQueuedReserve + 1));
        return TRUE;
    }
    default:
        return gst_pad_query_default(pad, parent, query);
    }
}

// Stream start, the caps negotiated at set-up and segment on every pad.
// Downstream agreed to the caps already; one that changed its mind since
// refuses the first buffer (not-negotiated), and a pad flushing on the way
// down refuses the events: neither is for here to judge.
void Source::start_pads()
{
    refresh_outputs();
    guint group_id = gst_util_group_id_next();
    for (auto &output : streaming_outputs_) {
        output->eos = false;
        gchar *id = gst_pad_create_stream_id(output->pad, element_, output->stream_name.c_str());
        GstEvent *start = gst_event_new_stream_start(id);
        gst_event_set_group_id(start, group_id);
        gst_pad_push_event(output->pad, start);
        g_free(id);
        GST_DEBUG_OBJECT(element_, "%s: %s in %s memory: %" GST_PTR_FORMAT, GST_PAD_NAME(output->pad),
                         output->label.c_str(), output->output.dmabuf ? "DMA-buf" : "system", output->caps);
        gst_pad_push_event(output->pad, gst_event_new_caps(output->caps));
        GstSegment segment;
        gst_segment_init(&segment, GST_FORMAT_TIME);
        gst_pad_push_event(output->pad, gst_event_new_segment(&segment));
    }
}

// ---- Set-up, live state and teardown ----

bool Source::set_up()
{
    // From here on a request pad or a property change would come after the
    // set-up read them: refused (see is_fixed()).
    std::lock_guard<std::mutex> layout(layout_lock_);
    GST_OBJECT_LOCK(element_);
    setting_up_ = true;
    GST_OBJECT_UNLOCK(element_);
    bool done = open_stream();
    GST_OBJECT_LOCK(element_);
    setting_up_ = false;
    GST_OBJECT_UNLOCK(element_);
    return done;
}

bool Source::open_stream()
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
    // The frames' own mappings, so that the camera closes at once when the
    // element stops, whatever downstream still holds.
    for (unsigned long handle : handles) {
        std::vector<int> views;
        GST_OBJECT_LOCK(element_);
        for (auto &output : outputs_)
            if (std::find(views.begin(), views.end(), output->output.view) == views.end())
                views.push_back(output->output.view);
        GST_OBJECT_UNLOCK(element_);
        std::shared_ptr<PlaneMaps> planes = PlaneMaps::map(handle, views);
        if (!planes)
            GST_INFO_OBJECT(element_, "a plane has no export that maps: frames held past the stop keep the camera open");
        stream->use_planes(handle, std::move(planes));
    }
    GstPoll *poll = gst_poll_new(TRUE);
    poll_fds_ = std::move(fds);
    for (auto &fd : poll_fds_)
        gst_poll_add_fd(poll, &fd);
    if (poll_fds_.size() == 1)
        gst_poll_fd_ctl_read(poll, &poll_fds_[0], TRUE);
    handles_ = std::move(handles);
    capturing_ = false;
    started_pads_ = false;
    resumes_seen_ = 0;
    resumed_ = false;
    discont_pending_ = false;
    pushed_ = 0;
    have_sequence_ = false;
    unpushed_since_pushed_ = 0;
    have_pts_ = false;
    {
        std::lock_guard<std::mutex> guard(live_lock_);
        playing_ = false;
        stopping_ = false;
        resumes_ = 0;
        eos_pending_ = false;
    }
    GST_OBJECT_LOCK(element_);
    poll_ = poll;
    stream_ = stream;
    counters_.reset();
    task_pad_ = GST_PAD(gst_object_ref(outputs_[0]->pad));
    GST_OBJECT_UNLOCK(element_);
    return true;
}

// READY to PAUSED, pads active: the thread starts and waits for PLAYING.
void Source::start_streaming() { gst_pad_start_task(task_pad_, stream_loop, element_, nullptr); }

void Source::play()
{
    GST_OBJECT_LOCK(element_);
    GstClock *clock = element_->clock ? GST_CLOCK_CAST(gst_object_ref(element_->clock)) : nullptr;
    GstClockTime base_time = element_->base_time;
    GST_OBJECT_UNLOCK(element_);
    {
        std::lock_guard<std::mutex> guard(live_lock_);
        playing_ = true;
        ++resumes_;
        resumed_at_us_ = g_get_monotonic_time();
        std::swap(resumed_clock_, clock);
        resumed_base_time_ = base_time;
    }
    if (clock)
        gst_object_unref(clock);
    live_changed_.notify_all();
    wake_streaming_thread(FALSE);
}

void Source::pause()
{
    {
        std::lock_guard<std::mutex> guard(live_lock_);
        playing_ = false;
    }
    wake_streaming_thread(TRUE);
}

// PAUSED to READY, before the pads are deactivated: the thread stops
// waiting for good, so that deactivation gets its stream lock.
void Source::begin_stop()
{
    {
        std::lock_guard<std::mutex> guard(live_lock_);
        playing_ = false;
        stopping_ = true;
    }
    live_changed_.notify_all();
    wake_streaming_thread(TRUE);
}

// After deactivation: the thread has paused itself; join it, close.
void Source::finish_stop()
{
    if (task_pad_)
        gst_pad_stop_task(task_pad_);
    tear_down();
}

// A woken wait for the sensor returns at once (and keeps returning until
// woken is cleared).
void Source::wake_streaming_thread(gboolean woken)
{
    GST_OBJECT_LOCK(element_);
    if (poll_)
        gst_poll_set_flushing(poll_, woken);
    GST_OBJECT_UNLOCK(element_);
}

void Source::tear_down()
{
    GST_OBJECT_LOCK(element_);
    Stream *stream = stream_;
    stream_ = nullptr;
    GstPad *task_pad = task_pad_;
    task_pad_ = nullptr;
    GstPoll *poll = poll_;
    poll_ = nullptr;
    std::vector<std::shared_ptr<PadOutput>> outputs = outputs_;
    GST_OBJECT_UNLOCK(element_);
    if (task_pad)
        gst_object_unref(task_pad);
    if (!stream)
        return;
    stream_closing();
    stream->stop();
    if (capturing_) {
        std::lock_guard<std::mutex> guard(stream->library_lock());
        stop_capture();
    }
    capturing_ = false;
    // Closes the camera now, or when downstream frees the last frame.
    stream->unref();
    gst_poll_free(poll);
    poll_fds_.clear();
    for (auto &output : outputs)
        output->output.copies.reset();
    streaming_outputs_.clear();
    streaming_version_ = G_MAXUINT64;
    gst_object_replace(reinterpret_cast<GstObject **>(&clock_), nullptr);
    std::lock_guard<std::mutex> guard(live_lock_);
    gst_object_replace(reinterpret_cast<GstObject **>(&resumed_clock_), nullptr);
}

// An EOS sent to the element (gst-launch-1.0 -e, an application ending a
// recording) ends the stream after the frame in flight, also while paused.
void Source::request_eos()
{
    {
        std::lock_guard<std::mutex> guard(live_lock_);
        eos_pending_ = true;
    }
    live_changed_.notify_all();
    wake_streaming_thread(TRUE);
}

GstStructure *Source::stats() const { return stats_structure(counters_.snapshot()); }

// ---- Streaming ----

// False when the element stops.
bool Source::wait_until_playing()
{
    // Playing on, with no pause and resume since the last frame: no lock.
    if (playing_.load(std::memory_order_acquire) && !stopping_.load(std::memory_order_acquire) &&
        resumes_.load(std::memory_order_acquire) == resumes_seen_)
        return true;
    return wait_for_live_change();
}

// Kept out of line: the lock and the wait would cost every frame's check
// its own stack frame.
G_NO_INLINE bool Source::wait_for_live_change()
{
    std::unique_lock<std::mutex> lock(live_lock_);
    live_changed_.wait(lock, [this] { return playing_ || stopping_ || eos_pending_; });
    note_resume();
    return !stopping_;
}

// A pause and resume may come and go while the thread waits for the
// sensor, unseen: checked again with every set taken. Frames captured
// before the resume belong to the pause: the running time has moved on
// without them. With live_lock_ held.
void Source::note_resume()
{
    if (resumes_ == resumes_seen_)
        return;
    resumes_seen_ = resumes_;
    resume_floor_us_ = resumed_at_us_;
    resumed_ = have_sequence_;
    gst_object_replace(reinterpret_cast<GstObject **>(&clock_), GST_OBJECT_CAST(resumed_clock_));
    base_time_ = resumed_base_time_;
}

// Waits until every camera of the set has a filled buffer waiting. A
// group's nodes are waited for one at a time; a single node keeps its read
// interest from set-up on.
WaitResult Source::wait_for_all(int timeout, gint64 deadline, gint64 now_us)
{
    const bool alone = poll_fds_.size() == 1;
    for (auto &fd : poll_fds_) {
        if (!alone)
            gst_poll_fd_ctl_read(poll_, &fd, TRUE);
        gint64 left = deadline - now_us;
        WaitResult wait =
            wait_readable(poll_, timeout < 0 ? GST_CLOCK_TIME_NONE : GstClockTime(MAX(left, 0)) * GST_USECOND);
        if (alone)
            return wait;
        gst_poll_fd_ctl_read(poll_, &fd, FALSE);
        if (wait != WaitResult::Ready)
            return wait;
        now_us = g_get_monotonic_time();
    }
    return WaitResult::Ready;
}

// Takes the next set the library accepts; the flow return on failure,
// FLUSHING when a state change or an EOS request woke the wait.
GstFlowReturn Source::take_set(FrameSet *set)
{
    int timeout = timeout_ms.load(std::memory_order_relaxed);
    gint64 now_us = g_get_monotonic_time();
    gint64 deadline = now_us + gint64(timeout) * 1000;
    int refused_in_a_row = 0;
    for (;;) {
        {
            std::lock_guard<std::mutex> guard(stream_->library_lock());
            stream_->put_back_released();
        }
        WaitResult wait = wait_for_all(timeout, deadline, now_us);
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
        now_us = g_get_monotonic_time();
        if (result == ISP_ERR_NOT_READY) {
            // Decimation skipped the frames that were ready.
            if (timeout < 0 || now_us < deadline)
                continue;
            result = ISP_ERR_TIMEOUT;
        } else if (result == ISP_ERR_REQUEST && retry_refused(++refused_in_a_row)) {
            continue;
        }
        post_library_error(element_, take_call(), result);
        return GST_FLOW_ERROR;
    }
}

// A failed take is a frame the library refused (a repeated sequence, or
// closer than 12 ms to the last): counted, and the next one taken; unless
// refusals keep coming or a node hung up, which no retry mends. Out of
// line: inlined, this rare path would cost every frame's path registers.
G_NO_INLINE bool Source::retry_refused(int refused_in_a_row)
{
    if (refused_in_a_row >= kMostRefusedInARow || node_hung_up(poll_fds_))
        return false;
    counters_.refused.fetch_add(1, std::memory_order_relaxed);
    ++unpushed_since_pushed_;
    return true;
}

// The capture time of a set is its earliest frame's; the spread up to its
// latest is the set's skew.
static CaptureSpan capture_span(const FrameSet &set, int view)
{
    CaptureSpan span{UINT64_MAX, 0};
    for (size_t i = 0; i < set.count; ++i) {
        uint64_t timestamp = set.frames[i].views[view].timestamp;
        span.first = std::min(span.first, timestamp);
        span.last = std::max(span.last, timestamp);
    }
    return span;
}

// A driver timestamp before the stream started or in the future is not a
// capture time this element can place; such a frame counts as captured
// when it arrived.
static bool trusted_capture(uint64_t capture_us, gint64 stream_on_us, gint64 now_us)
{
    return gint64(capture_us) >= stream_on_us && gint64(capture_us) <= now_us;
}

bool Source::captured_before_resume(uint64_t capture_us, gint64 now_us) const
{
    return trusted_capture(capture_us, stream_on_us_, now_us) && gint64(capture_us) < resume_floor_us_;
}

void Source::give_back(const FrameSet &set)
{
    for (size_t i = 0; i < set.count; ++i)
        stream_->done(stream_->hold(handles_[i], set.frames[i]));
}

// The PTS: the running time of the capture, after the previous set's.
GstClockTime Source::set_pts(uint64_t capture_us, gint64 now_us)
{
    gint64 age_us = trusted_capture(capture_us, stream_on_us_, now_us) ? now_us - gint64(capture_us) : 0;
    GstClockTime pts = running_time_ago(clock_, base_time_, age_us);
    if (pts == GST_CLOCK_TIME_NONE)
        return pts;
    if (have_pts_ && pts <= last_pts_)
        pts = last_pts_ + 1;
    have_pts_ = true;
    last_pts_ = pts;
    return pts;
}

// The streaming thread's copy of the output list, renewed when a pad came
// or went. An output dropped from the copy is freed outside the lock.
void Source::refresh_outputs()
{
    if (streaming_version_ == outputs_version_.load(std::memory_order_acquire))
        return;
    std::vector<std::shared_ptr<PadOutput>> old;
    GST_OBJECT_LOCK(element_);
    if (streaming_version_ != outputs_version_) {
        old.swap(streaming_outputs_);
        streaming_outputs_ = outputs_;
        streaming_version_ = outputs_version_;
    }
    GST_OBJECT_UNLOCK(element_);
}

bool Source::pause_streaming(GstFlowReturn flow)
{
    GST_DEBUG_OBJECT(element_, "pausing: %s", gst_flow_get_name(flow));
    if (flow == GST_FLOW_EOS || flow <= GST_FLOW_NOT_NEGOTIATED) {
        if (flow != GST_FLOW_EOS && flow != GST_FLOW_ERROR)
            GST_ELEMENT_FLOW_ERROR(element_, flow);
        refresh_outputs();
        for (auto &output : streaming_outputs_)
            gst_pad_push_event(output->pad, gst_event_new_eos());
    }
    gst_pad_pause_task(task_pad_);
    return false;
}

void Source::loop()
{
    // The frame loop's lines (a refused frame) are logged; what matters is
    // counted in stats or posted as the error.
    LibraryCalls calls(GST_OBJECT_CAST(element_), false);
    // Frames follow one another without going back to the task in between:
    // the task's round (its locks and state check) and this scope would
    // otherwise cost every frame. The round ends when the thread pauses its
    // task; a pause or stop of the element wakes it to do so.
    while (stream_next_set()) {
    }
}

// False once the task is paused.
bool Source::stream_next_set()
{
    if (!wait_until_playing())
        return pause_streaming(GST_FLOW_FLUSHING);
    if (!started_pads_) {
        start_pads();
        started_pads_ = true;
    }
    int most = num_buffers.load(std::memory_order_relaxed);
    // Also an EOS sent before the first frame: the camera need not start.
    if (eos_pending_ || (most >= 0 && pushed_ >= guint64(most)))
        return pause_streaming(GST_FLOW_EOS);
    if (!capturing_) {
        const char *call = "";
        int result;
        stream_on_us_ = g_get_monotonic_time();
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

    FrameSet set;
    GstFlowReturn flow = take_set(&set);
    if (flow == GST_FLOW_FLUSHING)
        return true; // woken: the next round waits for PLAYING, stops or ends
    if (flow != GST_FLOW_OK)
        return pause_streaming(flow);
    refresh_outputs();
    if (resumes_.load(std::memory_order_acquire) != resumes_seen_) {
        std::lock_guard<std::mutex> guard(live_lock_);
        note_resume();
    }
    // One reading of the monotonic clock serves the frame's checks and PTS.
    gint64 taken_us = g_get_monotonic_time();
    CaptureSpan capture = capture_span(set, streaming_outputs_[0]->output.view);
    if (captured_before_resume(capture.first, taken_us)) {
        GST_LOG_OBJECT(element_, "frame %u was captured before the resume: not pushed",
                       set.frames[0].views[streaming_outputs_[0]->output.view].sequence);
        give_back(set);
        return true;
    }
    return push_set(set, capture, taken_us);
}

bool Source::push_set(FrameSet &set, CaptureSpan capture, gint64 taken_us)
{
    const auto &outputs = streaming_outputs_;
    // One PTS for the whole set: its earliest capture; the spread of the
    // capture times is the set's skew.
    const int view = outputs[0]->output.view;
    const uint64_t first = capture.first, last = capture.last;
    uint32_t sequence = set.frames[0].views[view].sequence;
    // After a resume the frames of the pause are missing on purpose.
    bool discont = !have_sequence_ || discont_pending_ || resumed_;
    guint64 missing = 0;
    if (have_sequence_ && !resumed_ && sequence > last_sequence_ + 1) {
        // Not pushed: what decimation skipped on purpose (no gap), what was
        // refused or found no copy (counted already), and what was lost.
        guint64 gap = guint64(sequence - last_sequence_ - 1) - skipped_between(last_sequence_ + 1, sequence - 1);
        missing = gap > unpushed_since_pushed_ ? gap - unpushed_since_pushed_ : 0;
        discont = discont || gap > 0;
    }
    if (have_sequence_ && first > last_timestamp_us_ && !resumed_) {
        guint64 steps = sequence > last_sequence_ ? sequence - last_sequence_ : 1;
        frame_interval_ = (first - last_timestamp_us_) * GST_USECOND / steps;
    }
    have_sequence_ = true;
    last_sequence_ = sequence;
    last_timestamp_us_ = first;
    resumed_ = false;
    unpushed_since_pushed_ = 0;
    GstClockTime pts = set_pts(first, taken_us);

    // Wrap unless that would leave the driver fewer than two buffers.
    Stream::Frame *frames[kMostFramesInSet];
    bool copy[kMostFramesInSet];
    guint64 copies = 0;
    for (size_t i = 0; i < set.count; ++i) {
        int held = 0;
        frames[i] = stream_->hold(handles_[i], set.frames[i], &held);
        copy[i] = held >= buffers - kQueuedReserve;
        copies += copy[i] ? 1 : 0;
    }
    GstFlowReturn flow = GST_FLOW_OK;
    bool no_copy_left = false;
    // A pad per view (three) or per member (eight) at most.
    std::array<GstBuffer *, kMostFramesInSet> out{};
    size_t made = 0;
    for (auto &output : outputs) {
        bool copy_limit = false;
        GstBuffer *buffer = output->eos ? nullptr
                                        : view_buffer(stream_, frames[output->frame], set.frames[output->frame],
                                                      output->output, copy[output->frame], max_copies, &copy_limit);
        if (buffer) {
            GST_BUFFER_PTS(buffer) = pts;
            if (discont)
                GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_DISCONT);
        } else if (copy_limit) {
            no_copy_left = true;
        } else if (!output->eos) {
            GST_ELEMENT_ERROR(element_, RESOURCE, READ,
                              ("%s: the plane cannot hold a %ux%u image", output->label.c_str(),
                               output->output.format.width, output->output.format.height),
                              (nullptr));
            flow = GST_FLOW_ERROR;
        }
        out[made++] = buffer;
    }
    for (size_t i = 0; i < set.count; ++i)
        stream_->done(frames[i]);
    if (flow != GST_FLOW_OK || no_copy_left) {
        for (size_t i = 0; i < made; ++i)
            if (out[i])
                gst_buffer_unref(out[i]);
        if (flow != GST_FLOW_OK)
            return pause_streaming(flow);
        // Downstream holds every copy: this set is lost, the camera keeps
        // its rate.
        counters_.dropped.fetch_add(missing + 1, std::memory_order_relaxed);
        counters_.copy_limit_drops.fetch_add(1, std::memory_order_relaxed);
        discont_pending_ = true;
        GST_LOG_OBJECT(element_, "frame %u dropped: downstream holds all %d copies", sequence, max_copies);
        return true;
    }
    counters_.frames.fetch_add(1, std::memory_order_relaxed);
    if (missing)
        counters_.dropped.fetch_add(missing, std::memory_order_relaxed);
    if (copies)
        counters_.copied.fetch_add(copies, std::memory_order_relaxed);
    counters_.skew_us.store(last - first, std::memory_order_relaxed);
    if (last - first > counters_.max_skew_us.load(std::memory_order_relaxed))
        counters_.max_skew_us.store(last - first, std::memory_order_relaxed);
    discont_pending_ = false;
    ++pushed_;
    check_skew(last - first, frame_interval_);
    GST_LOG_OBJECT(element_, "frame %u%s%s, skew %" G_GUINT64_FORMAT " us, pts %" GST_TIME_FORMAT, sequence,
                   copies ? " (copied)" : "", missing ? " after a gap" : "", last - first, GST_TIME_ARGS(pts));
    if (GST_CLOCK_TIME_IS_VALID(pts))
        sync_controlled_values(pts);

    // The last pads first: the always pad's peer is often the slowest.
    size_t finished = 0, unlinked = 0;
    for (size_t i = outputs.size(); i-- > 0;) {
        PadOutput &output = *outputs[i];
        if (!out[i]) {
            ++finished;
            continue;
        }
        GstFlowReturn pushed = gst_pad_push(output.pad, out[i]);
        if (output.released) {
            ++unlinked; // released while this set went out: whatever it answered
        } else if (pushed == GST_FLOW_EOS) {
            output.eos = true;
            ++finished;
        } else if (pushed == GST_FLOW_NOT_LINKED) {
            ++unlinked; // an unlinked pad does not stop the others
        } else if (pushed != GST_FLOW_OK) {
            flow = pushed;
        }
    }
    if (flow == GST_FLOW_OK && finished == outputs.size())
        flow = GST_FLOW_EOS;
    else if (flow == GST_FLOW_OK && unlinked + finished == outputs.size())
        flow = GST_FLOW_NOT_LINKED;
    return flow == GST_FLOW_OK || pause_streaming(flow);
}

} // namespace gstzelisp

// ---- The GObject ----

namespace {

Source &source_of(gpointer element) { return gst_zelisp_base_src_source(element); }

void stream_loop(gpointer element) { source_of(element).loop(); }

GstStateChangeReturn change_state(GstElement *element, GstStateChange transition)
{
    Source &source = source_of(element);
    LibraryCalls calls(GST_OBJECT(element), true);
    switch (transition) {
    case GST_STATE_CHANGE_NULL_TO_READY:
        if (!source.check_present())
            return GST_STATE_CHANGE_FAILURE;
        break;
    case GST_STATE_CHANGE_READY_TO_PAUSED:
        if (!source.set_up())
            return GST_STATE_CHANGE_FAILURE;
        break;
    case GST_STATE_CHANGE_PLAYING_TO_PAUSED:
        source.pause();
        break;
    case GST_STATE_CHANGE_PAUSED_TO_READY:
        source.begin_stop();
        break;
    default:
        break;
    }
    GstStateChangeReturn result =
        GST_ELEMENT_CLASS(gst_zelisp_base_src_parent_class)->change_state(element, transition);
    if (result == GST_STATE_CHANGE_FAILURE) {
        if (transition == GST_STATE_CHANGE_READY_TO_PAUSED) {
            source.begin_stop();
            source.finish_stop();
        }
        return result;
    }
    switch (transition) {
    case GST_STATE_CHANGE_READY_TO_PAUSED:
        source.start_streaming();
        return GST_STATE_CHANGE_NO_PREROLL; // live: frames only in PLAYING
    case GST_STATE_CHANGE_PAUSED_TO_PLAYING:
        source.play();
        break;
    case GST_STATE_CHANGE_PLAYING_TO_PAUSED:
        return GST_STATE_CHANGE_NO_PREROLL;
    case GST_STATE_CHANGE_PAUSED_TO_READY:
        source.finish_stop();
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
    if ((id == PROP_BUFFERS || id == PROP_MAX_COPIES) && source.is_fixed()) {
        source.refuse_while_set_up(object, pspec->name);
        return;
    }
    GST_OBJECT_LOCK(object);
    switch (id) {
    case PROP_BUFFERS:
        source.buffers = g_value_get_int(value);
        break;
    case PROP_MAX_COPIES:
        source.max_copies = g_value_get_int(value);
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
    case PROP_MAX_COPIES:
        g_value_set_int(value, source.max_copies);
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
        object_class, PROP_MAX_COPIES,
        g_param_spec_int("max-copies", "Most copies",
                         "Frame copies downstream may hold at once, for each view, when it holds so many frames "
                         "that fewer than two buffers would stay with the driver; past that a frame is dropped "
                         "and counted in stats (0: drop instead of copying)",
                         0, 256, kDefaultMaxCopies, flags));
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
                           "frames (frame sets of a group) pushed; dropped (lost: sequence gaps, and frames for which "
                           "downstream held every copy, also counted as copies-exhausted); refused by the library; "
                           "copied under buffer pressure; a group adds the spread of its members' capture times in "
                           "the last set and at most (skew-us, max-skew-us)",
                           GST_TYPE_STRUCTURE, GParamFlags(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS)));
    GST_DEBUG_CATEGORY_INIT(zelispbasesrc_debug, "zelispbasesrc", 0, "ISP camera sources: streaming");
}

static void gst_zelisp_base_src_init(GstZelispBaseSrc *self)
{
    GST_OBJECT_FLAG_SET(self, GST_ELEMENT_FLAG_SOURCE);
}
