/*
 * zelispgroupsrc.cpp - a camera group as one live source.
 *
 * The group is created, opened, given its trigger mode and set up when the
 * element goes to PAUSED, and starts capturing when it goes to PLAYING. One
 * streaming thread reads frame sets (isp_group_get_sync_frame) and pushes
 * each member's frame on that member's pad. All buffers of one set carry
 * the PTS of the set's earliest capture, so a compositor downstream tiles
 * them in step; the spread of the members' capture times is the set's skew,
 * shown in "stats".
 *
 * Frames are wrapped zero copy, like zelispsrc's, and each member's buffer
 * goes back to its camera when GStreamer frees it; a member whose
 * downstream holds too many buffers gets copies instead.
 */
#include "zelispgroupsrc.h"

#include <gst/video/video.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "element_support.h"
#include "formats.h"
#include "frame_memory.h"
#include "property_syntax.h"
#include "zelisp.h"

GST_DEBUG_CATEGORY_STATIC(zelispgroupsrc_debug);
#define GST_CAT_DEFAULT zelispgroupsrc_debug

using namespace gstzelisp;

namespace {

constexpr int kDefaultBuffers = 4;
constexpr int kDefaultTimeoutMs = 2000;
constexpr int kMostMembers = 8;
constexpr int kQueuedReserve = 2;
constexpr int kMostFailuresInARow = 100;

enum {
    PROP_0,
    PROP_CAMERAS,
    PROP_BUFFERS,
    PROP_VIEWS,
    PROP_TRIGGER,
    PROP_TIMEOUT_MS,
    PROP_NUM_BUFFERS,
    PROP_STATS,
};

struct Member {
    int camera = 0;
    GstPad *pad = nullptr;
    unsigned long handle = 0;
    ViewOutput output;
    GstPollFD poll_fd = GST_POLL_FD_INIT;
    bool eos = false;
};

struct GroupCounters {
    guint64 sets = 0;
    guint64 dropped = 0;
    guint64 copied = 0;
    guint64 skew_us = 0;     // of the last set
    guint64 max_skew_us = 0; // since the stream was set up
};

struct GroupState {
    std::vector<int> cameras{0};
    int buffers = kDefaultBuffers;
    std::vector<int> views{0};
    TriggerSetting trigger;
    int timeout_ms = kDefaultTimeoutMs;
    int num_buffers = -1;

    std::vector<std::unique_ptr<Member>> members; // one pad each, made with "cameras"
    Stream *stream = nullptr;
    unsigned long group = 0;
    GstPoll *poll = nullptr;
    bool capturing = false;
    bool started_pads = false;
    bool have_sequence = false;
    uint32_t last_sequence = 0;
    GstClockTime frame_interval = 33 * GST_MSECOND;
    uint64_t last_timestamp_us = 0;
    guint64 sets_pushed = 0;
    std::atomic<bool> eos_pending{false};
    GroupCounters counters;
};

} // namespace

struct _GstZelispGroupSrc {
    GstElement parent;
    GroupState *state;
};

G_DEFINE_TYPE(GstZelispGroupSrc, gst_zelisp_group_src, GST_TYPE_ELEMENT)

