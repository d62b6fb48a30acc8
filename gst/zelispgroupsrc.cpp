/*
 * zelispgroupsrc.cpp - a camera group as one live source.
 *
 * The group is created, opened, given its trigger mode and set up when the
 * element goes to PAUSED, and starts capturing with the first frame set the
 * pipeline asks for. The streaming thread (zelispbasesrc's) reads frame sets
 * (isp_group_get_sync_frame) and pushes each member's frame on that
 * member's pad. All buffers of one set carry the PTS of the set's earliest
 * capture, so a compositor downstream tiles them in step; the spread of the
 * members' capture times is the set's skew, shown in "stats".
 *
 * Frames are wrapped zero copy, like zelispsrc's, and each member's buffer
 * goes back to its camera when GStreamer frees it; a member whose
 * downstream holds too many buffers gets copies instead.
 */
#include "zelispgroupsrc.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "element_support.h"
#include "formats.h"
#include "property_syntax.h"
#include "zelisp.h"

GST_DEBUG_CATEGORY_STATIC(zelispgroupsrc_debug);
#define GST_CAT_DEFAULT zelispgroupsrc_debug

using namespace gstzelisp;

namespace {

constexpr int kMostMembers = kMostFramesInSet;

enum {
    PROP_0,
    PROP_CAMERAS,
    PROP_VIEWS,
    PROP_TRIGGER,
};

uint32_t combination_of(const std::vector<int> &views)
{
    uint32_t mask = 0;
    for (int view : views)
        mask |= 1u << view;
    return mask;
}

// The group: its members (one pad each, in "cameras" order), views and
// trigger mode.
class GroupSource : public Source {
public:
    explicit GroupSource(GstElement *element) : Source(element, "group") {}

    Stream *open(std::vector<unsigned long> *handles) override;
    int start_capture(const char **call) override
    {
        *call = "isp_group_start_captrue";
        return isp_group_start_captrue(group_);
    }
    void stop_capture() override { isp_group_stop_captrue(group_); }
    int take(FrameSet *set) override;
    const char *take_call() const override { return "isp_group_get_sync_frame"; }
    GstStructure *stats_structure(const SourceCounters &c) const override
    {
        return gst_structure_new("zelisp-group-stats", "frames", G_TYPE_UINT64, c.frames, "dropped", G_TYPE_UINT64,
                                 c.dropped, "refused", G_TYPE_UINT64, c.refused, "copied", G_TYPE_UINT64, c.copied,
                                 "skew-us", G_TYPE_UINT64, c.skew_us, "max-skew-us", G_TYPE_UINT64, c.max_skew_us,
                                 nullptr);
    }
    void make_member_pads(const std::vector<int> &list);

    std::vector<int> cameras{0};
    std::vector<int> views{0};
    TriggerSetting trigger;

private:
    bool set_up_member(int camera, PadOutput &output, unsigned long *handle);

    unsigned long group_ = 0;
    std::vector<unsigned long> handles_; // of the members, in pad order
};

GroupSource &source_of(gpointer self) { return static_cast<GroupSource &>(gst_zelisp_base_src_source(self)); }

} // namespace

struct _GstZelispGroupSrc {
    GstZelispBaseSrc parent;
};

G_DEFINE_TYPE(GstZelispGroupSrc, gst_zelisp_group_src, GST_TYPE_ZELISP_BASE_SRC)

// The member pads follow the "cameras" property, so that a pipeline
// description can link them before the group exists.
void GroupSource::make_member_pads(const std::vector<int> &list)
{
    GST_OBJECT_LOCK(element_);
    std::vector<GstPad *> old;
    for (auto &output : outputs())
        old.push_back(output->pad);
    outputs().clear();
    GST_OBJECT_UNLOCK(element_);
    for (GstPad *pad : old)
        gst_element_remove_pad(element_, pad);
    GstPadTemplate *templ = gst_element_class_get_pad_template(GST_ELEMENT_GET_CLASS(element_), "src_%u");
    for (size_t i = 0; i < list.size(); ++i) {
        auto output = std::make_unique<PadOutput>();
        output->label = "camera " + std::to_string(list[i]);
        output->stream_name = "camera" + std::to_string(list[i]);
        output->frame = i;
        GstPad *pad = make_pad(templ, "src_" + std::to_string(list[i]), std::move(output));
        gst_element_add_pad(element_, pad);
    }
}

