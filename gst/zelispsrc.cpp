/*
 * zelispsrc.cpp - one camera as a live GStreamer source, zero copy.
 *
 * The camera is opened, negotiated and set up (resize, view formats chosen
 * with downstream, decimation, buffers, requested controls) when the
 * element goes to PAUSED, and starts capturing when it first plays. Every
 * frame becomes one GstBuffer per view, all with the frame's capture time as
 * PTS and its sequence number as offset, wrapping the library's buffer; the
 * buffer goes back to the driver when GStreamer frees the last of them. The
 * streaming itself is zelispbasesrc's.
 *
 * Negotiation happens before isp_init_video, because the buffers are sized
 * for the formats in force: each pad's peer is asked what it takes, the
 * view's format and size go to the driver through isp_set_view_format, and
 * a rate that divides the sensor's becomes the library's frame decimation.
 * Going back to READY closes the camera, so the next PAUSED negotiates anew.
 */
#include "zelispsrc.h"

#include <gst/video/colorbalance.h>

#include <cstring>
#include <memory>
#include <mutex>
#include <numeric>
#include <string>

#include "camera_controls.h"
#include "caps_negotiation.h"
#include "element_support.h"
#include "formats.h"
#include "library_messages.h"
#include "node_queries.h"
#include "property_syntax.h"
#include "zelisp.h"

GST_DEBUG_CATEGORY_STATIC(zelispsrc_debug);
#define GST_CAT_DEFAULT zelispsrc_debug

using namespace gstzelisp;

namespace {

enum {
    PROP_0,
    PROP_CAMERA,
    PROP_MODE,
    PROP_VIEW,
    PROP_DROP,
    PROP_RESIZE,
    PROP_COLORIMETRY,
    PROP_FIRST_CONTROL,
};

// One camera: its open mode, views, decimation, resize and controls.
class CameraSource : public Source {
public:
    explicit CameraSource(GstElement *element) : Source(element, "camera"), tuning(GST_OBJECT(element)) {}

    bool check_present() override
    {
        GST_OBJECT_LOCK(element_);
        int number = camera, open_mode = mode;
        GST_OBJECT_UNLOCK(element_);
        return check_camera_present(element_, number, open_mode);
    }
    Stream *open(std::vector<unsigned long> *handles) override;
    int start_capture(const char **call) override
    {
        *call = "isp_start_capture";
        return isp_start_capture(handle_);
    }
    void stop_capture() override { isp_stop_capture(handle_); }
    int take(FrameSet *set) override
    {
        set->count = 1;
        return decimating_ ? isp_get_expected_frame(handle_, &set->frames[0], 0)
                           : isp_get_frame_buf(handle_, &set->frames[0], 0);
    }
    const char *take_call() const override { return decimating_ ? "isp_get_expected_frame" : "isp_get_frame_buf"; }
    guint64 skipped_between(uint32_t first, uint32_t last) const override
    {
        return decimation_.skipped_between(first, last);
    }
    void stream_closing() override { tuning.detach(); }
    GstStructure *stats_structure(const SourceCounters &counters) const override
    {
        return gst_structure_new("zelisp-stats", "frames", G_TYPE_UINT64, counters.frames, "dropped", G_TYPE_UINT64,
                                 counters.dropped, "refused", G_TYPE_UINT64, counters.refused, "copied",
                                 G_TYPE_UINT64, counters.copied, "copies-exhausted", G_TYPE_UINT64,
                                 counters.copy_limit_drops, nullptr);
    }

    // Properties (GST_OBJECT_LOCK).
    int camera = 0;
    int mode = 1;
    int view = 0;
    DropRatio drop;
    zelvideo::_resize_param_t resize{};
    std::string colorimetry;
    CameraTuning tuning;

private:
    struct Settings;
    bool negotiate(unsigned long opened, const Settings &settings, const NodeFacts &facts, DropRatio *ratio);
    bool set_up_view(unsigned long opened, PadOutput &output, bool resized);

    unsigned long handle_ = 0;
    bool decimating_ = false;
    DecimationRule decimation_;
};

CameraSource &source_of(gpointer self) { return static_cast<CameraSource &>(gst_zelisp_base_src_source(self)); }

// ---- Colour balance: the picture controls under their standard names ----

struct BalanceChannel {
    const char *label; // GstColorBalance's names, which applications look for
    const char *property;
};
const BalanceChannel kBalanceChannels[] = {
    {"BRIGHTNESS", "brightness"},
    {"CONTRAST", "contrast"},
    {"SATURATION", "saturation"},
    {"HUE", "hue"},
};

} // namespace