namespace {

gboolean pad_query(GstPad *pad, GstObject *parent, GstQuery *query);

// The member pads follow the "cameras" property, so that a pipeline
// description can link them before the group exists.
void make_member_pads(GstZelispGroupSrc *self, const std::vector<int> &cameras)
{
    GroupState &s = *self->state;
    for (auto &member : s.members)
        gst_element_remove_pad(GST_ELEMENT(self), member->pad);
    s.members.clear();
    GstPadTemplate *templ = gst_element_class_get_pad_template(GST_ELEMENT_GET_CLASS(self), "src_%u");
    for (int camera : cameras) {
        auto member = std::make_unique<Member>();
        member->camera = camera;
        std::string name = "src_" + std::to_string(camera);
        member->pad = gst_pad_new_from_template(templ, name.c_str());
        gst_pad_set_query_function(member->pad, pad_query);
        gst_pad_use_fixed_caps(member->pad);
        gst_element_add_pad(GST_ELEMENT(self), member->pad);
        s.members.push_back(std::move(member));
    }
}

uint32_t combination_of(const std::vector<int> &views)
{
    uint32_t mask = 0;
    for (int view : views)
        mask |= 1u << view;
    return mask;
}

// ---- Properties ----

void set_property(GObject *object, guint id, const GValue *value, GParamSpec *pspec)
{
    GstZelispGroupSrc *self = GST_ZELISP_GROUP_SRC(object);
    GroupState &s = *self->state;
    if (id != PROP_TIMEOUT_MS && s.stream) {
        refuse_property(object, pspec->name, "the group is set up; change it in the READY or NULL state");
        return;
    }
    std::string error;
    const char *text = G_VALUE_HOLDS_STRING(value) ? g_value_get_string(value) : nullptr;
    switch (id) {
    case PROP_CAMERAS: {
        std::vector<int> cameras;
        if (parse_number_list(text ? text : "", 11, kMostMembers, &cameras, &error)) {
            s.cameras = cameras;
            make_member_pads(self, cameras);
        }
        break;
    }
    case PROP_BUFFERS:
        s.buffers = g_value_get_int(value);
        break;
    case PROP_VIEWS: {
        std::vector<int> views;
        if (parse_number_list(text ? text : "", 2, 3, &views, &error)) {
            std::sort(views.begin(), views.end());
            s.views = views;
        }
        break;
    }
    case PROP_TRIGGER: {
        TriggerSetting trigger;
        if (parse_trigger(text ? text : "", &trigger, &error))
            s.trigger = trigger;
        break;
    }
    case PROP_TIMEOUT_MS:
        s.timeout_ms = g_value_get_int(value);
        break;
    case PROP_NUM_BUFFERS:
        s.num_buffers = g_value_get_int(value);
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        break;
    }
    if (!error.empty())
        refuse_property(object, pspec->name, error);
}

void get_property(GObject *object, guint id, GValue *value, GParamSpec *pspec)
{
    GstZelispGroupSrc *self = GST_ZELISP_GROUP_SRC(object);
    GroupState &s = *self->state;
    switch (id) {
    case PROP_CAMERAS:
        g_value_set_string(value, format_number_list(s.cameras).c_str());
        break;
    case PROP_BUFFERS:
        g_value_set_int(value, s.buffers);
        break;
    case PROP_VIEWS:
        g_value_set_string(value, format_number_list(s.views).c_str());
        break;
    case PROP_TRIGGER:
        g_value_set_string(value, format_trigger(s.trigger).c_str());
        break;
    case PROP_TIMEOUT_MS:
        g_value_set_int(value, s.timeout_ms);
        break;
    case PROP_NUM_BUFFERS:
        g_value_set_int(value, s.num_buffers);
        break;
    case PROP_STATS: {
        GST_OBJECT_LOCK(self);
        GroupCounters c = s.counters;
        GST_OBJECT_UNLOCK(self);
        g_value_take_boxed(value, gst_structure_new("zelisp-group-stats", "frames", G_TYPE_UINT64, c.sets, "dropped",
                                                    G_TYPE_UINT64, c.dropped, "refused", G_TYPE_UINT64, guint64(0),
                                                    "copied", G_TYPE_UINT64, c.copied, "skew-us", G_TYPE_UINT64,
                                                    c.skew_us, "max-skew-us", G_TYPE_UINT64, c.max_skew_us, nullptr));
        break;
    }
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        break;
    }
}

// ---- Pads ----

gboolean pad_query(GstPad *pad, GstObject *parent, GstQuery *query)
{
    GstZelispGroupSrc *self = GST_ZELISP_GROUP_SRC(parent);
    GroupState &s = *self->state;
    switch (GST_QUERY_TYPE(query)) {
    case GST_QUERY_CAPS: {
        GstCaps *caps = nullptr;
        GST_OBJECT_LOCK(self);
        for (auto &member : s.members)
            if (member->pad == pad && s.stream)
                caps = view_caps(member->output.format);
        GST_OBJECT_UNLOCK(self);
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
        if (!s.stream)
            return FALSE;
        GstClockTime interval = s.frame_interval;
        gst_query_set_latency(query, TRUE, interval, interval * guint64(s.buffers - kQueuedReserve + 1));
        return TRUE;
    }
    default:
        return gst_pad_query_default(pad, parent, query);
    }
}

bool start_pads(GstZelispGroupSrc *self)
{
    GroupState &s = *self->state;
    guint group_id = gst_util_group_id_next();
    for (auto &member : s.members) {
        gchar *id = gst_pad_create_stream_id_printf(member->pad, GST_ELEMENT(self), "camera%d", member->camera);
        GstEvent *start = gst_event_new_stream_start(id);
        gst_event_set_group_id(start, group_id);
        gst_pad_push_event(member->pad, start);
        g_free(id);
        GstCaps *ours = view_caps(member->output.format);
        GstCaps *peer = gst_pad_peer_query_caps(member->pad, ours);
        gst_caps_unref(ours);
        if (gst_caps_is_empty(peer)) {
            gst_caps_unref(peer);
            GST_ELEMENT_ERROR(self, CORE, NEGOTIATION,
                              ("%s: downstream takes no caps of camera %d", GST_PAD_NAME(member->pad), member->camera),
                              (nullptr));
            return false;
        }
        GstCaps *chosen = gst_caps_fixate(peer);
        member->output.dmabuf = caps_want_dmabuf(chosen);
        gst_pad_push_event(member->pad, gst_event_new_caps(chosen));
        gst_caps_unref(chosen);
        GstSegment segment;
        gst_segment_init(&segment, GST_FORMAT_TIME);
        gst_pad_push_event(member->pad, gst_event_new_segment(&segment));
    }
    return true;
}

void push_eos(GstZelispGroupSrc *self)
{
    for (auto &member : self->state->members)
        gst_pad_push_event(member->pad, gst_event_new_eos());
}

// ---- Streaming ----

// Waits until every member has a filled buffer waiting.
WaitResult wait_for_set(GstZelispGroupSrc *self, gint64 deadline)
{
    GroupState &s = *self->state;
    for (auto &member : s.members) {
        gst_poll_fd_ctl_read(s.poll, &member->poll_fd, TRUE);
        gint64 left = deadline - g_get_monotonic_time();
        WaitResult wait =
            wait_readable(s.poll, s.timeout_ms < 0 ? GST_CLOCK_TIME_NONE : GstClockTime(MAX(left, 0)) * GST_USECOND);
        gst_poll_fd_ctl_read(s.poll, &member->poll_fd, FALSE);
        if (wait != WaitResult::Ready)
            return wait;
    }
    return WaitResult::Ready;
}

void stop_streaming(GstZelispGroupSrc *self, GstFlowReturn flow)
{
    if (flow == GST_FLOW_EOS || flow <= GST_FLOW_NOT_NEGOTIATED) {
        if (flow != GST_FLOW_EOS && flow != GST_FLOW_ERROR)
            GST_ELEMENT_FLOW_ERROR(self, flow);
        push_eos(self);
    }
    gst_pad_pause_task(self->state->members[0]->pad);
}

void loop(gpointer data)
{
    GstZelispGroupSrc *self = GST_ZELISP_GROUP_SRC(data);
    GroupState &s = *self->state;
    if (!s.started_pads) {
        if (!start_pads(self))
            return stop_streaming(self, GST_FLOW_NOT_NEGOTIATED);
        s.started_pads = true;
    }
    if (s.eos_pending || (s.num_buffers >= 0 && s.sets_pushed >= guint64(s.num_buffers)))
        return stop_streaming(self, GST_FLOW_EOS);

    const size_t count = s.members.size();
    zelvideo::_isp_buf_t frames[kMostMembers];
    int failures = 0;
    gint64 deadline = g_get_monotonic_time() + gint64(s.timeout_ms) * 1000;
    for (;;) {
        {
            std::lock_guard<std::mutex> guard(s.stream->library_lock());
            s.stream->put_back_released();
        }
        WaitResult wait = wait_for_set(self, deadline);
        if (wait == WaitResult::Flushing)
            return stop_streaming(self, s.eos_pending ? GST_FLOW_EOS : GST_FLOW_FLUSHING);
        if (wait != WaitResult::Ready) {
            post_library_error(GST_ELEMENT(self), "isp_group_get_sync_frame",
                               wait == WaitResult::TimedOut ? ISP_ERR_TIMEOUT : ISP_ERR_SELECT);
            return stop_streaming(self, GST_FLOW_ERROR);
        }
        int result;
        {
            std::lock_guard<std::mutex> guard(s.stream->library_lock());
            // Records still holding this index were not written.
            memset(frames, 0xff, sizeof frames);
            result = zelvideo::isp_group_get_sync_frame(s.group, frames, int(count), 0);
            if (result != ISP_OK) {
                // The members before the failing one handed their frames
                // over and keep them: give them back one by one.
                for (size_t i = 0; i < count && frames[i].index != UINT32_MAX; ++i)
                    isp_put_frame_buf(s.members[i]->handle, &frames[i]);
            }
        }
        if (result == ISP_OK)
            break;
        if ((result == ISP_ERR_REQUEST || result == ISP_ERR_NOT_READY) && ++failures < kMostFailuresInARow)
            continue;
        post_library_error(GST_ELEMENT(self), "isp_group_get_sync_frame", result);
        return stop_streaming(self, GST_FLOW_ERROR);
    }

    // One PTS for the whole set: its earliest capture.
    uint64_t first = UINT64_MAX, last = 0;
    int view = s.views.front();
    for (size_t i = 0; i < count; ++i) {
        first = std::min<uint64_t>(first, frames[i].views[view].timestamp);
        last = std::max<uint64_t>(last, frames[i].views[view].timestamp);
    }
    uint32_t sequence = frames[0].views[view].sequence;
    bool discont = false;
    guint64 missing = 0;
    if (s.have_sequence && sequence > s.last_sequence + 1) {
        missing = sequence - s.last_sequence - 1;
        discont = true;
    }
    if (s.have_sequence && first > s.last_timestamp_us) {
        guint64 steps = sequence > s.last_sequence ? sequence - s.last_sequence : 1;
        s.frame_interval = (first - s.last_timestamp_us) * GST_USECOND / steps;
    }
    s.have_sequence = true;
    s.last_sequence = sequence;
    s.last_timestamp_us = first;
    GstClockTime pts = capture_running_time(GST_ELEMENT(self), first);

    GstFlowReturn flow = GST_FLOW_OK;
    guint64 copies = 0;
    std::vector<GstBuffer *> buffers;
    for (size_t i = 0; i < count; ++i) {
        Member &member = *s.members[i];
        bool copy = s.stream->held(member.handle) >= s.buffers - kQueuedReserve;
        Stream::Frame *frame = s.stream->hold(member.handle, frames[i]);
        GstBuffer *buffer = member.eos ? nullptr : view_buffer(s.stream, frame, member.output, copy);
        s.stream->done(frame);
        if (buffer) {
            copies += copy ? 1 : 0;
            GST_BUFFER_PTS(buffer) = pts;
            if (discont)
                GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_DISCONT);
        } else if (!member.eos) {
            GST_ELEMENT_ERROR(self, RESOURCE, READ,
                              ("camera %d: the plane cannot hold a %ux%u image", member.camera,
                               member.output.format.width, member.output.format.height),
                              (nullptr));
            flow = GST_FLOW_ERROR;
        }
        buffers.push_back(buffer);
    }
    if (flow != GST_FLOW_OK) {
        for (GstBuffer *buffer : buffers)
            if (buffer)
                gst_buffer_unref(buffer);
        return stop_streaming(self, flow);
    }
    GST_OBJECT_LOCK(self);
    ++s.counters.sets;
    s.counters.dropped += missing;
    s.counters.copied += copies;
    s.counters.skew_us = last - first;
    s.counters.max_skew_us = std::max<guint64>(s.counters.max_skew_us, last - first);
    GST_OBJECT_UNLOCK(self);
    ++s.sets_pushed;
    GST_LOG_OBJECT(self, "set %u, skew %" G_GUINT64_FORMAT " us, pts %" GST_TIME_FORMAT, sequence, last - first,
                   GST_TIME_ARGS(pts));

