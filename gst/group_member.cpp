// group_member.cpp - a member camera of a camera group as a child object.
#include "group_member.h"

#include <string>

#include "element_support.h"

using namespace gstzelisp;

namespace {

enum {
    PROP_0,
    PROP_CAMERA,
    PROP_FIRST_CONTROL,
};

} // namespace

struct _GstZelispGroupMember {
    GstObject parent;
    int camera;
    CameraTuning *tuning;
};

G_DEFINE_TYPE(GstZelispGroupMember, gst_zelisp_group_member, GST_TYPE_OBJECT)

namespace {

void set_property(GObject *object, guint id, const GValue *value, GParamSpec *pspec)
{
    GstZelispGroupMember *self = GST_ZELISP_GROUP_MEMBER(object);
    int control = control_of_property(id, PROP_FIRST_CONTROL);
    if (control < 0) {
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        return;
    }
    std::string refusal;
    if (!self->tuning->set(control, value, &refusal))
        refuse_property(object, pspec->name, refusal);
}

void get_property(GObject *object, guint id, GValue *value, GParamSpec *pspec)
{
    GstZelispGroupMember *self = GST_ZELISP_GROUP_MEMBER(object);
    int control = control_of_property(id, PROP_FIRST_CONTROL);
    if (id == PROP_CAMERA)
        g_value_set_int(value, self->camera);
    else if (control >= 0)
        self->tuning->get(control, value);
    else
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
}

void finalize(GObject *object)
{
    delete GST_ZELISP_GROUP_MEMBER(object)->tuning;
    G_OBJECT_CLASS(gst_zelisp_group_member_parent_class)->finalize(object);
}

} // namespace

static void gst_zelisp_group_member_class_init(GstZelispGroupMemberClass *klass)
{
    GObjectClass *object_class = G_OBJECT_CLASS(klass);
    object_class->set_property = set_property;
    object_class->get_property = get_property;
    object_class->finalize = finalize;
    g_object_class_install_property(object_class, PROP_CAMERA,
                                    g_param_spec_int("camera", "Camera", "The member's camera number", 0, 11, 0,
                                                     GParamFlags(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS)));
    install_control_properties(object_class, PROP_FIRST_CONTROL);
}

static void gst_zelisp_group_member_init(GstZelispGroupMember *self)
{
    self->tuning = new CameraTuning(GST_OBJECT(self));
}

GstZelispGroupMember *gst_zelisp_group_member_new(int camera)
{
    std::string name = "cam" + std::to_string(camera);
    auto *member = static_cast<GstZelispGroupMember *>(
        g_object_new(GST_TYPE_ZELISP_GROUP_MEMBER, "name", name.c_str(), nullptr));
    member->camera = camera;
    return GST_ZELISP_GROUP_MEMBER(gst_object_ref_sink(member));
}

int gst_zelisp_group_member_camera(GstZelispGroupMember *member) { return member->camera; }

CameraTuning &gst_zelisp_group_member_tuning(GstZelispGroupMember *member) { return *member->tuning; }
