/*
 * zelispsrc.cpp - one camera as a live GStreamer source, zero copy.
 *
 * The camera is opened and set up (resize, decimation, views, buffers,
 * requested controls) when the element goes to PAUSED, and starts capturing
 * with the first frame the pipeline asks for. Every frame becomes one
 * GstBuffer per view, all with the frame's capture time as PTS and its
 * sequence number as offset, wrapping the library's buffer; the buffer goes
 * back to the driver when GStreamer frees the last of them. The streaming
 * itself is zelispbasesrc's.
 */
#include "zelispsrc.h"

#include <cstring>
#include <memory>
#include <mutex>
#include <string>

#include "camera_controls.h"
#include "element_support.h"
#include "formats.h"
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
    PROP_FIRST_CONTROL,
};

// One camera: its open mode, views, decimation, resize and controls.
class CameraSource : public Source {
public:
    explicit CameraSource(GstElement *element) : Source(element, "camera") {}

    Stream *open(std::vector<unsigned long> *handles) override;
    int start_capture(const char **call) override
    {
        *call = "isp_start_capture";
        return isp_start_capture(handle);
    }
    void stop_capture() override { isp_stop_capture(handle); }
    int take(FrameSet *set) override
    {
        set->count = 1;
        return decimating_ ? isp_get_expected_frame(handle, &set->frames[0], 0)
                           : isp_get_frame_buf(handle, &set->frames[0], 0);
    }
    const char *take_call() const override { return decimating_ ? "isp_get_expected_frame" : "isp_get_frame_buf"; }
    guint64 skipped_between(uint32_t first, uint32_t last) const override
    {
        return decimation_.skipped_between(first, last);
    }
    GstStructure *stats_structure(const SourceCounters &counters) const override
    {
        return gst_structure_new("zelisp-stats", "frames", G_TYPE_UINT64, counters.frames, "dropped", G_TYPE_UINT64,
                                 counters.dropped, "refused", G_TYPE_UINT64, counters.refused, "copied",
                                 G_TYPE_UINT64, counters.copied, nullptr);
    }

    // Properties (GST_OBJECT_LOCK).
    int camera = 0;
    int mode = 1;
    int view = 0;
    DropRatio drop;
    zelvideo::_resize_param_t resize{};
    ControlValues controls;
    // The open camera, while set up (GST_OBJECT_LOCK with the stream).
    unsigned long handle = 0;

private:
    bool set_up_view(unsigned long camera_handle, ViewOutput &output);

    bool decimating_ = false;
    DecimationRule decimation_;
};

CameraSource &source_of(gpointer self) { return static_cast<CameraSource &>(gst_zelisp_base_src_source(self)); }

} // namespace

struct _GstZelispSrc {
    GstZelispBaseSrc parent;
};

G_DEFINE_TYPE(GstZelispSrc, gst_zelisp_src, GST_TYPE_ZELISP_BASE_SRC)