struct _GstZelispSrc {
    GstZelispBaseSrc parent;
    GList *balance_channels;
};

static void gst_zelisp_src_color_balance_init(GstColorBalanceInterface *iface);

G_DEFINE_TYPE_WITH_CODE(GstZelispSrc, gst_zelisp_src, GST_TYPE_ZELISP_BASE_SRC,
                        G_IMPLEMENT_INTERFACE(GST_TYPE_COLOR_BALANCE, gst_zelisp_src_color_balance_init))

namespace {

const BalanceChannel *balance_entry(GstColorBalanceChannel *channel)
{
    for (const BalanceChannel &entry : kBalanceChannels)
        if (std::strcmp(channel->label, entry.label) == 0)
            return &entry;
    return nullptr;
}

const GList *balance_list_channels(GstColorBalance *balance) { return GST_ZELISP_SRC(balance)->balance_channels; }

void balance_set_value(GstColorBalance *balance, GstColorBalanceChannel *channel, gint value)
{
    const BalanceChannel *entry = balance_entry(channel);
    if (!entry)
        return;
    // Through the property: the driver gets it, notify:: and the refusal
    // warning work as for any set.
    g_object_set(balance, entry->property, guint(CLAMP(value, channel->min_value, channel->max_value)), nullptr);
    guint now = 0;
    g_object_get(balance, entry->property, &now, nullptr);
    gst_color_balance_value_changed(balance, channel, gint(now));
}

gint balance_get_value(GstColorBalance *balance, GstColorBalanceChannel *channel)
{
    const BalanceChannel *entry = balance_entry(channel);
    guint value = 0;
    if (entry)
        g_object_get(balance, entry->property, &value, nullptr);
    return gint(value);
}

GstColorBalanceType balance_type(GstColorBalance *) { return GST_COLOR_BALANCE_HARDWARE; }

// ---- Properties ----

void set_property(GObject *object, guint id, const GValue *value, GParamSpec *pspec)
{
    CameraSource &s = source_of(object);
    int control = control_of_property(id, PROP_FIRST_CONTROL);
    if (control >= 0) {
        std::string refusal;
        if (!s.tuning.set(control, value, &refusal))
            refuse_property(object, pspec->name, refusal);
        return;
    }
    if (s.is_fixed()) {
        s.refuse_while_set_up(object, pspec->name);
        return;
    }
    std::string error;
    GST_OBJECT_LOCK(object);
    switch (id) {
    case PROP_CAMERA:
        s.camera = g_value_get_int(value);
        break;
    case PROP_MODE:
        s.mode = g_value_get_int(value);
        break;
    case PROP_VIEW:
        s.view = g_value_get_int(value);
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
    case PROP_COLORIMETRY: {
        const char *text = g_value_get_string(value);
        GstVideoColorimetry parsed;
        if (!text || !*text)
            s.colorimetry.clear();
        else if (gst_video_colorimetry_from_string(&parsed, text))
            s.colorimetry = colorimetry_text(parsed);
        else
            error = std::string("colorimetry takes a GStreamer colorimetry (bt601, bt709, sRGB, bt2020 or "
                                "RANGE:MATRIX:TRANSFER:PRIMARIES), or nothing for the driver's, got '") +
                    text + "'";
        break;
    }
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        break;
    }
    GST_OBJECT_UNLOCK(object);
    if (!error.empty())
        refuse_property(object, pspec->name, error);
}

void get_property(GObject *object, guint id, GValue *value, GParamSpec *pspec)
{
    CameraSource &s = source_of(object);
    int control = control_of_property(id, PROP_FIRST_CONTROL);
    if (control >= 0)
        return s.tuning.get(control, value);
    GST_OBJECT_LOCK(object);
    switch (id) {
    case PROP_CAMERA:
        g_value_set_int(value, s.camera);
        break;
    case PROP_MODE:
        g_value_set_int(value, s.mode);
        break;
    case PROP_VIEW:
        g_value_set_int(value, s.view);
        break;
    case PROP_DROP:
        g_value_set_string(value, format_drop(s.drop).c_str());
        break;
    case PROP_RESIZE:
        g_value_set_string(value, format_resize(s.resize).c_str());
        break;
    case PROP_COLORIMETRY:
        g_value_set_string(value, s.colorimetry.c_str());
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        break;
    }
    GST_OBJECT_UNLOCK(object);
}

// ---- Pads ----

GstPad *make_view_pad(GstZelispSrc *self, GstPadTemplate *templ, int view)
{
    auto output = std::make_unique<PadOutput>();
    output->output.view = view;
    output->label = "view " + std::to_string(view);
    output->stream_name = "view" + std::to_string(view);
    bool always = std::string(GST_PAD_TEMPLATE_NAME_TEMPLATE(templ)) == "src";
    std::string name = always ? "src" : "src_" + std::to_string(view);
    return source_of(self).make_pad(templ, name, std::move(output));
}

// Why no pad can be made for `name` (any free view when NULL), or "" with
// the view it will carry.
std::string request_refusal(GstZelispSrc *self, const gchar *name, int *view)
{
    CameraSource &s = source_of(self);
    *view = -1;
    GST_OBJECT_LOCK(self);
    auto taken = [&](int v) {
        if (v == s.view)
            return true;
        for (size_t i = 1; i < s.outputs().size(); ++i)
            if (s.outputs()[i]->output.view == v)
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
        *view = int(parsed);
    } else {
        for (int v = 0; v < 3 && *view < 0; ++v)
            if (!taken(v))
                *view = v;
        if (*view < 0)
            reason = "every view already has a pad";
    }
    if (reason.empty() && s.is_fixed())
        reason = "the stream's views are chosen when it is set up; request pads in the NULL or READY state";
    if (reason.empty() && s.mode == 2)
        reason = "open mode 2 carries view 0 only";
    GST_OBJECT_UNLOCK(self);
    return reason;
}

GstPad *request_new_pad(GstElement *element, GstPadTemplate *templ, const gchar *name, const GstCaps *)
{
    GstZelispSrc *self = GST_ZELISP_SRC(element);
    int view = -1;
    // Asked first without the layout lock: a request made from within the
    // set-up (by downstream, answering its negotiation) is refused here
    // rather than waiting for the set-up it is part of. Then again under
    // it: another thread's set-up or request may have come in between.
    std::string reason = request_refusal(self, name, &view);
    std::unique_lock<std::mutex> layout(source_of(self).layout_lock(), std::defer_lock);
    if (reason.empty()) {
        layout.lock();
        reason = request_refusal(self, name, &view);
    }
    if (!reason.empty()) {
        g_warning("%s: no request pad: %s", GST_OBJECT_NAME(self), reason.c_str());
        return nullptr;
    }
    GstPad *pad = make_view_pad(self, templ, view);
    gst_pad_set_active(pad, GST_STATE(element) > GST_STATE_READY);
    gst_element_add_pad(element, pad);
    GST_DEBUG_OBJECT(self, "request pad %s carries view %d", GST_PAD_NAME(pad), view);
    return pad;
}

// Safe while streaming: the streaming thread keeps its own reference to the
// output until the frame in flight is pushed, and pushes nothing more to it.
void release_pad(GstElement *element, GstPad *pad)
{
    GST_OBJECT_LOCK(element);
    source_of(element).forget_pad(pad);
    GST_OBJECT_UNLOCK(element);
    gst_pad_set_active(pad, FALSE);
    gst_element_remove_pad(element, pad);
}

} // namespace

