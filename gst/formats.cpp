// formats.cpp - the ISP view formats the plugin knows, in one table.
#include "formats.h"

#include <cstdio>
#include <string>

#include <gst/allocators/allocators.h>
#include <linux/videodev2.h>

namespace gstzelisp {
namespace {

constexpr uint32_t fourcc(char a, char b, char c, char d)
{
    return uint32_t(uint8_t(a)) | uint32_t(uint8_t(b)) << 8 | uint32_t(uint8_t(c)) << 16 |
           uint32_t(uint8_t(d)) << 24;
}

// bytes_per_pixel_row: bytes of one luma/packed row per pixel; chroma_rows:
// how many chroma bytes follow the luma plane, as a fraction of width*height.
struct FormatEntry {
    uint32_t fourcc;
    GstVideoFormat format;
    unsigned row_bytes_per_pixel; // first plane
    unsigned chroma_num;          // second plane is width*height*num/den bytes
    unsigned chroma_den;
};

constexpr FormatEntry kFormats[] = {
    {fourcc('N', 'V', '1', '2'), GST_VIDEO_FORMAT_NV12, 1, 1, 2},
    {fourcc('N', 'V', '2', '1'), GST_VIDEO_FORMAT_NV21, 1, 1, 2},
    {fourcc('N', 'V', '1', '6'), GST_VIDEO_FORMAT_NV16, 1, 1, 1},
    {fourcc('Y', 'U', 'Y', 'V'), GST_VIDEO_FORMAT_YUY2, 2, 0, 1},
    {fourcc('G', 'R', 'E', 'Y'), GST_VIDEO_FORMAT_GRAY8, 1, 0, 1},
    {fourcc('R', 'G', 'B', '3'), GST_VIDEO_FORMAT_RGB, 3, 0, 1},
};

const FormatEntry *entry_of(uint32_t code)
{
    for (const FormatEntry &entry : kFormats)
        if (entry.fourcc == code)
            return &entry;
    return nullptr;
}

} // namespace

uint32_t fourcc_of(GstVideoFormat format)
{
    for (const FormatEntry &entry : kFormats)
        if (entry.format == format)
            return entry.fourcc;
    return 0;
}

bool is_rgb(uint32_t code) { return code == fourcc('R', 'G', 'B', '3'); }

GstVideoFormat video_format(uint32_t code)
{
    const FormatEntry *entry = entry_of(code);
    return entry ? entry->format : GST_VIDEO_FORMAT_UNKNOWN;
}

std::string fourcc_name(uint32_t code)
{
    char text[12];
    bool printable = true;
    for (int i = 0; i < 4; ++i) {
        char c = char((code >> (8 * i)) & 0xff);
        printable = printable && c >= 0x20 && c < 0x7f;
        text[i] = c;
    }
    text[4] = '\0';
    if (!printable)
        std::snprintf(text, sizeof text, "0x%08x", code);
    return text;
}

GstCaps *template_caps()
{
    std::vector<uint32_t> all;
    for (const FormatEntry &entry : kFormats)
        all.push_back(entry.fourcc);
    GstStructure *structure = raw_structure(all, "");
    gst_structure_set(structure, "width", GST_TYPE_INT_RANGE, 1, G_MAXUINT16, "height", GST_TYPE_INT_RANGE, 1,
                      G_MAXUINT16, "framerate", GST_TYPE_FRACTION_RANGE, 0, 1, G_MAXINT, 1, nullptr);
    return in_both_memories({structure});
}

// ---- Colorimetry ----

namespace {

GstVideoColorPrimaries primaries_of(uint32_t colorspace)
{
    switch (colorspace) {
    case V4L2_COLORSPACE_SMPTE170M:
        return GST_VIDEO_COLOR_PRIMARIES_SMPTE170M;
    case V4L2_COLORSPACE_REC709:
    case V4L2_COLORSPACE_SRGB:
    case V4L2_COLORSPACE_JPEG:
        return GST_VIDEO_COLOR_PRIMARIES_BT709;
    case V4L2_COLORSPACE_470_SYSTEM_M:
        return GST_VIDEO_COLOR_PRIMARIES_BT470M;
    case V4L2_COLORSPACE_470_SYSTEM_BG:
        return GST_VIDEO_COLOR_PRIMARIES_BT470BG;
    case V4L2_COLORSPACE_SMPTE240M:
        return GST_VIDEO_COLOR_PRIMARIES_SMPTE240M;
    case V4L2_COLORSPACE_BT2020:
        return GST_VIDEO_COLOR_PRIMARIES_BT2020;
    case V4L2_COLORSPACE_DCI_P3:
        return GST_VIDEO_COLOR_PRIMARIES_SMPTERP431;
    default:
        return GST_VIDEO_COLOR_PRIMARIES_UNKNOWN;
    }
}

// V4L2 names the default encoding of each colour space; so do we.
GstVideoColorMatrix matrix_of(uint32_t ycbcr_enc, uint32_t colorspace)
{
    switch (ycbcr_enc == V4L2_YCBCR_ENC_DEFAULT ? uint32_t(V4L2_MAP_YCBCR_ENC_DEFAULT(colorspace)) : ycbcr_enc) {
    case V4L2_YCBCR_ENC_601:
    case V4L2_YCBCR_ENC_XV601:
        return GST_VIDEO_COLOR_MATRIX_BT601;
    case V4L2_YCBCR_ENC_709:
    case V4L2_YCBCR_ENC_XV709:
        return GST_VIDEO_COLOR_MATRIX_BT709;
    case V4L2_YCBCR_ENC_BT2020:
    case V4L2_YCBCR_ENC_BT2020_CONST_LUM:
        return GST_VIDEO_COLOR_MATRIX_BT2020;
    case V4L2_YCBCR_ENC_SMPTE240M:
        return GST_VIDEO_COLOR_MATRIX_SMPTE240M;
    default:
        return GST_VIDEO_COLOR_MATRIX_UNKNOWN;
    }
}

GstVideoTransferFunction transfer_of(uint32_t xfer_func, uint32_t colorspace)
{
    switch (xfer_func == V4L2_XFER_FUNC_DEFAULT ? uint32_t(V4L2_MAP_XFER_FUNC_DEFAULT(colorspace)) : xfer_func) {
    case V4L2_XFER_FUNC_709:
        // The same curve; GStreamer names it after the standard of the
        // primaries, so that SMPTE 170M video reads "bt601".
        return colorspace == V4L2_COLORSPACE_SMPTE170M ? GST_VIDEO_TRANSFER_BT601 : GST_VIDEO_TRANSFER_BT709;
    case V4L2_XFER_FUNC_SRGB:
        return GST_VIDEO_TRANSFER_SRGB;
    case V4L2_XFER_FUNC_SMPTE240M:
        return GST_VIDEO_TRANSFER_SMPTE240M;
    case V4L2_XFER_FUNC_NONE:
        return GST_VIDEO_TRANSFER_GAMMA10;
    case V4L2_XFER_FUNC_SMPTE2084:
        return GST_VIDEO_TRANSFER_SMPTE2084;
    default:
        return GST_VIDEO_TRANSFER_UNKNOWN;
    }
}

GstVideoColorRange range_of(uint32_t quantization, bool rgb)
{
    switch (quantization) {
    case V4L2_QUANTIZATION_FULL_RANGE:
        return GST_VIDEO_COLOR_RANGE_0_255;
    case V4L2_QUANTIZATION_LIM_RANGE:
        return GST_VIDEO_COLOR_RANGE_16_235;
    default:
        return rgb ? GST_VIDEO_COLOR_RANGE_0_255 : GST_VIDEO_COLOR_RANGE_16_235;
    }
}

GstVideoColorimetry fallback_colorimetry(bool rgb)
{
    GstVideoColorimetry colorimetry;
    gst_video_colorimetry_from_string(&colorimetry, rgb ? GST_VIDEO_COLORIMETRY_SRGB : GST_VIDEO_COLORIMETRY_BT601);
    return colorimetry;
}

} // namespace

GstVideoColorimetry view_colorimetry(const NodeColorimetry &driver, uint32_t code)
{
    const bool rgb = is_rgb(code);
    if (driver.colorspace == V4L2_COLORSPACE_DEFAULT || driver.fourcc == 0 || is_rgb(driver.fourcc) != rgb)
        return fallback_colorimetry(rgb);
    GstVideoColorimetry colorimetry;
    colorimetry.range = range_of(driver.quantization, rgb);
    colorimetry.matrix = rgb ? GST_VIDEO_COLOR_MATRIX_RGB : matrix_of(driver.ycbcr_enc, driver.colorspace);
    colorimetry.transfer = transfer_of(driver.xfer_func, driver.colorspace);
    colorimetry.primaries = primaries_of(driver.colorspace);
    if (colorimetry.matrix == GST_VIDEO_COLOR_MATRIX_UNKNOWN || colorimetry.transfer == GST_VIDEO_TRANSFER_UNKNOWN ||
        colorimetry.primaries == GST_VIDEO_COLOR_PRIMARIES_UNKNOWN) {
        GST_WARNING("the driver's colorimetry (colorspace %u, encoding %u, transfer %u) has no GStreamer name: "
                    "described as %s instead",
                    driver.colorspace, driver.ycbcr_enc, driver.xfer_func, rgb ? "sRGB" : "BT.601");
        return fallback_colorimetry(rgb);
    }
    return colorimetry;
}

std::string colorimetry_text(const GstVideoColorimetry &colorimetry)
{
    gchar *text = gst_video_colorimetry_to_string(&colorimetry);
    std::string result = text ? text : "";
    g_free(text);
    return result;
}

// ---- Caps ----

GstStructure *raw_structure(const std::vector<uint32_t> &formats, const std::string &colorimetry)
{
    GstStructure *structure = gst_structure_new_empty("video/x-raw");
    if (formats.size() == 1) {
        gst_structure_set(structure, "format", G_TYPE_STRING,
                          gst_video_format_to_string(video_format(formats[0])), nullptr);
    } else {
        GValue list = G_VALUE_INIT;
        gst_value_list_init(&list, formats.size());
        for (uint32_t code : formats) {
            GValue name = G_VALUE_INIT;
            g_value_init(&name, G_TYPE_STRING);
            g_value_set_string(&name, gst_video_format_to_string(video_format(code)));
            gst_value_list_append_and_take_value(&list, &name);
        }
        gst_structure_take_value(structure, "format", &list);
    }
    if (!colorimetry.empty())
        gst_structure_set(structure, "colorimetry", G_TYPE_STRING, colorimetry.c_str(), nullptr);
    return structure;
}

GstCaps *in_both_memories(const std::vector<GstStructure *> &structures)
{
    GstCaps *caps = gst_caps_new_empty();
    for (GstStructure *structure : structures)
        gst_caps_append_structure_full(caps, gst_structure_copy(structure),
                                       gst_caps_features_new(GST_CAPS_FEATURE_MEMORY_SYSTEM_MEMORY, nullptr));
    for (GstStructure *structure : structures)
        gst_caps_append_structure_full(caps, structure,
                                       gst_caps_features_new(GST_CAPS_FEATURE_MEMORY_DMABUF, nullptr));
    return caps;
}

GstCaps *view_caps(const zelvideo::_view_format_t &format, const std::string &colorimetry, int rate_n, int rate_d)
{
    if (video_format(format.format) == GST_VIDEO_FORMAT_UNKNOWN || format.width == 0 || format.height == 0)
        return nullptr;
    GstStructure *structure = raw_structure({format.format}, colorimetry);
    gst_structure_set(structure, "width", G_TYPE_INT, int(format.width), "height", G_TYPE_INT, int(format.height),
                      "framerate", GST_TYPE_FRACTION, rate_n, rate_d, nullptr);
    return in_both_memories({structure});
}

bool caps_want_dmabuf(const GstCaps *caps)
{
    if (!caps || gst_caps_get_size(caps) == 0)
        return false;
    GstCapsFeatures *features = gst_caps_get_features(caps, 0);
    return features && gst_caps_features_contains(features, GST_CAPS_FEATURE_MEMORY_DMABUF);
}

bool view_layout(const zelvideo::_view_format_t &format, GstVideoInfo *info)
{
    const FormatEntry *entry = entry_of(format.format);
    if (!entry || !gst_video_info_set_format(info, entry->format, format.width, format.height))
        return false;
    gsize luma = gsize(format.width) * entry->row_bytes_per_pixel * format.height;
    GST_VIDEO_INFO_PLANE_STRIDE(info, 0) = gint(format.width * entry->row_bytes_per_pixel);
    GST_VIDEO_INFO_PLANE_OFFSET(info, 0) = 0;
    gsize size = luma;
    if (entry->chroma_num) {
        GST_VIDEO_INFO_PLANE_STRIDE(info, 1) = gint(format.width);
        GST_VIDEO_INFO_PLANE_OFFSET(info, 1) = luma;
        size += gsize(format.width) * format.height * entry->chroma_num / entry->chroma_den;
    }
    info->size = size;
    return true;
}

} // namespace gstzelisp
