/*
 * zelispsrc.cpp - one camera as a live GStreamer source, zero copy.
 *
 * The camera is opened and set up (resize, decimation, views, buffers,
 * requested controls) when the element goes to PAUSED, and starts capturing
 * with the first frame the pipeline asks for. Every frame becomes one
 * GstBuffer per view, all with the frame's capture time as PTS and its
 * sequence number as offset, wrapping the library's buffer; the buffer goes
 * back to the driver when GStreamer frees the last of them.
 *
 * A camera has only a few buffers. When downstream holds so many that fewer
 * than two would stay queued in the driver, the frame is copied into a
 * pooled buffer and given back at once: the sensor keeps its rate and the
 * copies are counted in "stats".
 */
#include "zelispsrc.h"

#include <gst/video/video.h>

#include <atomic>

#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "camera_controls.h"
#include "element_support.h"
#include "formats.h"
#include "frame_memory.h"
#include "property_syntax.h"
#include "zelisp.h"

GST_DEBUG_CATEGORY_STATIC(zelispsrc_debug);
#define GST_CAT_DEFAULT zelispsrc_debug

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
    PROP_CAMERA,
    PROP_MODE,
    PROP_BUFFERS,
    PROP_VIEW,
    PROP_TIMEOUT_MS,
    PROP_NUM_BUFFERS,
    PROP_DROP,
    PROP_RESIZE,
    PROP_STATS,
    PROP_FIRST_CONTROL,
};

// One pad and the view it carries: the always pad src first, then the
// request pads.
struct PadOutput {
    GstPad *pad;
    ViewOutput output;
    bool eos = false;
};

struct Counters {
    guint64 frames = 0;
    guint64 dropped = 0;
    guint64 refused = 0;
    guint64 copied = 0;
};

// The element's C++ state, behind one pointer of the GObject.
struct SrcState {
    // Properties (GST_OBJECT_LOCK).
    int camera = 0;
    int mode = 1;
    int buffers = kDefaultBuffers;
    int view = 0;
    int timeout_ms = kDefaultTimeoutMs;
    int num_buffers = -1;
    DropRatio drop;
    zelvideo::_resize_param_t resize{};
    ControlValues controls;

    // The stream, from start() to stop().
    Stream *stream = nullptr;
    unsigned long handle = 0;
    GstPoll *poll = nullptr;
    GstPollFD poll_fd = GST_POLL_FD_INIT;
    bool capturing = false;
    bool started_pads = false;
    std::atomic<bool> eos_pending{false};
    guint64 frames_pushed = 0;
    std::vector<std::unique_ptr<PadOutput>> outputs; // GST_OBJECT_LOCK for the list; [0] is src
    DecimationRule decimation;
    bool have_sequence = false;
    uint32_t last_sequence = 0;
    uint64_t last_timestamp_us = 0;
    GstClockTime frame_interval = 33 * GST_MSECOND;
    Counters counters; // GST_OBJECT_LOCK
};

} // namespace

struct _GstZelispSrc {
    GstElement parent;
    SrcState *state;
};

G_DEFINE_TYPE(GstZelispSrc, gst_zelisp_src, GST_TYPE_ELEMENT)