// ---- Set-up ----

namespace {

bool is_resized(const zelvideo::_resize_param_t &resize)
{
    const zelvideo::_resize_param_t none{};
    return std::memcmp(&resize, &none, sizeof none) != 0;
}

// The size the ISP gives view 1 after a crop, scale, crop: the last step
// that has a size. Checked against the driver once the stream is set up.
void resized_size(const zelvideo::_resize_param_t &resize, zelvideo::_view_format_t *format)
{
    if (resize.cropAfter.width && resize.cropAfter.height) {
        format->width = resize.cropAfter.width;
        format->height = resize.cropAfter.height;
    } else if (resize.scale.width && resize.scale.height) {
        format->width = resize.scale.width;
        format->height = resize.scale.height;
    } else if (resize.cropBefore.width && resize.cropBefore.height) {
        format->width = resize.cropBefore.width;
        format->height = resize.cropBefore.height;
    }
}

} // namespace

struct CameraSource::Settings {
    int camera;
    int mode;
    int buffers;
    DropRatio drop;
    zelvideo::_resize_param_t resize;
    std::string colorimetry;
};

// Chooses every view's caps with downstream, main view first (it decides
// the rate the others share), and asks the driver for the formats chosen.
bool CameraSource::negotiate(unsigned long opened, const Settings &settings, const NodeFacts &facts,
                             DropRatio *ratio)
{
    const bool rate_chosen_by_drop = settings.drop.drop != 0;
    int rate_n = facts.fps_n, rate_d = facts.fps_d;
    if (rate_chosen_by_drop && facts.fps_n > 0) {
        rate_n = facts.fps_n * (settings.drop.total - settings.drop.drop);
        rate_d = facts.fps_d * settings.drop.total;
        int divisor = int(std::gcd(int64_t(rate_n), int64_t(rate_d)));
        rate_n /= divisor;
        rate_d /= divisor;
    }
    const bool resized = is_resized(settings.resize);
    GST_OBJECT_LOCK(element_);
    auto outputs = this->outputs();
    GST_OBJECT_UNLOCK(element_);
    for (size_t i = 0; i < outputs.size(); ++i) {
        PadOutput &output = *outputs[i];
        ViewOffer offer;
        int result = isp_get_view_format(opened, uint32_t(output.output.view), &offer.current);
        if (result != ISP_OK) {
            post_library_error(element_, "isp_get_view_format", result);
            return false;
        }
        if (video_format(offer.current.format) == GST_VIDEO_FORMAT_UNKNOWN) {
            GST_ELEMENT_ERROR(element_, STREAM, FORMAT,
                              ("view %d comes as %s %ux%u, a format the plugin cannot describe", output.output.view,
                               fourcc_name(offer.current.format).c_str(), offer.current.width,
                               offer.current.height),
                              (nullptr));
            return false;
        }
        // The resize decides view 1's size; mode 2 has one fixed plane.
        if (resized && output.output.view == 1) {
            resized_size(settings.resize, &offer.current);
        } else if (settings.mode == 1) {
            offer.formats = facts.fourccs;
            offer.sizes = facts.sizes;
        }
        offer.driver_colorimetry = facts.colorimetry;
        offer.colorimetry = settings.colorimetry;
        offer.fps_n = facts.fps_n;
        offer.fps_d = facts.fps_d;
        offer.rate_by_decimation = i == 0 && !rate_chosen_by_drop && facts.fps_n > 0;
        offer.rate_n = rate_n;
        offer.rate_d = rate_d;
        ViewChoice choice;
        std::string refusal;
        if (!choose_view_caps(output.pad, offer, output.label, &choice, &refusal)) {
            GST_ELEMENT_ERROR(element_, CORE, NEGOTIATION, ("%s", refusal.c_str()), (nullptr));
            return false;
        }
        if (i == 0 && offer.rate_by_decimation) {
            // Every view of a frame comes at the main view's rate.
            rate_n = choice.rate_n;
            rate_d = choice.rate_d;
            int every = decimation_for(facts.fps_n, facts.fps_d, rate_n, rate_d);
            if (every > 1)
                *ratio = DropRatio{every, every - 1};
        }
        GST_INFO_OBJECT(element_, "%s: downstream takes %" GST_PTR_FORMAT, output.label.c_str(), choice.caps);
        if (std::memcmp(&choice.format, &offer.current, sizeof choice.format) != 0) {
            result = isp_set_view_format(opened, uint32_t(output.output.view), &choice.format);
            if (result != ISP_OK) {
                gst_caps_unref(choice.caps);
                post_library_error(element_, "isp_set_view_format", result);
                return false;
            }
        }
        set_caps(output, choice.caps);
    }
    return true;
}

