/*
 * zelispgroupsrc.cpp - a camera group as one live source.
 *
 * The group is created, opened, given its trigger mode and set up when the
 * element goes to PAUSED, and starts capturing when it first plays. The streaming thread (zelispbasesrc's) reads frame sets
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
#include <mutex>
#include <string>
#include <vector>

#include "camera_table.h"
#include "caps_negotiation.h"
#include "element_support.h"
#include "formats.h"
#include "group_member.h"
#include "library_messages.h"
#include "node_queries.h"
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

// The group: its members (one pad and one child object each, in "cameras"
// order), views and trigger mode.
class GroupSource : public Source {
public:
    explicit GroupSource(GstElement *element) : Source(element, "group") {}
    ~GroupSource() override;

    bool check_present() override;
    Stream *open(std::vector<unsigned long> *handles) override;
    int start_capture(const char **call) override
    {
        *call = "isp_group_start_captrue";
        return isp_group_start_captrue(group_);
    }
    void stop_capture() override { isp_group_stop_captrue(group_); }
    int take(FrameSet *set) override;
    const char *take_call() const override { return "isp_group_get_sync_frame"; }
    void check_skew(guint64 skew_us, GstClockTime frame_interval) override;
    void sync_controlled_values(GstClockTime running_time) override;
    void stream_closing() override;
    GstStructure *stats_structure(const SourceCounters &c) const override
    {
        return gst_structure_new("zelisp-group-stats", "frames", G_TYPE_UINT64, c.frames, "dropped", G_TYPE_UINT64,
                                 c.dropped, "refused", G_TYPE_UINT64, c.refused, "copied", G_TYPE_UINT64, c.copied,
                                 "copies-exhausted", G_TYPE_UINT64, c.copy_limit_drops, "skew-us", G_TYPE_UINT64,
                                 c.skew_us, "max-skew-us", G_TYPE_UINT64, c.max_skew_us, nullptr);
    }
    void make_members(const std::vector<int> &list);
    // The members' child objects (GST_OBJECT_LOCK), in pad order.
    std::vector<GstZelispGroupMember *> members;

    std::vector<int> cameras{0};
    std::vector<int> views{0};
    TriggerSetting trigger;

private:
    bool set_trigger(unsigned long group);
    bool set_up_member(int camera, PadOutput &output, unsigned long handle);

    unsigned long group_ = 0;
    std::vector<unsigned long> handles_; // of the members, in pad order
    bool triggered_ = false;
    bool skew_warned_ = false;
};

GroupSource &source_of(gpointer self) { return static_cast<GroupSource &>(gst_zelisp_base_src_source(self)); }

} // namespace

struct _GstZelispGroupSrc {
    GstZelispBaseSrc parent;
};

static void gst_zelisp_group_src_child_proxy_init(GstChildProxyInterface *iface);

G_DEFINE_TYPE_WITH_CODE(GstZelispGroupSrc, gst_zelisp_group_src, GST_TYPE_ZELISP_BASE_SRC,
                        G_IMPLEMENT_INTERFACE(GST_TYPE_CHILD_PROXY, gst_zelisp_group_src_child_proxy_init))

GroupSource::~GroupSource()
{
    for (GstZelispGroupMember *member : members)
        gst_object_unref(member);
}

// The member pads and child objects follow the "cameras" property, so that
// a pipeline description can link and tune them before the group exists.
// A member that stays keeps its object and the tuning set on it.
void GroupSource::make_members(const std::vector<int> &list)
{
    GST_OBJECT_LOCK(element_);
    std::vector<GstPad *> old_pads;
    for (auto &output : outputs())
        old_pads.push_back(GST_PAD(gst_object_ref(output->pad)));
    std::vector<GstZelispGroupMember *> old_members;
    old_members.swap(members);
    GST_OBJECT_UNLOCK(element_);
    for (GstPad *pad : old_pads) {
        GST_OBJECT_LOCK(element_);
        forget_pad(pad);
        GST_OBJECT_UNLOCK(element_);
        gst_element_remove_pad(element_, pad);
        gst_object_unref(pad);
    }
    std::vector<GstZelispGroupMember *> made;
    for (int camera : list) {
        GstZelispGroupMember *member = nullptr;
        for (GstZelispGroupMember *&old : old_members)
            if (old && gst_zelisp_group_member_camera(old) == camera)
                std::swap(member, old);
        made.push_back(member ? member : gst_zelisp_group_member_new(camera));
    }
    for (GstZelispGroupMember *old : old_members)
        if (old) {
            gst_child_proxy_child_removed(GST_CHILD_PROXY(element_), G_OBJECT(old), GST_OBJECT_NAME(old));
            gst_object_unref(old);
        }
    GST_OBJECT_LOCK(element_);
    members = made;
    GST_OBJECT_UNLOCK(element_);
    GstPadTemplate *templ = gst_element_class_get_pad_template(GST_ELEMENT_GET_CLASS(element_), "src_%u");
    for (size_t i = 0; i < list.size(); ++i) {
        auto output = std::make_unique<PadOutput>();
        output->label = "camera " + std::to_string(list[i]);
        output->stream_name = "camera" + std::to_string(list[i]);
        output->frame = i;
        GstPad *pad = make_pad(templ, "src_" + std::to_string(list[i]), std::move(output));
        gst_element_add_pad(element_, pad);
        gst_child_proxy_child_added(GST_CHILD_PROXY(element_), G_OBJECT(made[i]), GST_OBJECT_NAME(made[i]));
    }
}

namespace {

// ---- Properties ----

void set_property(GObject *object, guint id, const GValue *value, GParamSpec *pspec)
{
    GroupSource &s = source_of(object);
    // As for a request pad of zelispsrc: refused at once within the set-up
    // (downstream answering its negotiation), and asked again under the
    // layout lock, which another thread's set-up holds throughout.
    if (s.is_fixed()) {
        s.refuse_while_set_up(object, pspec->name);
        return;
    }
    std::lock_guard<std::mutex> layout(s.layout_lock());
    if (s.is_fixed()) {
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
            s.make_members(cameras);
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

bool GroupSource::check_present()
{
    const CameraTable table = read_camera_table();
    const std::vector<int> &listed = table.cameras;
    if (!table.was_read()) {
        GST_ELEMENT_ERROR(element_, RESOURCE, NOT_FOUND,
                          ("a group needs the ISP platform's camera table, which cannot be read (see the library's "
                           "line before)"),
                          (nullptr));
        return false;
    }
    for (int camera : cameras)
        if (!table.lists(camera)) {
            GST_ELEMENT_ERROR(element_, RESOURCE, NOT_FOUND,
                              ("camera %d does not exist: the platform lists camera%s %s", camera,
                               listed.size() == 1 ? "" : "s", listed.empty() ? "none" : format_number_list(listed).c_str()),
                              (nullptr));
            return false;
        }
    return true;
}

// A trigger the driver refuses leaves the sensors free-running: the group
// still streams, but its sets are no longer captured together. The library
// returns 0 even then; the refusal is only its line.
bool GroupSource::set_trigger(unsigned long group)
{
    if (trigger.mode == TriggerSetting::None)
        return false;
    const bool internal = trigger.mode == TriggerSetting::Internal;
    const char *call = internal ? "isp_group_set_internal_trigger" : "isp_group_set_external_trigger";
    LibraryCalls calls(GST_OBJECT(element_), false);
    int result = internal
                     ? isp_group_set_internal_trigger(group, trigger.param[0], trigger.param[1], trigger.param[2])
                     : isp_group_set_external_trigger(group, trigger.param[0], trigger.param[1], trigger.param[2]);
    if (result == ISP_OK && calls.failures().empty())
        return true;
    std::string why = result != ISP_OK ? library_error_text(call, result) : call + std::string(": ") + library_lines();
    GST_ELEMENT_WARNING(element_, RESOURCE, SETTINGS,
                        ("%s: the cameras run free, their frames are not captured together", why.c_str()), (nullptr));
    return false;
}

void GroupSource::check_skew(guint64 skew_us, GstClockTime frame_interval)
{
    if (!triggered_ || skew_warned_ || skew_us * GST_USECOND <= frame_interval / 2)
        return;
    skew_warned_ = true;
    GST_ELEMENT_WARNING(element_, STREAM, FAILED,
                        ("cameras %s: one frame set spans %" G_GUINT64_FORMAT " us under the %s trigger, more than "
                         "half a frame period (%" G_GUINT64_FORMAT " us): the trigger does not hold them together",
                         format_number_list(cameras).c_str(), skew_us,
                         trigger.mode == TriggerSetting::Internal ? "internal" : "external",
                         guint64(frame_interval / GST_USECOND)),
                        (nullptr));
}

void GroupSource::sync_controlled_values(GstClockTime running_time)
{
    Source::sync_controlled_values(running_time);
    GST_OBJECT_LOCK(element_);
    std::vector<GstObject *> objects;
    for (GstZelispGroupMember *member : members)
        objects.push_back(GST_OBJECT(gst_object_ref(member)));
    GST_OBJECT_UNLOCK(element_);
    for (GstObject *object : objects) {
        gst_object_sync_values(object, running_time);
        gst_object_unref(object);
    }
}

void GroupSource::stream_closing()
{
    GST_OBJECT_LOCK(element_);
    std::vector<GstZelispGroupMember *> list = members;
    for (GstZelispGroupMember *member : list)
        gst_object_ref(member);
    GST_OBJECT_UNLOCK(element_);
    for (GstZelispGroupMember *member : list) {
        gst_zelisp_group_member_tuning(member).detach();
        gst_object_unref(member);
    }
}

// A member's pad offers the format and size its driver reports, with the
// colorimetry and rate of its node: downstream takes that or nothing.
bool GroupSource::set_up_member(int camera, PadOutput &output, unsigned long handle)
{
    output.output.view = views.front();
    int result = isp_get_view_format(handle, uint32_t(output.output.view), &output.output.format);
    if (result != ISP_OK) {
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
    int64_t fd = -1;
    if ((result = isp_camera_get_native_fd(handle, &fd)) != ISP_OK) {
        post_library_error(element_, "isp_camera_get_native_fd", result);
        return false;
    }
    NodeFacts facts = query_node(int(fd));
    ViewOffer offer;
    offer.current = output.output.format;
    offer.driver_colorimetry = facts.colorimetry;
    offer.rate_n = facts.fps_n;
    offer.rate_d = facts.fps_d;
    ViewChoice choice;
    std::string refusal;
    if (!choose_view_caps(output.pad, offer, output.label, &choice, &refusal)) {
        GST_ELEMENT_ERROR(element_, CORE, NEGOTIATION, ("%s", refusal.c_str()), (nullptr));
        return false;
    }
    set_caps(output, choice.caps);
    return true;
}

Stream *GroupSource::open(std::vector<unsigned long> *handles)
{
    GST_OBJECT_LOCK(element_);
    auto outputs = this->outputs();
    std::vector<GstZelispGroupMember *> tuned = members;
    for (GstZelispGroupMember *member : tuned)
        gst_object_ref(member);
    GST_OBJECT_UNLOCK(element_);
    auto release_members = [&] {
        for (GstZelispGroupMember *member : tuned)
            gst_object_unref(member);
    };
    if (outputs.empty()) {
        GST_ELEMENT_ERROR(element_, RESOURCE, SETTINGS, ("the group has no cameras"), (nullptr));
        release_members();
        return nullptr;
    }
    int list[kMostMembers];
    for (size_t i = 0; i < cameras.size(); ++i)
        list[i] = cameras[i];
    unsigned long group = 0;
    int result = isp_create_video_group(&group, 0, GST_OBJECT_NAME(element_), list, int(cameras.size()));
    if (result != ISP_OK) {
        post_library_error(element_, "isp_create_video_group", result);
        release_members();
        return nullptr;
    }
    auto fail = [&](const char *call, int code) -> Stream * {
        if (call)
            post_library_error(element_, call, code);
        isp_destroy_video_group(group);
        release_members();
        return nullptr;
    };
    int open_results[kMostMembers];
    if ((result = isp_group_open_video(group, 1, open_results)) != ISP_OK)
        return fail("isp_group_open_video", result);
    triggered_ = set_trigger(group);
    skew_warned_ = false;
    group_ = group;
    handles->assign(cameras.size(), 0);
    for (size_t i = 0; i < cameras.size(); ++i) {
        if ((result = isp_group_get_camera_handle(group, cameras[i], &(*handles)[i])) != ISP_OK)
            return fail("isp_group_get_camera_handle", result);
        // Before the buffers: the first frame set is already tuned.
        for (const std::string &refusal :
             gst_zelisp_group_member_tuning(tuned[i]).send_requested((*handles)[i]))
            GST_ELEMENT_WARNING(element_, RESOURCE, SETTINGS, ("camera %d: %s", cameras[i], refusal.c_str()),
                                (nullptr));
    }
    if ((result = isp_group_init_video(group, combination_of(views), uint32_t(buffers))) != ISP_OK)
        return fail("isp_group_init_video", result);
    for (size_t i = 0; i < cameras.size(); ++i)
        if (!set_up_member(cameras[i], *outputs[i], (*handles)[i]))
            return fail(nullptr, 0);
    handles_ = *handles;
    Stream *stream = Stream::create([group] {
        isp_group_close_video(group);
        isp_destroy_video_group(group);
    });
    for (size_t i = 0; i < tuned.size(); ++i)
        gst_zelisp_group_member_tuning(tuned[i]).attach(stream, handles_[i]);
    release_members();
    return stream;
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

// The members' child objects, named "cam<N>" (the default lookup by name
// finds them through these two).
static GObject *child_by_index(GstChildProxy *proxy, guint index)
{
    GroupSource &s = source_of(proxy);
    GObject *child = nullptr;
    GST_OBJECT_LOCK(proxy);
    if (index < s.members.size())
        child = G_OBJECT(gst_object_ref(s.members[index]));
    GST_OBJECT_UNLOCK(proxy);
    return child;
}

static guint children_count(GstChildProxy *proxy)
{
    GroupSource &s = source_of(proxy);
    GST_OBJECT_LOCK(proxy);
    guint count = guint(s.members.size());
    GST_OBJECT_UNLOCK(proxy);
    return count;
}

// A path may start with the group's own name, as it does when it is
// looked up from the pipeline ("g::cam2::brightness"): the same path then
// also works as a property of the element in a launch line.
static GObject *child_by_name(GstChildProxy *proxy, const gchar *name)
{
    if (g_strcmp0(name, GST_OBJECT_NAME(proxy)) == 0)
        return G_OBJECT(gst_object_ref(proxy));
    GroupSource &s = source_of(proxy);
    GObject *child = nullptr;
    GST_OBJECT_LOCK(proxy);
    for (GstZelispGroupMember *member : s.members)
        if (!child && g_strcmp0(name, GST_OBJECT_NAME(member)) == 0)
            child = G_OBJECT(gst_object_ref(member));
    GST_OBJECT_UNLOCK(proxy);
    return child;
}

static void gst_zelisp_group_src_child_proxy_init(GstChildProxyInterface *iface)
{
    iface->get_child_by_index = child_by_index;
    iface->get_child_by_name = child_by_name;
    iface->get_children_count = children_count;
}

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
                                          "zero copy, one pad per camera; each member is tuned through its child "
                                          "object cam<N> (cam2::brightness=40)",
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
    source->make_members(source->cameras);
}