namespace {

bool stream_set_up(GstZelispSrc *self) { return self->state->stream != nullptr; }

// ---- Properties ----

void set_property(GObject *object, guint id, const GValue *value, GParamSpec *pspec)
{
    GstZelispSrc *self = GST_ZELISP_SRC(object);
    SrcState &s = *self->state;
    int control = control_of_property(id, PROP_FIRST_CONTROL);
    if (control >= 0) {
        uint32_t number = control_from_value(control, value);
        GST_OBJECT_LOCK(self);
        Stream *stream = s.stream;
        if (stream)
            stream->ref();
        unsigned long handle = s.handle;
        GST_OBJECT_UNLOCK(self);
        if (stream) {
            const char *call = "";
            int result;
            {
                std::lock_guard<std::mutex> guard(stream->library_lock());
                result = send_control(handle, control, number, &call);
            }
            stream->unref();
            if (result != ISP_OK) {
                refuse_property(object, pspec->name, library_error_text(call, result));
                return;
            }
        }
        GST_OBJECT_LOCK(self);
        s.controls.value[control] = number;
        s.controls.requested[control] = true;
        GST_OBJECT_UNLOCK(self);
        return;
    }
    if (id != PROP_TIMEOUT_MS && id != PROP_NUM_BUFFERS && stream_set_up(self)) {
        refuse_property(object, pspec->name, "the camera is set up; change it in the READY or NULL state");
        return;
    }
    std::string error;
    GST_OBJECT_LOCK(self);
    switch (id) {
    case PROP_CAMERA:
        s.camera = g_value_get_int(value);
        break;
    case PROP_MODE:
        s.mode = g_value_get_int(value);
        break;
    case PROP_BUFFERS:
        s.buffers = g_value_get_int(value);
        break;
    case PROP_VIEW:
        s.view = g_value_get_int(value);
        break;
    case PROP_TIMEOUT_MS:
        s.timeout_ms = g_value_get_int(value);
        break;
    case PROP_NUM_BUFFERS:
        s.num_buffers = g_value_get_int(value);
        break;
    case PROP_DROP: {
        DropRatio ratio;
        const char *text = g_value_get_string(value);
        if (parse_drop(text ? text : "", &ratio, &error))
            s.drop = ratio;
        break;
    }
    case PROP_RESIZE: {
        zelvideo::_resize_param_t resize;
        const char *text = g_value_get_string(value);
        if (parse_resize(text ? text : "", &resize, &error))
            s.resize = resize;
        break;
    }
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        break;
    }
    GST_OBJECT_UNLOCK(self);
    if (!error.empty())
        refuse_property(object, pspec->name, error);
}

GstStructure *stats_structure(const Counters &counters)
{
    return gst_structure_new("zelisp-stats", "frames", G_TYPE_UINT64, counters.frames, "dropped", G_TYPE_UINT64,
                             counters.dropped, "refused", G_TYPE_UINT64, counters.refused, "copied", G_TYPE_UINT64,
                             counters.copied, nullptr);
}

void get_property(GObject *object, guint id, GValue *value, GParamSpec *pspec)
{
    GstZelispSrc *self = GST_ZELISP_SRC(object);
    SrcState &s = *self->state;
    int control = control_of_property(id, PROP_FIRST_CONTROL);
    if (control >= 0) {
        GST_OBJECT_LOCK(self);
        Stream *stream = s.stream;
        if (stream)
            stream->ref();
        unsigned long handle = s.handle;
        uint32_t number = s.controls.value[control];
        GST_OBJECT_UNLOCK(self);
        if (stream) {
            // What the driver holds, not what was asked for.
            const char *call = "";
            std::lock_guard<std::mutex> guard(stream->library_lock());
            int result = read_control(handle, control, &number, &call);
            if (result != ISP_OK)
                GST_WARNING_OBJECT(self, "%s", library_error_text(call, result).c_str());
        }
        if (stream)
            stream->unref();
        control_to_value(control, number, value);
        return;
    }
    GST_OBJECT_LOCK(self);
    switch (id) {
    case PROP_CAMERA:
        g_value_set_int(value, s.camera);
        break;
    case PROP_MODE:
        g_value_set_int(value, s.mode);
        break;
    case PROP_BUFFERS:
        g_value_set_int(value, s.buffers);
        break;
    case PROP_VIEW:
        g_value_set_int(value, s.view);
        break;
    case PROP_TIMEOUT_MS:
        g_value_set_int(value, s.timeout_ms);
        break;
    case PROP_NUM_BUFFERS:
        g_value_set_int(value, s.num_buffers);
        break;
    case PROP_DROP:
        g_value_set_string(value, format_drop(s.drop).c_str());
        break;
    case PROP_RESIZE:
        g_value_set_string(value, format_resize(s.resize).c_str());
        break;
    case PROP_STATS:
        g_value_take_boxed(value, stats_structure(s.counters));
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        break;
    }
    GST_OBJECT_UNLOCK(self);
}

// ---- Pads ----

gboolean pad_query(GstPad *pad, GstObject *parent, GstQuery *query)
{
    GstZelispSrc *self = GST_ZELISP_SRC(parent);
    SrcState &s = *self->state;
    switch (GST_QUERY_TYPE(query)) {
    case GST_QUERY_CAPS: {
        GstCaps *caps = nullptr;
        GST_OBJECT_LOCK(self);
        for (auto &output : s.outputs)
            if (output->pad == pad && stream_set_up(self))
                caps = view_caps(output->output.format);
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
        if (!stream_set_up(self))
            return FALSE;
        // A frame is complete one frame period after its capture time, and
        // the driver can hold the frames of all but two buffers.
        GstClockTime interval = s.frame_interval;
        gst_query_set_latency(query, TRUE, interval, interval * guint64(s.buffers - kQueuedReserve + 1));
        return TRUE;
    }
    default:
        return gst_pad_query_default(pad, parent, query);
    }
}

GstPad *make_pad(GstZelispSrc *self, GstPadTemplate *templ, const std::string &name, int view)
{
    GstPad *pad = gst_pad_new_from_template(templ, name.c_str());
    gst_pad_set_query_function(pad, pad_query);
    gst_pad_use_fixed_caps(pad);
    auto output = std::make_unique<PadOutput>();
    output->pad = pad;
    output->output.view = view;
    GST_OBJECT_LOCK(self);
    self->state->outputs.push_back(std::move(output));
    GST_OBJECT_UNLOCK(self);
    return pad;
}

GstPad *request_new_pad(GstElement *element, GstPadTemplate *templ, const gchar *name, const GstCaps *)
{
    GstZelispSrc *self = GST_ZELISP_SRC(element);
    SrcState &s = *self->state;
    int view = -1;
    GST_OBJECT_LOCK(self);
    auto taken = [&](int v) {
        if (v == s.view)
            return true;
        for (size_t i = 1; i < s.outputs.size(); ++i)
            if (s.outputs[i]->output.view == v)
                return true;
        return false;
    };
    std::string reason;
    if (name) {
        unsigned parsed = 0;
        if (sscanf(name, "src_%u", &parsed) != 1 || parsed > 2)
            reason = std::string("pad ") + name + " names no view (src_0, src_1 or src_2)";
        else if (taken(int(parsed)))
            reason = "view " + std::to_string(parsed) + " already has a pad";
        view = int(parsed);
    } else {
        for (int v = 0; v < 3 && view < 0; ++v)
            if (!taken(v))
                view = v;
        if (view < 0)
            reason = "every view already has a pad";
    }
    if (reason.empty() && s.stream)
        reason = "the stream's views are chosen when it is set up; request pads in the NULL or READY state";
    if (reason.empty() && s.mode == 2)
        reason = "open mode 2 carries view 0 only";
    GST_OBJECT_UNLOCK(self);
    if (!reason.empty()) {
        g_warning("%s: no request pad: %s", GST_OBJECT_NAME(self), reason.c_str());
        return nullptr;
    }
    std::string pad_name = "src_" + std::to_string(view);
    GstPad *pad = make_pad(self, templ, pad_name, view);
    gst_pad_set_active(pad, GST_STATE(element) > GST_STATE_READY);
    gst_element_add_pad(element, pad);
    GST_DEBUG_OBJECT(self, "request pad %s carries view %d", pad_name.c_str(), view);
    return pad;
}

void release_pad(GstElement *element, GstPad *pad)
{
    GstZelispSrc *self = GST_ZELISP_SRC(element);
    GST_OBJECT_LOCK(self);
    auto &outputs = self->state->outputs;
    for (auto it = outputs.begin() + 1; it != outputs.end(); ++it)
        if ((*it)->pad == pad) {
            outputs.erase(it);
            break;
        }
    GST_OBJECT_UNLOCK(self);
    gst_pad_set_active(pad, FALSE);
    gst_element_remove_pad(element, pad);
}

// Stream start, caps (the view's format in the memory the peer takes) and
// segment on every pad.
bool start_pads(GstZelispSrc *self)
{
    guint group_id = gst_util_group_id_next();
    for (auto &output : self->state->outputs) {
        output->eos = false;
        gchar *id = gst_pad_create_stream_id_printf(output->pad, GST_ELEMENT(self), "view%d", output->output.view);
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
            GST_ELEMENT_ERROR(self, CORE, NEGOTIATION,
                              ("%s: downstream takes no caps of view %d", GST_PAD_NAME(output->pad),
                               output->output.view),
                              (nullptr));
            return false;
        }
        GstCaps *chosen = gst_caps_fixate(peer);
        output->output.dmabuf = caps_want_dmabuf(chosen);
        GST_DEBUG_OBJECT(self, "%s: view %d in %s memory: %" GST_PTR_FORMAT, GST_PAD_NAME(output->pad),
                         output->output.view, output->output.dmabuf ? "DMA-buf" : "system", chosen);
        gst_pad_push_event(output->pad, gst_event_new_caps(chosen));
        gst_caps_unref(chosen);
        GstSegment segment;
        gst_segment_init(&segment, GST_FORMAT_TIME);
        gst_pad_push_event(output->pad, gst_event_new_segment(&segment));
    }
    return true;
}