// After isp_init_video: the view as the driver now delivers it must be what
// was negotiated. A resize gives view 1 a size only known now; downstream
// is asked whether it takes it.
bool CameraSource::set_up_view(unsigned long opened, PadOutput &output, bool resized)
{
    zelvideo::_view_format_t final_format{};
    int result = isp_get_view_format(opened, uint32_t(output.output.view), &final_format);
    if (result != ISP_OK) {
        post_library_error(element_, "isp_get_view_format", result);
        return false;
    }
    GstStructure *negotiated = gst_caps_get_structure(output.caps, 0);
    int width = 0, height = 0, rate_n = 0, rate_d = 1;
    gst_structure_get_int(negotiated, "width", &width);
    gst_structure_get_int(negotiated, "height", &height);
    gst_structure_get_fraction(negotiated, "framerate", &rate_n, &rate_d);
    const char *format_name = gst_structure_get_string(negotiated, "format");
    zelvideo::_view_format_t expected{fourcc_of(gst_video_format_from_string(format_name)), uint32_t(width),
                                      uint32_t(height)};
    if (std::memcmp(&final_format, &expected, sizeof expected) != 0) {
        GstCaps *caps = view_caps(final_format, gst_structure_get_string(negotiated, "colorimetry"), rate_n, rate_d);
        bool taken = caps && resized && output.output.view == 1 &&
                     (!gst_pad_is_linked(output.pad) || gst_pad_peer_query_accept_caps(output.pad, caps));
        if (!taken) {
            if (caps)
                gst_caps_unref(caps);
            GST_ELEMENT_ERROR(element_, CORE, NEGOTIATION,
                              ("%s: the driver delivers %s %ux%u where %s %dx%d was agreed with downstream",
                               output.label.c_str(), fourcc_name(final_format.format).c_str(), final_format.width,
                               final_format.height, format_name, width, height),
                              (nullptr));
            return false;
        }
        GstCaps *fixed = gst_caps_copy_nth(caps, output.output.dmabuf ? 1 : 0);
        gst_caps_unref(caps);
        set_caps(output, fixed);
    }
    output.output.format = final_format;
    if (!view_layout(output.output.format, &output.output.info)) {
        GST_ELEMENT_ERROR(element_, STREAM, FORMAT,
                          ("view %d comes as %s %ux%u, a format the plugin cannot describe", output.output.view,
                           fourcc_name(final_format.format).c_str(), final_format.width, final_format.height),
                          (nullptr));
        return false;
    }
    GST_INFO_OBJECT(element_, "view %d: %s %ux%u, %" G_GSIZE_FORMAT " bytes", output.output.view,
                    fourcc_name(final_format.format).c_str(), final_format.width, final_format.height,
                    GST_VIDEO_INFO_SIZE(&output.output.info));
    return true;
}