    size_t finished = 0;
    for (size_t i = 0; i < count; ++i) {
        Member &member = *s.members[i];
        if (!buffers[i]) {
            ++finished;
            continue;
        }
        GstFlowReturn pushed = gst_pad_push(member.pad, buffers[i]);
        if (pushed == GST_FLOW_EOS) {
            member.eos = true;
            ++finished;
        } else if (pushed != GST_FLOW_OK && pushed != GST_FLOW_NOT_LINKED) {
            flow = pushed;
        }
    }
    if (flow == GST_FLOW_OK && finished == count)
        flow = GST_FLOW_EOS;
    if (flow != GST_FLOW_OK)
        stop_streaming(self, flow);
}

// ---- Set-up and teardown ----

bool set_up(GstZelispGroupSrc *self)
{
    GroupState &s = *self->state;
    if (s.members.empty()) {
        GST_ELEMENT_ERROR(self, RESOURCE, SETTINGS, ("the group has no cameras"), (nullptr));
        return false;
    }
    int list[kMostMembers];
    for (size_t i = 0; i < s.members.size(); ++i)
        list[i] = s.members[i]->camera;
    unsigned long group = 0;
    int result = isp_create_video_group(&group, 0, GST_OBJECT_NAME(self), list, int(s.members.size()));
    if (result != ISP_OK) {
        post_library_error(GST_ELEMENT(self), "isp_create_video_group", result);
        return false;
    }
    auto fail = [&](const char *call, int code) {
        if (call)
            post_library_error(GST_ELEMENT(self), call, code);
        isp_destroy_video_group(group);
        return false;
    };
    int open_results[kMostMembers];
    if ((result = isp_group_open_video(group, 1, open_results)) != ISP_OK)
        return fail("isp_group_open_video", result);
    if (s.trigger.mode == TriggerSetting::Internal)
        isp_group_set_internal_trigger(group, s.trigger.param[0], s.trigger.param[1], s.trigger.param[2]);
    else if (s.trigger.mode == TriggerSetting::External)
        isp_group_set_external_trigger(group, s.trigger.param[0], s.trigger.param[1], s.trigger.param[2]);
    if ((result = isp_group_init_video(group, combination_of(s.views), uint32_t(s.buffers))) != ISP_OK)
        return fail("isp_group_init_video", result);

    GstPoll *poll = gst_poll_new(TRUE);
    for (auto &member : s.members) {
        member->eos = false;
        if ((result = isp_group_get_camera_handle(group, member->camera, &member->handle)) != ISP_OK) {
            gst_poll_free(poll);
            return fail("isp_group_get_camera_handle", result);
        }
        member->output.view = s.views.front();
        if ((result = isp_get_view_format(member->handle, uint32_t(member->output.view), &member->output.format)) !=
            ISP_OK) {
            gst_poll_free(poll);
            return fail("isp_get_view_format", result);
        }
        if (!view_layout(member->output.format, &member->output.info)) {
            GST_ELEMENT_ERROR(self, STREAM, FORMAT,
                              ("camera %d: view %d comes as %s, a format the plugin cannot describe", member->camera,
                               member->output.view, fourcc_name(member->output.format.format).c_str()),
                              (nullptr));
            gst_poll_free(poll);
            return fail(nullptr, 0);
        }
        int64_t fd = -1;
        isp_camera_get_native_fd(member->handle, &fd);
        gst_poll_fd_init(&member->poll_fd);
        member->poll_fd.fd = int(fd);
        gst_poll_add_fd(poll, &member->poll_fd);
    }
    GST_OBJECT_LOCK(self);
    s.group = group;
    s.poll = poll;
    s.stream = Stream::create([group] {
        isp_group_close_video(group);
        isp_destroy_video_group(group);
    });
    s.counters = GroupCounters();
    GST_OBJECT_UNLOCK(self);
    s.capturing = false;
    s.started_pads = false;
    s.have_sequence = false;
    s.sets_pushed = 0;
    s.eos_pending = false;
    return true;
}