// ---- Stream set-up and teardown ----

void close_camera(unsigned long handle) { isp_close_video(handle); }

bool set_up_view(GstZelispSrc *self, unsigned long handle, ViewOutput &output)
{
    int result = isp_get_view_format(handle, uint32_t(output.view), &output.format);
    if (result != ISP_OK) {
        post_library_error(GST_ELEMENT(self), "isp_get_view_format", result);
        return false;
    }
    if (!view_layout(output.format, &output.info)) {
        GST_ELEMENT_ERROR(self, STREAM, FORMAT,
                          ("view %d comes as %s %ux%u, a format the plugin cannot describe", output.view,
                           fourcc_name(output.format.format).c_str(), output.format.width, output.format.height),
                          (nullptr));
        return false;
    }
    GST_INFO_OBJECT(self, "view %d: %s %ux%u, %" G_GSIZE_FORMAT " bytes", output.view,
                    fourcc_name(output.format.format).c_str(), output.format.width, output.format.height,
                    GST_VIDEO_INFO_SIZE(&output.info));
    return true;
}

bool set_up(GstZelispSrc *self)
{
    SrcState &s = *self->state;
    GST_OBJECT_LOCK(self);
    int camera = s.camera, mode = s.mode, buffers = s.buffers, view = s.view;
    DropRatio drop = s.drop;
    zelvideo::_resize_param_t resize = s.resize;
    ControlValues controls = s.controls;
    s.outputs[0]->output.view = view;
    uint32_t combination = 0;
    for (auto &output : s.outputs)
        combination |= 1u << output->output.view;
    GST_OBJECT_UNLOCK(self);

    if (mode == 2 && view != 0) {
        GST_ELEMENT_ERROR(self, RESOURCE, SETTINGS, ("open mode 2 carries view 0 only, not view %d", view),
                          (nullptr));
        return false;
    }
    unsigned long handle = isp_open_video(uint32_t(camera), mode);
    if (handle == 0) {
        GST_ELEMENT_ERROR(self, RESOURCE, OPEN_READ_WRITE,
                          ("isp_open_video: camera %d could not be opened in mode %d (see the library's line above)",
                           camera, mode),
                          (nullptr));
        return false;
    }
    auto fail = [&](const char *call, int result) {
        if (call)
            post_library_error(GST_ELEMENT(self), call, result);
        isp_close_video(handle);
        return false;
    };
    int result;
    zelvideo::_resize_param_t none{};
    if (std::memcmp(&resize, &none, sizeof none) != 0 &&
        (result = isp_resize_resolution(handle, &resize)) != ISP_OK)
        return fail("isp_resize_resolution", result);
    if (drop.drop != 0 && (result = isp_set_frame_drop_num(handle, drop.total, drop.drop)) != ISP_OK)
        return fail("isp_set_frame_drop_num", result);
    if ((result = isp_init_video(handle, combination, buffers)) != ISP_OK)
        return fail("isp_init_video", result);
    for (int control = 0; control < kControlCount; ++control) {
        if (!controls.requested[control])
            continue;
        const char *call = "";
        result = send_control(handle, control, controls.value[control], &call);
        if (result != ISP_OK) {
            std::string text = library_error_text(call, result);
            GST_ELEMENT_WARNING(self, RESOURCE, SETTINGS, ("%s", text.c_str()), (nullptr));
        }
    }
    for (auto &output : s.outputs)
        if (!set_up_view(self, handle, output->output))
            return fail(nullptr, 0);
    int64_t fd = -1;
    if ((result = isp_camera_get_native_fd(handle, &fd)) != ISP_OK)
        return fail("isp_camera_get_native_fd", result);

    s.poll = gst_poll_new(TRUE);
    gst_poll_fd_init(&s.poll_fd);
    s.poll_fd.fd = int(fd);
    gst_poll_add_fd(s.poll, &s.poll_fd);
    gst_poll_fd_ctl_read(s.poll, &s.poll_fd, TRUE);
    s.decimation = DecimationRule(drop);
    s.have_sequence = false;
    s.capturing = false;
    s.started_pads = false;
    s.eos_pending = false;
    s.frames_pushed = 0;
    Stream *stream = Stream::create([handle] { close_camera(handle); });
    GST_OBJECT_LOCK(self);
    s.handle = handle;
    s.stream = stream;
    s.counters = Counters();
    GST_OBJECT_UNLOCK(self);
    return true;
}

