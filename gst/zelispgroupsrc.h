/*
 * zelispgroupsrc.h - the source element of a synchronised camera group: one
 * pad "src_%u" per member camera (u the camera number), all buffers of one
 * frame set with the same PTS.
 */
#ifndef GST_ZELISP_GROUP_SRC_H
#define GST_ZELISP_GROUP_SRC_H

#include <gst/gst.h>

#include "zelispbasesrc.h"

G_BEGIN_DECLS

#define GST_TYPE_ZELISP_GROUP_SRC (gst_zelisp_group_src_get_type())
G_DECLARE_FINAL_TYPE(GstZelispGroupSrc, gst_zelisp_group_src, GST, ZELISP_GROUP_SRC, GstZelispBaseSrc)

G_END_DECLS

#endif
