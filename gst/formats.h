/*
 * formats.h - the one table between the ISP's view formats (V4L2 fourccs in
 * the view records) and GStreamer's raw video formats, the colorimetry a
 * view is described with, and the fixed caps of a view: system memory
 * first, then the exported DMA-buf.
 */
#ifndef GST_ZELISP_FORMATS_H
#define GST_ZELISP_FORMATS_H

#include <gst/gst.h>
#include <gst/video/video.h>

#include <string>
#include <vector>

#include "node_queries.h"
#include "zelisp.h"

namespace gstzelisp {

// The GStreamer format of a view format, GST_VIDEO_FORMAT_UNKNOWN for a
// fourcc the plugin cannot describe.
GstVideoFormat video_format(uint32_t fourcc);

// "NV12", or "0x%08x" for a code that is not four printable characters.
std::string fourcc_name(uint32_t fourcc);

// The V4L2 fourcc of a GStreamer format of the table, 0 for another.
uint32_t fourcc_of(GstVideoFormat format);
// Whether a view format carries RGB (else YUV or grey).
bool is_rgb(uint32_t fourcc);

// Every format of the table, as the "format" list of the pad templates.
GstCaps *template_caps();

// The colorimetry of a view in `fourcc`: what the driver reports, when it
// reported it for a format of the same kind (RGB, or YUV and grey); else
// BT.601 limited range for YUV and grey, sRGB for RGB, which is how
// sensors' ISPs encode unless told otherwise.
GstVideoColorimetry view_colorimetry(const NodeColorimetry &driver, uint32_t fourcc);
std::string colorimetry_text(const GstVideoColorimetry &colorimetry);

// A structure "video/x-raw" with format (a name, or a list of them when
// `formats` holds several), colorimetry; width, height and framerate are
// the caller's.
GstStructure *raw_structure(const std::vector<uint32_t> &formats, const std::string &colorimetry);
// Caps in system memory, then the same structures in DMA-buf memory.
GstCaps *in_both_memories(const std::vector<GstStructure *> &structures);

// The fixed caps of one view: its format and size, colorimetry and rate
// (0/1: unknown), in both memories. NULL for a format outside the table.
GstCaps *view_caps(const zelvideo::_view_format_t &format, const std::string &colorimetry, int rate_n,
                   int rate_d);

// Whether negotiated caps chose the DMA-buf memory.
bool caps_want_dmabuf(const GstCaps *caps);

// The layout the ISP writes: rows of exactly the view's width, planes one
// after the other, so strides and offsets are not GStreamer's defaults for
// every width. Fills info (and the plane layout) and the image's bytes.
bool view_layout(const zelvideo::_view_format_t &format, GstVideoInfo *info);

} // namespace gstzelisp

#endif