bool start_capture(GstZelispGroupSrc *self)
{
    GroupState &s = *self->state;
    if (s.capturing)
        return true;
    int result;
    {
        std::lock_guard<std::mutex> guard(s.stream->library_lock());
        result = isp_group_start_captrue(s.group);
    }
    if (result != ISP_OK) {
        post_library_error(GST_ELEMENT(self), "isp_group_start_captrue", result);
        return false;
    }
    s.capturing = true;
    return true;
}

void tear_down(GstZelispGroupSrc *self)
{
    GroupState &s = *self->state;
    GST_OBJECT_LOCK(self);
    Stream *stream = s.stream;
    s.stream = nullptr;
    GST_OBJECT_UNLOCK(self);
    if (!stream)
        return;
    stream->stop();
    if (s.capturing) {
        std::lock_guard<std::mutex> guard(stream->library_lock());
        isp_group_stop_captrue(s.group);
    }
    s.capturing = false;
    stream->unref();
    for (auto &member : s.members)
        member->output.copies.reset();
    gst_poll_free(s.poll);
    s.poll = nullptr;
    s.group = 0;
}

GstStateChangeReturn change_state(GstElement *element, GstStateChange transition)
{
    GstZelispGroupSrc *self = GST_ZELISP_GROUP_SRC(element);
    GroupState &s = *self->state;
    switch (transition) {
    case GST_STATE_CHANGE_READY_TO_PAUSED:
        if (!set_up(self))
            return GST_STATE_CHANGE_FAILURE;
        break;
    case GST_STATE_CHANGE_PLAYING_TO_PAUSED:
    case GST_STATE_CHANGE_PAUSED_TO_READY:
        if (s.poll)
            gst_poll_set_flushing(s.poll, TRUE);
        break;
    default:
        break;
    }
    GstStateChangeReturn result = GST_ELEMENT_CLASS(gst_zelisp_group_src_parent_class)->change_state(element, transition);
    if (result == GST_STATE_CHANGE_FAILURE) {
        if (transition == GST_STATE_CHANGE_READY_TO_PAUSED)
            tear_down(self);
        return result;
    }
    switch (transition) {
    case GST_STATE_CHANGE_READY_TO_PAUSED:
        result = GST_STATE_CHANGE_NO_PREROLL; // live: nothing before PLAYING
        break;
    case GST_STATE_CHANGE_PAUSED_TO_PLAYING:
        if (!start_capture(self))
            return GST_STATE_CHANGE_FAILURE;
        gst_poll_set_flushing(s.poll, FALSE);
        gst_pad_start_task(s.members[0]->pad, loop, self, nullptr);
        break;
    case GST_STATE_CHANGE_PLAYING_TO_PAUSED:
        gst_pad_pause_task(s.members[0]->pad);
        result = GST_STATE_CHANGE_NO_PREROLL;
        break;
    case GST_STATE_CHANGE_PAUSED_TO_READY:
        // The parent deactivated the pads, which stopped the task.
        gst_pad_stop_task(s.members[0]->pad);
        tear_down(self);
        break;
    default:
        break;
    }
    return result;
}