Stream *CameraSource::open(std::vector<unsigned long> *handles)
{
    GST_OBJECT_LOCK(element_);
    Settings settings{camera, mode, buffers, drop, resize, colorimetry};
    auto outputs = this->outputs();
    outputs[0]->output.view = view;
    outputs[0]->label = "view " + std::to_string(view);
    outputs[0]->stream_name = "view" + std::to_string(view);
    uint32_t combination = 0;
    for (auto &output : outputs)
        combination |= 1u << output->output.view;
    const int main_view = view;
    GST_OBJECT_UNLOCK(element_);

    if (settings.mode == 2 && main_view != 0) {
        GST_ELEMENT_ERROR(element_, RESOURCE, SETTINGS, ("open mode 2 carries view 0 only, not view %d", main_view),
                          (nullptr));
        return nullptr;
    }
    unsigned long opened = isp_open_video(uint32_t(settings.camera), settings.mode);
    if (opened == 0) {
        std::string lines = library_lines();
        GST_ELEMENT_ERROR(element_, RESOURCE, OPEN_READ_WRITE,
                          ("isp_open_video: camera %d could not be opened in mode %d%s%s", settings.camera,
                           settings.mode, lines.empty() ? "" : ": ", lines.c_str()),
                          (nullptr));
        return nullptr;
    }
    auto fail = [&](const char *call, int result) -> Stream * {
        if (call)
            post_library_error(element_, call, result);
        isp_close_video(opened);
        return nullptr;
    };
    int result;
    const bool resized = is_resized(settings.resize);
    if (resized && (result = isp_resize_resolution(opened, &settings.resize)) != ISP_OK)
        return fail("isp_resize_resolution", result);
    int64_t fd = -1;
    if ((result = isp_camera_get_native_fd(opened, &fd)) != ISP_OK)
        return fail("isp_camera_get_native_fd", result);
    NodeFacts facts = query_node(int(fd));
    GST_DEBUG_OBJECT(element_, "the driver reports %d/%d fps, %zu formats, colorspace %u", facts.fps_n, facts.fps_d,
                     facts.fourccs.size(), facts.colorimetry.colorspace);
    DropRatio ratio = settings.drop;
    if (!negotiate(opened, settings, facts, &ratio))
        return fail(nullptr, 0);
    if (ratio.drop != 0 && (result = isp_set_frame_drop_num(opened, ratio.total, ratio.drop)) != ISP_OK)
        return fail("isp_set_frame_drop_num", result);
    // Before the buffers: the first frame is already tuned.
    for (const std::string &refusal : tuning.send_requested(opened))
        GST_ELEMENT_WARNING(element_, RESOURCE, SETTINGS, ("%s", refusal.c_str()), (nullptr));
    if ((result = isp_init_video(opened, combination, settings.buffers)) != ISP_OK)
        return fail("isp_init_video", result);
    for (auto &output : outputs)
        if (!set_up_view(opened, *output, resized))
            return fail(nullptr, 0);

    decimating_ = ratio.drop != 0;
    decimation_ = DecimationRule(ratio);
    handle_ = opened;
    handles->assign(1, opened);
    Stream *stream = Stream::create([opened] { isp_close_video(opened); });
    tuning.attach(stream, opened);
    return stream;
}