void tear_down(GstZelispSrc *self)
{
    SrcState &s = *self->state;
    GST_OBJECT_LOCK(self);
    Stream *stream = s.stream;
    unsigned long handle = s.handle;
    s.stream = nullptr;
    s.handle = 0;
    GST_OBJECT_UNLOCK(self);
    if (!stream)
        return;
    stream->stop();
    if (s.capturing) {
        std::lock_guard<std::mutex> guard(stream->library_lock());
        isp_stop_capture(handle);
    }
    s.capturing = false;
    // Closes the camera now, or when downstream frees the last frame.
    stream->unref();
    gst_poll_free(s.poll);
    s.poll = nullptr;
    for (auto &output : s.outputs)
        output->output.copies.reset();
}

// ---- Frames ----

// Takes the next frame the library accepts; the flow return on failure.
GstFlowReturn take_frame(GstZelispSrc *self, zelvideo::_isp_buf_t *frame)
{
    SrcState &s = *self->state;
    GST_OBJECT_LOCK(self);
    int timeout_ms = s.timeout_ms;
    GST_OBJECT_UNLOCK(self);
    gint64 deadline = g_get_monotonic_time() + gint64(timeout_ms) * 1000;
    int refused_in_a_row = 0;
    for (;;) {
        {
            std::lock_guard<std::mutex> guard(s.stream->library_lock());
            s.stream->put_back_released();
        }
        gint64 left = deadline - g_get_monotonic_time();
        WaitResult wait = wait_readable(s.poll, timeout_ms < 0 ? GST_CLOCK_TIME_NONE
                                                               : GstClockTime(MAX(left, 0)) * GST_USECOND);
        if (wait == WaitResult::Flushing)
            return GST_FLOW_FLUSHING;
        if (wait == WaitResult::TimedOut) {
            post_library_error(GST_ELEMENT(self), s.drop.drop ? "isp_get_expected_frame" : "isp_get_frame_buf",
                               ISP_ERR_TIMEOUT);
            return GST_FLOW_ERROR;
        }
        if (wait == WaitResult::Failed) {
            post_library_error(GST_ELEMENT(self), "isp_get_frame_buf", ISP_ERR_SELECT);
            return GST_FLOW_ERROR;
        }
        int result;
        {
            std::lock_guard<std::mutex> guard(s.stream->library_lock());
            // The node is readable: no wait inside the library, so a state
            // change never waits for the sensor.
            result = s.drop.drop ? isp_get_expected_frame(s.handle, frame, 0) : isp_get_frame_buf(s.handle, frame, 0);
        }
        if (result == ISP_OK)
            return GST_FLOW_OK;
        if (result == ISP_ERR_NOT_READY)
            continue; // decimation skipped the frames that were ready
        if (result == ISP_ERR_REQUEST && ++refused_in_a_row < kMostRefusedInARow) {
            GST_OBJECT_LOCK(self);
            ++s.counters.refused;
            GST_OBJECT_UNLOCK(self);
            continue;
        }
        post_library_error(GST_ELEMENT(self), s.drop.drop ? "isp_get_expected_frame" : "isp_get_frame_buf", result);
        return GST_FLOW_ERROR;
    }
}