// An EOS sent to the element (gst-launch-1.0 -e) ends the stream after the
// frame set in flight.
gboolean send_event(GstElement *element, GstEvent *event)
{
    GstZelispGroupSrc *self = GST_ZELISP_GROUP_SRC(element);
    if (GST_EVENT_TYPE(event) != GST_EVENT_EOS)
        return GST_ELEMENT_CLASS(gst_zelisp_group_src_parent_class)->send_event(element, event);
    gst_event_unref(event);
    self->state->eos_pending = true;
    GST_OBJECT_LOCK(self);
    if (self->state->poll)
        gst_poll_set_flushing(self->state->poll, TRUE);
    GST_OBJECT_UNLOCK(self);
    return TRUE;
}

void finalize(GObject *object)
{
    GstZelispGroupSrc *self = GST_ZELISP_GROUP_SRC(object);
    delete self->state;
    G_OBJECT_CLASS(gst_zelisp_group_src_parent_class)->finalize(object);
}

} // namespace

static void gst_zelisp_group_src_class_init(GstZelispGroupSrcClass *klass)
{
    GObjectClass *object_class = G_OBJECT_CLASS(klass);
    GstElementClass *element_class = GST_ELEMENT_CLASS(klass);
    object_class->set_property = set_property;
    object_class->get_property = get_property;
    object_class->finalize = finalize;
    element_class->change_state = change_state;
    element_class->send_event = send_event;

    const GParamFlags flags = GParamFlags(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_READY);
    g_object_class_install_property(
        object_class, PROP_CAMERAS,
        g_param_spec_string("cameras", "Cameras",
                            "The member cameras, up to 8 numbers 0..11 separated by commas; each gets a pad src_<camera>",
                            "0", flags));
    g_object_class_install_property(object_class, PROP_BUFFERS,
                                    g_param_spec_int("buffers", "Buffers", "Capture buffers of each member", 3, 8,
                                                     kDefaultBuffers, flags));
    g_object_class_install_property(
        object_class, PROP_VIEWS,
        g_param_spec_string("views", "Views",
                            "The ISP views to enable on every member, 0..2 separated by commas; the pads carry the "
                            "lowest",
                            "0", flags));
    g_object_class_install_property(
        object_class, PROP_TRIGGER,
        g_param_spec_string("trigger", "Trigger mode",
                            "none, or internal|external with up to three parameters (\"external 1 2 0\"): the MIPI "
                            "trigger mode that holds the sensors together",
                            "none", flags));
    g_object_class_install_property(
        object_class, PROP_TIMEOUT_MS,
        g_param_spec_int("timeout-ms", "Timeout",
                         "How long to wait for a frame set before posting an error, in milliseconds (-1: forever)",
                         -1, G_MAXINT, kDefaultTimeoutMs,
                         GParamFlags(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_PLAYING)));
    g_object_class_install_property(object_class, PROP_NUM_BUFFERS,
                                    g_param_spec_int("num-buffers", "num-buffers",
                                                     "Number of frame sets to push before EOS (-1: unlimited)", -1,
                                                     G_MAXINT, -1, flags));
    g_object_class_install_property(
        object_class, PROP_STATS,
        g_param_spec_boxed("stats", "Statistics",
                           "frame sets pushed, dropped (sequence gaps), copied buffers, and the spread of the "
                           "members' capture times in the last set and at most (skew-us, max-skew-us)",
                           GST_TYPE_STRUCTURE, GParamFlags(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS)));

    gst_element_class_set_static_metadata(element_class, "ISP camera group source", "Source/Video/Hardware",
                                          "Captures synchronised frame sets of up to 8 ISP cameras through libzelisp, "
                                          "zero copy, one pad per camera",
                                          "libzelisp developers");
    GstCaps *caps = template_caps();
    gst_element_class_add_pad_template(element_class,
                                       gst_pad_template_new("src_%u", GST_PAD_SRC, GST_PAD_SOMETIMES, caps));
    gst_caps_unref(caps);
    GST_DEBUG_CATEGORY_INIT(zelispgroupsrc_debug, "zelispgroupsrc", 0, "ISP camera group source");
}

static void gst_zelisp_group_src_init(GstZelispGroupSrc *self)
{
    self->state = new GroupState();
    GST_OBJECT_FLAG_SET(self, GST_ELEMENT_FLAG_SOURCE);
    make_member_pads(self, self->state->cameras);
}