// ---- Object ----

static void gst_zelisp_src_color_balance_init(GstColorBalanceInterface *iface)
{
    iface->list_channels = balance_list_channels;
    iface->set_value = balance_set_value;
    iface->get_value = balance_get_value;
    iface->get_balance_type = balance_type;
}

static void gst_zelisp_src_finalize(GObject *object)
{
    g_list_free_full(GST_ZELISP_SRC(object)->balance_channels, g_object_unref);
    G_OBJECT_CLASS(gst_zelisp_src_parent_class)->finalize(object);
}

static void gst_zelisp_src_class_init(GstZelispSrcClass *klass)
{
    GObjectClass *object_class = G_OBJECT_CLASS(klass);
    GstElementClass *element_class = GST_ELEMENT_CLASS(klass);

    object_class->set_property = set_property;
    object_class->get_property = get_property;
    object_class->finalize = gst_zelisp_src_finalize;

    const GParamFlags flags = GParamFlags(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_READY);
    g_object_class_install_property(object_class, PROP_CAMERA,
                                    g_param_spec_int("camera", "Camera", "Camera number (/dev/video<camera>)", 0, 11,
                                                     0, flags));
    g_object_class_install_property(
        object_class, PROP_MODE,
        g_param_spec_int("mode", "Open mode",
                         "1: /dev/video<camera> with up to three views; 2: /dev/video<camera+12>, view 0 only", 1, 2,
                         1, flags));
    g_object_class_install_property(object_class, PROP_VIEW,
                                    g_param_spec_int("view", "View", "The ISP view the always pad src carries", 0, 2,
                                                     0, flags));
    g_object_class_install_property(
        object_class, PROP_DROP,
        g_param_spec_string("drop", "Frame decimation",
                            "TOTAL/DROP: the ISP drops DROP of every TOTAL frames (30/0: every frame, or the rate "
                            "downstream asks for when it divides the sensor's)",
                            "30/0", flags));
    g_object_class_install_property(
        object_class, PROP_RESIZE,
        g_param_spec_string("resize", "Resize",
                            "Crop, scale, crop before the views: X,Y,W,H[:SW,SH[:X,Y,W,H]] (empty: none)", "",
                            flags));
    g_object_class_install_property(
        object_class, PROP_COLORIMETRY,
        g_param_spec_string("colorimetry", "Colorimetry",
                            "The colorimetry the caps carry (bt601, bt709, sRGB, ...); empty: what the driver "
                            "reports, else BT.601 for YUV and sRGB for RGB",
                            "", flags));
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

    GST_DEBUG_CATEGORY_INIT(zelispsrc_debug, "zelispsrc", 0, "ISP camera source");
}

static void gst_zelisp_src_init(GstZelispSrc *self)
{
    gst_zelisp_base_src_set_source(GST_ZELISP_BASE_SRC(self), new CameraSource(GST_ELEMENT(self)));
    GstPadTemplate *templ = gst_element_class_get_pad_template(GST_ELEMENT_GET_CLASS(self), "src");
    gst_element_add_pad(GST_ELEMENT(self), make_view_pad(self, templ, 0));
    for (const BalanceChannel &entry : kBalanceChannels) {
        auto *channel = static_cast<GstColorBalanceChannel *>(g_object_new(GST_TYPE_COLOR_BALANCE_CHANNEL, nullptr));
        channel->label = g_strdup(entry.label);
        channel->min_value = 0;
        channel->max_value = 255;
        self->balance_channels = g_list_append(self->balance_channels, channel);
    }
}
