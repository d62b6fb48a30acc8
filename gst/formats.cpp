// formats.cpp - the ISP view formats the plugin knows, in one table.
#include "formats.h"

#include <cstdio>
#include <string>

#include <gst/allocators/allocators.h>

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
    GValue list = G_VALUE_INIT;
    gst_value_list_init(&list, G_N_ELEMENTS(kFormats));
    for (const FormatEntry &entry : kFormats) {
        GValue name = G_VALUE_INIT;
        g_value_init(&name, G_TYPE_STRING);
        g_value_set_string(&name, gst_video_format_to_string(entry.format));
        gst_value_list_append_and_take_value(&list, &name);
    }
    GstCaps *caps = gst_caps_new_empty();
    for (int dmabuf = 0; dmabuf < 2; ++dmabuf) {
        GstStructure *structure = gst_structure_new("video/x-raw", "width", GST_TYPE_INT_RANGE, 1, G_MAXUINT16,
                                                    "height", GST_TYPE_INT_RANGE, 1, G_MAXUINT16, "framerate",
                                                    GST_TYPE_FRACTION_RANGE, 0, 1, G_MAXINT, 1, nullptr);
        gst_structure_set_value(structure, "format", &list);
        GstCapsFeatures *features = dmabuf ? gst_caps_features_new(GST_CAPS_FEATURE_MEMORY_DMABUF, nullptr)
                                           : gst_caps_features_new(GST_CAPS_FEATURE_MEMORY_SYSTEM_MEMORY, nullptr);
        gst_caps_append_structure_full(caps, structure, features);
    }
    g_value_unset(&list);
    return caps;
}

GstCaps *view_caps(const zelvideo::_view_format_t &format)
{
    GstVideoFormat video = video_format(format.format);
    if (video == GST_VIDEO_FORMAT_UNKNOWN || format.width == 0 || format.height == 0)
        return nullptr;
    GstCaps *caps = gst_caps_new_empty();
    for (int dmabuf = 0; dmabuf < 2; ++dmabuf) {
        GstStructure *structure = gst_structure_new("video/x-raw", "format", G_TYPE_STRING,
                                                    gst_video_format_to_string(video), "width", G_TYPE_INT,
                                                    int(format.width), "height", G_TYPE_INT, int(format.height),
                                                    "framerate", GST_TYPE_FRACTION, 0, 1, nullptr);
        GstCapsFeatures *features = dmabuf ? gst_caps_features_new(GST_CAPS_FEATURE_MEMORY_DMABUF, nullptr)
                                           : gst_caps_features_new(GST_CAPS_FEATURE_MEMORY_SYSTEM_MEMORY, nullptr);
        gst_caps_append_structure_full(caps, structure, features);
    }
    return caps;
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