namespace {

// ---- Properties ----

// A control changes on the camera at once while it is set up, and is sent
// at set-up otherwise.
void set_control(GObject *object, CameraSource &s, int control, const GValue *value, GParamSpec *pspec)
{
    uint32_t number = control_from_value(control, value);
    GST_OBJECT_LOCK(object);
    Stream *stream = s.stream();
    if (stream)
        stream->ref();
    unsigned long handle = s.handle;
    GST_OBJECT_UNLOCK(object);
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
    GST_OBJECT_LOCK(object);
    s.controls.value[control] = number;
    s.controls.requested[control] = true;
    GST_OBJECT_UNLOCK(object);
}

void set_property(GObject *object, guint id, const GValue *value, GParamSpec *pspec)
{
    CameraSource &s = source_of(object);
    int control = control_of_property(id, PROP_FIRST_CONTROL);
    if (control >= 0)
        return set_control(object, s, control, value, pspec);
    if (s.is_set_up()) {
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
    if (control >= 0) {
        GST_OBJECT_LOCK(object);
        Stream *stream = s.stream();
        if (stream)
            stream->ref();
        unsigned long handle = s.handle;
        uint32_t number = s.controls.value[control];
        GST_OBJECT_UNLOCK(object);
        if (stream) {
            // What the driver holds, not what was asked for.
            const char *call = "";
            {
                std::lock_guard<std::mutex> guard(stream->library_lock());
                int result = read_control(handle, control, &number, &call);
                if (result != ISP_OK)
                    GST_WARNING_OBJECT(object, "%s", library_error_text(call, result).c_str());
            }
            stream->unref();
        }
        control_to_value(control, number, value);
        return;
    }
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

GstPad *request_new_pad(GstElement *element, GstPadTemplate *templ, const gchar *name, const GstCaps *)
{
    GstZelispSrc *self = GST_ZELISP_SRC(element);
    CameraSource &s = source_of(self);
    int view = -1;
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
        view = int(parsed);
    } else {
        for (int v = 0; v < 3 && view < 0; ++v)
            if (!taken(v))
                view = v;
        if (view < 0)
            reason = "every view already has a pad";
    }
    if (reason.empty() && s.is_set_up())
        reason = "the stream's views are chosen when it is set up; request pads in the NULL or READY state";
    if (reason.empty() && s.mode == 2)
        reason = "open mode 2 carries view 0 only";
    GST_OBJECT_UNLOCK(self);
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

bool CameraSource::set_up_view(unsigned long camera_handle, ViewOutput &output)
{
    int result = isp_get_view_format(camera_handle, uint32_t(output.view), &output.format);
    if (result != ISP_OK) {
        post_library_error(element_, "isp_get_view_format", result);
        return false;
    }
    if (!view_layout(output.format, &output.info)) {
        GST_ELEMENT_ERROR(element_, STREAM, FORMAT,
                          ("view %d comes as %s %ux%u, a format the plugin cannot describe", output.view,
                           fourcc_name(output.format.format).c_str(), output.format.width, output.format.height),
                          (nullptr));
        return false;
    }
    GST_INFO_OBJECT(element_, "view %d: %s %ux%u, %" G_GSIZE_FORMAT " bytes", output.view,
                    fourcc_name(output.format.format).c_str(), output.format.width, output.format.height,
                    GST_VIDEO_INFO_SIZE(&output.info));
    return true;
}

Stream *CameraSource::open(std::vector<unsigned long> *handles)
{
    GST_OBJECT_LOCK(element_);
    int camera_number = camera, open_mode = mode, buffer_count = buffers, main_view = view;
    DropRatio ratio = drop;
    zelvideo::_resize_param_t crop = resize;
    ControlValues requested = controls;
    outputs()[0]->output.view = main_view;
    outputs()[0]->label = "view " + std::to_string(main_view);
    outputs()[0]->stream_name = "view" + std::to_string(main_view);
    uint32_t combination = 0;
    for (auto &output : outputs())
        combination |= 1u << output->output.view;
    GST_OBJECT_UNLOCK(element_);

    if (open_mode == 2 && main_view != 0) {
        GST_ELEMENT_ERROR(element_, RESOURCE, SETTINGS, ("open mode 2 carries view 0 only, not view %d", main_view),
                          (nullptr));
        return nullptr;
    }
    unsigned long opened = isp_open_video(uint32_t(camera_number), open_mode);
    if (opened == 0) {
        GST_ELEMENT_ERROR(element_, RESOURCE, OPEN_READ_WRITE,
                          ("isp_open_video: camera %d could not be opened in mode %d (see the library's line above)",
                           camera_number, open_mode),
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
    zelvideo::_resize_param_t none{};
    if (std::memcmp(&crop, &none, sizeof none) != 0 && (result = isp_resize_resolution(opened, &crop)) != ISP_OK)
        return fail("isp_resize_resolution", result);
    if (ratio.drop != 0 && (result = isp_set_frame_drop_num(opened, ratio.total, ratio.drop)) != ISP_OK)
        return fail("isp_set_frame_drop_num", result);
    if ((result = isp_init_video(opened, combination, buffer_count)) != ISP_OK)
        return fail("isp_init_video", result);
    for (int control = 0; control < kControlCount; ++control) {
        if (!requested.requested[control])
            continue;
        const char *call = "";
        result = send_control(opened, control, requested.value[control], &call);
        if (result != ISP_OK) {
            std::string text = library_error_text(call, result);
            GST_ELEMENT_WARNING(element_, RESOURCE, SETTINGS, ("%s", text.c_str()), (nullptr));
        }
    }
    for (auto &output : outputs())
        if (!set_up_view(opened, output->output))
            return fail(nullptr, 0);

    decimating_ = ratio.drop != 0;
    decimation_ = DecimationRule(ratio);
    GST_OBJECT_LOCK(element_);
    handle = opened;
    GST_OBJECT_UNLOCK(element_);
    handles->assign(1, opened);
    return Stream::create([opened] { isp_close_video(opened); });
}

// ---- Object ----

static void gst_zelisp_src_class_init(GstZelispSrcClass *klass)
{
    GObjectClass *object_class = G_OBJECT_CLASS(klass);
    GstElementClass *element_class = GST_ELEMENT_CLASS(klass);

    object_class->set_property = set_property;
    object_class->get_property = get_property;

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
                            "TOTAL/DROP: the ISP drops DROP of every TOTAL frames (30/0: every frame)", "30/0",
                            flags));
    g_object_class_install_property(
        object_class, PROP_RESIZE,
        g_param_spec_string("resize", "Resize",
                            "Crop, scale, crop before the views: X,Y,W,H[:SW,SH[:X,Y,W,H]] (empty: none)", "",
                            flags));
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
}
