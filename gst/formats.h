/*
 * formats.h - the one table between the ISP's view formats (V4L2 fourccs in
 * the view records) and GStreamer's raw video formats, and the caps a view
 * is offered with: system memory first, then the exported DMA-buf.
 */
#ifndef GST_ZELISP_FORMATS_H
#define GST_ZELISP_FORMATS_H

#include <gst/gst.h>
#include <gst/video/video.h>

#include <string>

#include "zelisp.h"

namespace gstzelisp {

// The GStreamer format of a view format, GST_VIDEO_FORMAT_UNKNOWN for a
// fourcc the plugin cannot describe.
GstVideoFormat video_format(uint32_t fourcc);

// "NV12", or "0x%08x" for a code that is not four printable characters.
std::string fourcc_name(uint32_t fourcc);

// Every format of the table, as the "format" list of the pad templates.
GstCaps *template_caps();

// The caps of one view: the format and size the driver reports, variable
// frame rate (the driver does not report its rate), offered in system memory
// and as video/x-raw(memory:DMABuf). NULL for a format outside the table.
GstCaps *view_caps(const zelvideo::_view_format_t &format);

// Whether negotiated caps chose the DMA-buf memory.
bool caps_want_dmabuf(const GstCaps *caps);

// The layout the ISP writes: rows of exactly the view's width, planes one
// after the other, so strides and offsets are not GStreamer's defaults for
// every width. Fills info (and the plane layout) and the image's bytes.
bool view_layout(const zelvideo::_view_format_t &format, GstVideoInfo *info);

} // namespace gstzelisp

#endif