void pause_streaming(GstZelispSrc *self, GstFlowReturn flow)
{
    SrcState &s = *self->state;
    GST_DEBUG_OBJECT(self, "pausing: %s", gst_flow_get_name(flow));
    if (flow == GST_FLOW_EOS || flow <= GST_FLOW_NOT_NEGOTIATED) {
        if (flow != GST_FLOW_EOS && flow != GST_FLOW_ERROR)
            GST_ELEMENT_FLOW_ERROR(self, flow);
        for (auto &output : s.outputs)
            gst_pad_push_event(output->pad, gst_event_new_eos());
    }
    gst_pad_pause_task(s.outputs[0]->pad);
}

void loop(gpointer data)
{
    GstZelispSrc *self = GST_ZELISP_SRC(data);
    SrcState &s = *self->state;
    if (!s.capturing) {
        int result;
        {
            std::lock_guard<std::mutex> guard(s.stream->library_lock());
            result = isp_start_capture(s.handle);
        }
        if (result != ISP_OK) {
            post_library_error(GST_ELEMENT(self), "isp_start_capture", result);
            return pause_streaming(self, GST_FLOW_ERROR);
        }
        s.capturing = true;
    }
    if (!s.started_pads) {
        if (!start_pads(self))
            return pause_streaming(self, GST_FLOW_NOT_NEGOTIATED);
        s.started_pads = true;
    }
    GST_OBJECT_LOCK(self);
    int num_buffers = s.num_buffers;
    GST_OBJECT_UNLOCK(self);
    if (s.eos_pending || (num_buffers >= 0 && s.frames_pushed >= guint64(num_buffers)))
        return pause_streaming(self, GST_FLOW_EOS);

    zelvideo::_isp_buf_t buf;
    GstFlowReturn flow = take_frame(self, &buf);
    if (flow == GST_FLOW_FLUSHING && s.eos_pending)
        flow = GST_FLOW_EOS;
    if (flow != GST_FLOW_OK)
        return pause_streaming(self, flow);

    const zelvideo::_isp_view_buf_t &plane = buf.views[s.outputs[0]->output.view];
    bool discont = !s.have_sequence;
    guint64 missing = 0;
    if (s.have_sequence && plane.sequence > s.last_sequence + 1) {
        missing = guint64(plane.sequence - s.last_sequence - 1) -
                  s.decimation.skipped_between(s.last_sequence + 1, plane.sequence - 1);
        discont = missing > 0;
    }
    if (s.have_sequence && plane.timestamp > s.last_timestamp_us) {
        guint64 steps = plane.sequence > s.last_sequence ? plane.sequence - s.last_sequence : 1;
        s.frame_interval = (plane.timestamp - s.last_timestamp_us) * GST_USECOND / steps;
    }
    s.have_sequence = true;
    s.last_sequence = plane.sequence;
    s.last_timestamp_us = plane.timestamp;

    // Wrap unless that would leave the driver fewer than two buffers.
    bool copy = s.stream->held(s.handle) >= s.buffers - kQueuedReserve;
    GstClockTime pts = capture_running_time(GST_ELEMENT(self), plane.timestamp);
    Stream::Frame *frame = s.stream->hold(s.handle, buf);
    std::vector<GstBuffer *> buffers;
    for (auto &output : s.outputs) {
        GstBuffer *buffer = output->eos ? nullptr : view_buffer(s.stream, frame, output->output, copy);
        if (buffer) {
            GST_BUFFER_PTS(buffer) = pts;
            if (discont)
                GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_DISCONT);
        } else if (!output->eos) {
            GST_ELEMENT_ERROR(self, RESOURCE, READ,
                              ("view %d: the plane cannot hold a %ux%u image", output->output.view,
                               output->output.format.width, output->output.format.height),
                              (nullptr));
            flow = GST_FLOW_ERROR;
        }
        buffers.push_back(buffer);
    }
    s.stream->done(frame);
    if (flow != GST_FLOW_OK) {
        for (GstBuffer *buffer : buffers)
            if (buffer)
                gst_buffer_unref(buffer);
        return pause_streaming(self, flow);
    }
    GST_OBJECT_LOCK(self);
    ++s.counters.frames;
    s.counters.dropped += missing;
    if (copy)
        ++s.counters.copied;
    GST_OBJECT_UNLOCK(self);
    ++s.frames_pushed;
    GST_LOG_OBJECT(self, "frame %u%s%s, pts %" GST_TIME_FORMAT, plane.sequence, copy ? " (copied)" : "",
                   missing ? " after a gap" : "", GST_TIME_ARGS(pts));

    // The request pads first: the always pad's peer is often the slowest.
    size_t finished = 0, unlinked = 0;
    for (size_t i = s.outputs.size(); i-- > 0;) {
        PadOutput &output = *s.outputs[i];
        if (!buffers[i]) {
            ++finished;
            continue;
        }
        GstFlowReturn pushed = gst_pad_push(output.pad, buffers[i]);
        if (pushed == GST_FLOW_EOS) {
            output.eos = true;
            ++finished;
        } else if (pushed == GST_FLOW_NOT_LINKED) {
            ++unlinked; // an unlinked view does not stop the others
        } else if (pushed != GST_FLOW_OK) {
            flow = pushed;
        }
    }
    if (flow == GST_FLOW_OK && finished == s.outputs.size())
        flow = GST_FLOW_EOS;
    else if (flow == GST_FLOW_OK && unlinked + finished == s.outputs.size())
        flow = GST_FLOW_NOT_LINKED;
    if (flow != GST_FLOW_OK)
        pause_streaming(self, flow);
}

