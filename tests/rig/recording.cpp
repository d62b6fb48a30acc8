/*
 * recording.cpp - reading a recording back.
 */
#include "recording.h"

#include <gst/app/gstappsink.h>
#include <gst/gst.h>
#include <gst/video/video.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

#include "../tools/tool_run.h"

namespace rigtest {
namespace {

std::vector<std::string> split(const std::string &text, char separator)
{
    std::vector<std::string> parts;
    std::stringstream stream(text);
    for (std::string part; std::getline(stream, part, separator);)
        parts.push_back(part);
    if (!text.empty() && text.back() == separator)
        parts.emplace_back();
    return parts;
}

} // namespace

std::vector<CsvRow> read_framesets(const std::string &path)
{
    std::ifstream file(path);
    std::string line;
    std::vector<CsvRow> rows;
    std::getline(file, line);
    EXPECT_EQ(line, "set,set_time_ns,skew_us,missing,stream,frame,time_ns,offset_us");
    while (std::getline(file, line)) {
        std::vector<std::string> fields = split(line, ',');
        if (fields.size() != 8) {
            ADD_FAILURE() << "malformed row: " << line;
            continue;
        }
        CsvRow row;
        row.set = std::stoull(fields[0]);
        row.set_time_ns = std::stoll(fields[1]);
        row.skew_us = std::stod(fields[2]);
        if (!fields[3].empty())
            row.missing = split(fields[3], ' ');
        row.stream = fields[4];
        row.frame = std::stoull(fields[5]);
        row.time_ns = std::stoll(fields[6]);
        row.offset_us = std::stod(fields[7]);
        rows.push_back(row);
    }
    return rows;
}

std::map<uint64_t, std::vector<CsvRow>> by_set(const std::vector<CsvRow> &rows)
{
    std::map<uint64_t, std::vector<CsvRow>> sets;
    for (const CsvRow &row : rows)
        sets[row.set].push_back(row);
    return sets;
}

std::vector<CsvRow> of_stream(const std::vector<CsvRow> &rows, const std::string &stream)
{
    std::vector<CsvRow> frames;
    for (const CsvRow &row : rows)
        if (row.stream == stream)
            frames.push_back(row);
    return frames;
}

nlohmann::json read_json(const std::string &path)
{
    std::ifstream file(path);
    nlohmann::json json = nlohmann::json::parse(file, nullptr, false);
    EXPECT_FALSE(json.is_discarded()) << path << " is no JSON";
    return json;
}

namespace {

// Every frame of one Matroska file, decoded. Each file on its own (not
// through splitmuxsrc, which in GStreamer 1.22 now and then ends a file
// after its first frames).
void decode_file(const std::string &path, std::vector<DecodedFrame> *frames)
{
    std::string description = "filesrc location=\"" + path +
                              "\" ! matroskademux ! decodebin ! videoconvert ! video/x-raw,format=GRAY8 ! "
                              "appsink name=frames sync=false";
    GError *error = nullptr;
    GstElement *pipeline = gst_parse_launch(description.c_str(), &error);
    if (!pipeline) {
        ADD_FAILURE() << error->message;
        g_error_free(error);
        return;
    }
    GstElement *sink = gst_bin_get_by_name(GST_BIN(pipeline), "frames");
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    // appsink hands out nothing before it has started: wait for the
    // pipeline to preroll (decodebin links the decoder on the fly).
    gst_element_get_state(pipeline, nullptr, nullptr, 60 * GST_SECOND);
    // Bounded: a recording of a test is at most a few thousand frames.
    while (GstSample *sample = gst_app_sink_try_pull_sample(GST_APP_SINK(sink), 30 * GST_SECOND)) {
        GstVideoInfo info;
        gst_video_info_from_caps(&info, gst_sample_get_caps(sample));
        GstVideoFrame video;
        DecodedFrame frame;
        frame.width = GST_VIDEO_INFO_WIDTH(&info);
        frame.height = GST_VIDEO_INFO_HEIGHT(&info);
        if (gst_video_frame_map(&video, &info, gst_sample_get_buffer(sample), GST_MAP_READ)) {
            zelisp_tool_test::LumaImage luma;
            luma.width = uint32_t(frame.width);
            luma.height = uint32_t(frame.height);
            const auto *rows = static_cast<const uint8_t *>(GST_VIDEO_FRAME_PLANE_DATA(&video, 0));
            int stride = GST_VIDEO_FRAME_PLANE_STRIDE(&video, 0);
            for (int y = 0; y < frame.height; ++y)
                luma.luma.insert(luma.luma.end(), rows + y * stride, rows + y * stride + frame.width);
            frame.number = zelisp_tool_test::frame_number(luma);
            gst_video_frame_unmap(&video);
        }
        frames->push_back(frame);
        gst_sample_unref(sample);
    }
    GstBus *bus = gst_element_get_bus(pipeline);
    if (GstMessage *message = gst_bus_pop_filtered(bus, GST_MESSAGE_ERROR)) {
        GError *failure = nullptr;
        gst_message_parse_error(message, &failure, nullptr);
        ADD_FAILURE() << path << ": " << failure->message;
        g_error_free(failure);
        gst_message_unref(message);
    }
    gst_object_unref(bus);
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(sink);
    gst_object_unref(pipeline);
}

} // namespace

std::vector<DecodedFrame> decode_recording(const std::string &folder, const std::string &stream)
{
    gst_init(nullptr, nullptr);
    std::vector<std::string> files;
    std::regex part(std::regex_replace(stream, std::regex(R"([.])"), R"(\.)") + R"(-\d{5}\.mkv)");
    for (const auto &entry : std::filesystem::directory_iterator(folder))
        if (std::regex_match(entry.path().filename().string(), part))
            files.push_back(entry.path().string());
    std::sort(files.begin(), files.end());
    EXPECT_FALSE(files.empty()) << "no recording of " << stream << " in " << folder;
    std::vector<DecodedFrame> frames;
    for (const std::string &file : files)
        decode_file(file, &frames);
    return frames;
}

} // namespace rigtest
