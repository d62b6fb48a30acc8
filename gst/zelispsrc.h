/*
 * zelispsrc.h - the source element of one ISP camera. Its always pad "src"
 * carries one view; request pads "src_%u" (u the view number) carry the
 * other views of the same frames.
 */
#ifndef GST_ZELISP_SRC_H
#define GST_ZELISP_SRC_H

#include <gst/gst.h>

#include "zelispbasesrc.h"

G_BEGIN_DECLS

#define GST_TYPE_ZELISP_SRC (gst_zelisp_src_get_type())
G_DECLARE_FINAL_TYPE(GstZelispSrc, gst_zelisp_src, GST, ZELISP_SRC, GstZelispBaseSrc)

G_END_DECLS

#endif