namespace {

// ---- Properties ----

void set_property(GObject *object, guint id, const GValue *value, GParamSpec *pspec)
{
    GroupSource &s = source_of(object);
    if (s.is_set_up()) {
        s.refuse_while_set_up(object, pspec->name);
        return;
    }
    std::string error;
    const char *text = g_value_get_string(value);
    switch (id) {
    case PROP_CAMERAS: {
        std::vector<int> cameras;
        if (parse_number_list(text ? text : "", 11, kMostMembers, &cameras, &error)) {
            s.cameras = cameras;
            s.make_member_pads(cameras);
        }
        break;
    }
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
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        break;
    }
    if (!error.empty())
        refuse_property(object, pspec->name, error);
}

void get_property(GObject *object, guint id, GValue *value, GParamSpec *pspec)
{
    GroupSource &s = source_of(object);
    switch (id) {
    case PROP_CAMERAS:
        g_value_set_string(value, format_number_list(s.cameras).c_str());
        break;
    case PROP_VIEWS:
        g_value_set_string(value, format_number_list(s.views).c_str());
        break;
    case PROP_TRIGGER:
        g_value_set_string(value, format_trigger(s.trigger).c_str());
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        break;
    }
}

} // namespace

// ---- Set-up and frame sets ----

bool GroupSource::set_up_member(int camera, PadOutput &output, unsigned long *handle)
{
    int result = isp_group_get_camera_handle(group_, camera, handle);
    if (result != ISP_OK) {
        post_library_error(element_, "isp_group_get_camera_handle", result);
        return false;
    }
    output.output.view = views.front();
    if ((result = isp_get_view_format(*handle, uint32_t(output.output.view), &output.output.format)) != ISP_OK) {
        post_library_error(element_, "isp_get_view_format", result);
        return false;
    }
    if (!view_layout(output.output.format, &output.output.info)) {
        GST_ELEMENT_ERROR(element_, STREAM, FORMAT,
                          ("camera %d: view %d comes as %s, a format the plugin cannot describe", camera,
                           output.output.view, fourcc_name(output.output.format.format).c_str()),
                          (nullptr));
        return false;
    }
    return true;
}

Stream *GroupSource::open(std::vector<unsigned long> *handles)
{
    if (outputs().empty()) {
        GST_ELEMENT_ERROR(element_, RESOURCE, SETTINGS, ("the group has no cameras"), (nullptr));
        return nullptr;
    }
    int list[kMostMembers];
    for (size_t i = 0; i < cameras.size(); ++i)
        list[i] = cameras[i];
    unsigned long group = 0;
    int result = isp_create_video_group(&group, 0, GST_OBJECT_NAME(element_), list, int(cameras.size()));
    if (result != ISP_OK) {
        post_library_error(element_, "isp_create_video_group", result);
        return nullptr;
    }
    auto fail = [&](const char *call, int code) -> Stream * {
        if (call)
            post_library_error(element_, call, code);
        isp_destroy_video_group(group);
        return nullptr;
    };
    int open_results[kMostMembers];
    if ((result = isp_group_open_video(group, 1, open_results)) != ISP_OK)
        return fail("isp_group_open_video", result);
    if (trigger.mode == TriggerSetting::Internal)
        isp_group_set_internal_trigger(group, trigger.param[0], trigger.param[1], trigger.param[2]);
    else if (trigger.mode == TriggerSetting::External)
        isp_group_set_external_trigger(group, trigger.param[0], trigger.param[1], trigger.param[2]);
    if ((result = isp_group_init_video(group, combination_of(views), uint32_t(buffers))) != ISP_OK)
        return fail("isp_group_init_video", result);
    group_ = group;
    handles->assign(cameras.size(), 0);
    for (size_t i = 0; i < cameras.size(); ++i)
        if (!set_up_member(cameras[i], *outputs()[i], &(*handles)[i]))
            return fail(nullptr, 0);
    handles_ = *handles;
    return Stream::create([group] {
        isp_group_close_video(group);
        isp_destroy_video_group(group);
    });
}

int GroupSource::take(FrameSet *set)
{
    set->count = handles_.size();
    // Records still holding this index were not written.
    memset(set->frames, 0xff, sizeof set->frames);
    int result = zelvideo::isp_group_get_sync_frame(group_, set->frames, int(set->count), 0);
    if (result != ISP_OK) {
        // The members before the failing one handed their frames over and
        // keep them: give them back one by one.
        for (size_t i = 0; i < set->count && set->frames[i].index != UINT32_MAX; ++i)
            isp_put_frame_buf(handles_[i], &set->frames[i]);
    }
    return result;
}

// ---- Object ----

static void gst_zelisp_group_src_class_init(GstZelispGroupSrcClass *klass)
{
    GObjectClass *object_class = G_OBJECT_CLASS(klass);
    GstElementClass *element_class = GST_ELEMENT_CLASS(klass);
    object_class->set_property = set_property;
    object_class->get_property = get_property;

    const GParamFlags flags = GParamFlags(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_READY);
    g_object_class_install_property(
        object_class, PROP_CAMERAS,
        g_param_spec_string("cameras", "Cameras",
                            "The member cameras, up to 8 numbers 0..11 separated by commas; each gets a pad src_<camera>",
                            "0", flags));
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
    auto *source = new GroupSource(GST_ELEMENT(self));
    gst_zelisp_base_src_set_source(GST_ZELISP_BASE_SRC(self), source);
    source->make_member_pads(source->cameras);
}
