/*
 * group_member.h - one member camera of a zelispgroupsrc as a child object
 * ("cam<N>"), so that the member's tuning is reached like any element's:
 * g_object_set on the child, gst_child_proxy_set (group, "cam2::brightness",
 * ...) from code, "cam2::brightness=40" in a launch line. It carries the
 * same tuning properties as zelispsrc, sent to the member camera at once
 * while the group is set up, and when it is set up otherwise.
 */
#ifndef GST_ZELISP_GROUP_MEMBER_H
#define GST_ZELISP_GROUP_MEMBER_H

#include <gst/gst.h>

#include "camera_controls.h"

G_BEGIN_DECLS

#define GST_TYPE_ZELISP_GROUP_MEMBER (gst_zelisp_group_member_get_type())
G_DECLARE_FINAL_TYPE(GstZelispGroupMember, gst_zelisp_group_member, GST, ZELISP_GROUP_MEMBER, GstObject)

G_END_DECLS

// A new member object for camera `camera`, named "cam<camera>".
GstZelispGroupMember *gst_zelisp_group_member_new(int camera);
int gst_zelisp_group_member_camera(GstZelispGroupMember *member);
gstzelisp::CameraTuning &gst_zelisp_group_member_tuning(GstZelispGroupMember *member);

#endif