// ---- State changes and events ----

GstStateChangeReturn change_state(GstElement *element, GstStateChange transition)
{
    GstZelispSrc *self = GST_ZELISP_SRC(element);
    SrcState &s = *self->state;
    switch (transition) {
    case GST_STATE_CHANGE_READY_TO_PAUSED:
        if (!set_up(self))
            return GST_STATE_CHANGE_FAILURE;
        break;
    case GST_STATE_CHANGE_PLAYING_TO_PAUSED:
    case GST_STATE_CHANGE_PAUSED_TO_READY:
        // Wakes the streaming thread out of its wait for the sensor.
        if (s.poll)
            gst_poll_set_flushing(s.poll, TRUE);
        break;
    default:
        break;
    }
    GstStateChangeReturn result = GST_ELEMENT_CLASS(gst_zelisp_src_parent_class)->change_state(element, transition);
    if (result == GST_STATE_CHANGE_FAILURE) {
        if (transition == GST_STATE_CHANGE_READY_TO_PAUSED)
            tear_down(self);
        return result;
    }
    switch (transition) {
    case GST_STATE_CHANGE_READY_TO_PAUSED:
        result = GST_STATE_CHANGE_NO_PREROLL; // live: frames only in PLAYING
        break;
    case GST_STATE_CHANGE_PAUSED_TO_PLAYING:
        gst_poll_set_flushing(s.poll, FALSE);
        gst_pad_start_task(s.outputs[0]->pad, loop, self, nullptr);
        break;
    case GST_STATE_CHANGE_PLAYING_TO_PAUSED:
        gst_pad_pause_task(s.outputs[0]->pad);
        result = GST_STATE_CHANGE_NO_PREROLL;
        break;
    case GST_STATE_CHANGE_PAUSED_TO_READY:
        gst_pad_stop_task(s.outputs[0]->pad);
        tear_down(self);
        break;
    default:
        break;
    }
    return result;
}

