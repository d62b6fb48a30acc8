// gst_support.cpp - GStreamer set-up and readers for the plugin's tests.
#include "gst_support.h"

#include "library_messages.h"

#include <gst/video/video.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <fstream>
#include <mutex>
#include <sstream>

extern "C" gboolean gst_zelisp_register_static(void);

namespace zelisp_gst_test {
namespace {

std::mutex log_lock;
std::vector<std::string> logged;

void record_warning(const gchar *domain, GLogLevelFlags, const gchar *message, gpointer)
{
    std::lock_guard<std::mutex> guard(log_lock);
    logged.push_back(std::string(domain ? domain : "") + (domain ? ": " : "") + message);
}

void start_gstreamer()
{
    static bool started = false;
    if (started)
        return;
    started = true;
    gst_init(nullptr, nullptr);
    ASSERT_TRUE(gst_zelisp_register_static());
    for (const char *domain : {"GLib-GObject", "GStreamer", static_cast<const char *>(nullptr)})
        g_log_set_handler(domain, GLogLevelFlags(G_LOG_LEVEL_WARNING | G_LOG_LEVEL_CRITICAL), record_warning,
                          nullptr);
}

} // namespace

void GstTest::SetUp()
{
    SimTest::SetUp();
    start_gstreamer();
    // As the plugin does when it loads (the fixture's teardown gives the
    // console back after every test).
    gstzelisp::route_library_messages();
    clear_warnings();
}

void GstTest::TearDown()
{
    // A frame comes back on whichever thread drops it last, and a
    // pipeline's last reference may be a GStreamer thread's for a moment
    // after the test let go: its frames' mappings follow shortly.
    eventually([] { return zsim::live_descriptors() == 0 && zsim::live_mappings() == 0; });
    SimTest::TearDown();
}

std::vector<std::string> GstTest::warnings() const
{
    std::lock_guard<std::mutex> guard(log_lock);
    return logged;
}

void GstTest::clear_warnings()
{
    std::lock_guard<std::mutex> guard(log_lock);
    logged.clear();
}

GstHarness *source_harness(const std::string &description)
{
    GError *error = nullptr;
    GstElement *element = gst_parse_launch(description.c_str(), &error);
    if (!element) {
        ADD_FAILURE() << description << ": " << (error ? error->message : "?");
        g_clear_error(&error);
        return nullptr;
    }
    GstHarness *harness = gst_harness_new_with_element(element, nullptr, "src");
    gst_object_unref(element);
    GstBus *bus = gst_bus_new();
    gst_element_set_bus(harness->element, bus);
    gst_object_unref(bus);
    return harness;
}

GstHarness *playing_harness(const std::string &description, int node, uint32_t first_sequence, int count)
{
    zsim::set_frame_mode(node, zsim::FrameMode::Scripted);
    push_frames(node, first_sequence, count);
    GstHarness *harness = source_harness(description);
    gst_harness_play(harness);
    return harness;
}

std::string error_text(GstHarness *harness) { return error_text(harness->element); }

std::string error_text(GstElement *element, GstClockTime wait)
{
    GstBus *bus = gst_element_get_bus(element);
    GstMessage *message = gst_bus_timed_pop_filtered(bus, wait, GST_MESSAGE_ERROR);
    gst_object_unref(bus);
    if (!message)
        return "";
    GError *error = nullptr;
    gst_message_parse_error(message, &error, nullptr);
    std::string text = error->message;
    g_error_free(error);
    gst_message_unref(message);
    return text;
}

std::vector<std::string> warning_texts(GstElement *element)
{
    std::vector<std::string> texts;
    GstBus *bus = gst_element_get_bus(element);
    while (GstMessage *message = gst_bus_pop_filtered(bus, GST_MESSAGE_WARNING)) {
        GError *error = nullptr;
        gst_message_parse_warning(message, &error, nullptr);
        texts.push_back(error->message);
        g_error_free(error);
        gst_message_unref(message);
    }
    gst_object_unref(bus);
    return texts;
}

void push_frames(int node, uint32_t first_sequence, int count, uint64_t first_time_us)
{
    for (int i = 0; i < count; ++i) {
        zsim::ScriptedFrame frame;
        frame.sequence = first_sequence + uint32_t(i);
        frame.timestamp_us = first_time_us + uint64_t(i) * 40000;
        frame.paint = true;
        zsim::push_frame(node, frame);
    }
}

namespace {

// Reads the 32 cells of the painted number from a luma (or any one
// component) lookup.
template <typename Luma> std::optional<uint32_t> read_cells(int width, int height, Luma luma_at)
{
    // Cells of a 48th of the width, even; the upper row one cell down,
    // the lower row its complement.
    uint32_t cell = std::min<uint32_t>(uint32_t(width) / 48, (uint32_t(height) - 2) / 5) & ~1u;
    if (cell < 2)
        return std::nullopt;
    uint32_t value = 0;
    for (uint32_t bit = 0; bit < 32; ++bit) {
        bool upper = luma_at(cell * (bit + 1) + cell / 2, cell + cell / 2) >= 128;
        bool lower = luma_at(cell * (bit + 1) + cell / 2, 2 * cell + cell / 2) >= 128;
        if (upper == lower)
            return std::nullopt;
        value = value << 1 | (upper ? 1u : 0u);
    }
    return value;
}

} // namespace

std::optional<uint32_t> painted_number(GstBuffer *buffer, GstCaps *caps)
{
    GstVideoInfo info;
    GstVideoFrame frame;
    if (!gst_video_info_from_caps(&info, caps) || !gst_video_frame_map(&frame, &info, buffer, GST_MAP_READ))
        return std::nullopt;
    const uint8_t *data = static_cast<const uint8_t *>(GST_VIDEO_FRAME_COMP_DATA(&frame, 0));
    const int stride = GST_VIDEO_FRAME_COMP_STRIDE(&frame, 0);
    const int step = GST_VIDEO_FRAME_COMP_PSTRIDE(&frame, 0);
    std::optional<uint32_t> number = read_cells(GST_VIDEO_INFO_WIDTH(&info), GST_VIDEO_INFO_HEIGHT(&info),
                                                [&](uint32_t x, uint32_t y) { return data[y * stride + x * step]; });
    gst_video_frame_unmap(&frame);
    return number;
}

std::vector<int> rgb_at(GstBuffer *buffer, GstCaps *caps, int x, int y)
{
    GstVideoInfo info;
    GstVideoFrame frame;
    if (!gst_video_info_from_caps(&info, caps) || !gst_video_frame_map(&frame, &info, buffer, GST_MAP_READ))
        return {};
    std::vector<int> rgb;
    for (int component = 0; component < 3; ++component) {
        const uint8_t *data = static_cast<const uint8_t *>(GST_VIDEO_FRAME_COMP_DATA(&frame, component));
        rgb.push_back(data[y * GST_VIDEO_FRAME_COMP_STRIDE(&frame, component) +
                           x * GST_VIDEO_FRAME_COMP_PSTRIDE(&frame, component)]);
    }
    gst_video_frame_unmap(&frame);
    return rgb;
}

std::optional<uint32_t> painted_number(GstBuffer *buffer, int width, int height)
{
    GstMapInfo map;
    if (!gst_buffer_map(buffer, &map, GST_MAP_READ))
        return std::nullopt;
    std::optional<uint32_t> number;
    if (map.size >= size_t(width) * height)
        number = read_cells(width, height, [&](uint32_t x, uint32_t y) { return map.data[size_t(y) * width + x]; });
    gst_buffer_unmap(buffer, &map);
    return number;
}

std::string mapping_of(const void *address)
{
    std::ifstream maps("/proc/self/maps");
    std::string line;
    uintptr_t where = reinterpret_cast<uintptr_t>(address);
    while (std::getline(maps, line)) {
        uintptr_t start = 0, end = 0;
        if (std::sscanf(line.c_str(), "%" SCNxPTR "-%" SCNxPTR, &start, &end) != 2 || where < start || where >= end)
            continue;
        // The path is the sixth column.
        std::istringstream columns(line);
        std::string column, path;
        for (int i = 0; i < 5; ++i)
            columns >> column;
        std::getline(columns, path);
        path.erase(0, path.find_first_not_of(' '));
        return path;
    }
    return "(not mapped)";
}

std::string descriptor_target(int fd)
{
    char target[PATH_MAX] = {};
    std::string link = "/proc/self/fd/" + std::to_string(fd);
    ssize_t length = readlink(link.c_str(), target, sizeof target - 1);
    return length > 0 ? std::string(target, size_t(length)) : "";
}

bool eventually(const std::function<bool()> &done)
{
    const gint64 until = g_get_monotonic_time() + 60 * G_TIME_SPAN_SECOND;
    while (!done()) {
        if (g_get_monotonic_time() > until)
            return false;
        g_usleep(1000);
    }
    return true;
}

std::string caps_field(GstCaps *caps, const char *field)
{
    const GValue *value = gst_structure_get_value(gst_caps_get_structure(caps, 0), field);
    if (!value)
        return "";
    gchar *text = gst_value_serialize(value);
    std::string result = text;
    g_free(text);
    return result;
}

guint64 stats_field(GstElement *element, const char *field)
{
    GstStructure *stats = nullptr;
    g_object_get(element, "stats", &stats, nullptr);
    guint64 value = G_MAXUINT64;
    gst_structure_get_uint64(stats, field, &value);
    gst_structure_free(stats);
    return value;
}

} // namespace zelisp_gst_test