// An EOS sent to the element (gst-launch-1.0 -e, an application ending a
// recording) ends the stream after the frame in flight.
gboolean send_event(GstElement *element, GstEvent *event)
{
    GstZelispSrc *self = GST_ZELISP_SRC(element);
    if (GST_EVENT_TYPE(event) != GST_EVENT_EOS)
        return GST_ELEMENT_CLASS(gst_zelisp_src_parent_class)->send_event(element, event);
    gst_event_unref(event);
    self->state->eos_pending = true;
    GST_OBJECT_LOCK(self);
    if (self->state->poll)
        gst_poll_set_flushing(self->state->poll, TRUE);
    GST_OBJECT_UNLOCK(self);
    return TRUE;
}

// ---- Object ----

void finalize(GObject *object)
{
    GstZelispSrc *self = GST_ZELISP_SRC(object);
    delete self->state;
    G_OBJECT_CLASS(gst_zelisp_src_parent_class)->finalize(object);
}

} // namespace

static void gst_zelisp_src_class_init(GstZelispSrcClass *klass)
{
    GObjectClass *object_class = G_OBJECT_CLASS(klass);
    GstElementClass *element_class = GST_ELEMENT_CLASS(klass);

    object_class->set_property = set_property;
    object_class->get_property = get_property;
    object_class->finalize = finalize;

    const GParamFlags flags = GParamFlags(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_READY);
    g_object_class_install_property(object_class, PROP_CAMERA,
                                    g_param_spec_int("camera", "Camera", "Camera number (/dev/video<camera>)", 0, 11,
                                                     0, flags));
    g_object_class_install_property(
        object_class, PROP_MODE,
        g_param_spec_int("mode", "Open mode",
                         "1: /dev/video<camera> with up to three views; 2: /dev/video<camera+12>, view 0 only", 1, 2,
                         1, flags));
    g_object_class_install_property(object_class, PROP_BUFFERS,
                                    g_param_spec_int("buffers", "Buffers", "Capture buffers the driver fills", 3, 8,
                                                     kDefaultBuffers, flags));
    g_object_class_install_property(object_class, PROP_VIEW,
                                    g_param_spec_int("view", "View", "The ISP view the always pad src carries", 0, 2,
                                                     0, flags));
    g_object_class_install_property(
        object_class, PROP_TIMEOUT_MS,
        g_param_spec_int("timeout-ms", "Timeout",
                         "How long to wait for a frame before posting an error, in milliseconds (-1: forever)", -1,
                         G_MAXINT, kDefaultTimeoutMs,
                         GParamFlags(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_PLAYING)));
    g_object_class_install_property(object_class, PROP_NUM_BUFFERS,
                                    g_param_spec_int("num-buffers", "num-buffers",
                                                     "Number of frames to push before EOS (-1: unlimited)", -1,
                                                     G_MAXINT, -1, flags));
    g_object_class_install_property(
        object_class, PROP_DROP,
        g_param_spec_string("drop", "Frame decimation",
                            "TOTAL/DROP: the ISP drops DROP of every TOTAL frames (30/0: every frame)", "30/0",
                            flags));
    g_object_class_install_property(
        object_class, PROP_RESIZE,
        g_param_spec_string("resize", "Resize",
                            "Crop, scale, crop before the views: X,Y,W,H[:SW,SH[:X,Y,W,H]] (empty: none)", "",
                            flags));
    g_object_class_install_property(
        object_class, PROP_STATS,
        g_param_spec_boxed("stats", "Statistics",
                           "frames pushed, dropped (sequence gaps), refused by the library, copied under buffer "
                           "pressure",
                           GST_TYPE_STRUCTURE, GParamFlags(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS)));
    install_control_properties(object_class, PROP_FIRST_CONTROL);

    gst_element_class_set_static_metadata(element_class, "ISP camera source", "Source/Video/Hardware",
                                          "Captures the views of one ISP camera through libzelisp, zero copy",
                                          "libzelisp developers");
    GstCaps *caps = template_caps();
    gst_element_class_add_pad_template(element_class, gst_pad_template_new("src", GST_PAD_SRC, GST_PAD_ALWAYS, caps));
    gst_element_class_add_pad_template(element_class,
                                       gst_pad_template_new("src_%u", GST_PAD_SRC, GST_PAD_REQUEST, caps));
    gst_caps_unref(caps);

    element_class->request_new_pad = request_new_pad;
    element_class->release_pad = release_pad;
    element_class->change_state = change_state;
    element_class->send_event = send_event;

    GST_DEBUG_CATEGORY_INIT(zelispsrc_debug, "zelispsrc", 0, "ISP camera source");
}

static void gst_zelisp_src_init(GstZelispSrc *self)
{
    self->state = new SrcState();
    GST_OBJECT_FLAG_SET(self, GST_ELEMENT_FLAG_SOURCE);
    GstPadTemplate *templ = gst_element_class_get_pad_template(GST_ELEMENT_GET_CLASS(self), "src");
    gst_element_add_pad(GST_ELEMENT(self), make_pad(self, templ, "src", 0));
}
