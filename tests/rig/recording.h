/*
 * recording.h - reading what zelisp-rig left in its folder: framesets.csv,
 * summary.json, and the frame number the simulated sensor painted into
 * every frame of a stream's recording (decoded from the Matroska files).
 */
#ifndef ZELISP_TESTS_RIG_RECORDING_H
#define ZELISP_TESTS_RIG_RECORDING_H

#include <nlohmann/json.hpp>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace rigtest {

struct CsvRow {
    uint64_t set = 0;
    int64_t set_time_ns = 0;
    double skew_us = 0;
    std::vector<std::string> missing;
    std::string stream;
    uint64_t frame = 0;
    int64_t time_ns = 0;
    double offset_us = 0;
};

// Every row of framesets.csv; fails the test on a malformed row or header.
std::vector<CsvRow> read_framesets(const std::string &path);

// The rows of each frame set, by set number.
std::map<uint64_t, std::vector<CsvRow>> by_set(const std::vector<CsvRow> &rows);

// The rows of one stream, in frame order.
std::vector<CsvRow> of_stream(const std::vector<CsvRow> &rows, const std::string &stream);

nlohmann::json read_json(const std::string &path);

struct DecodedFrame {
    std::optional<uint32_t> number; // the painted frame number, if readable
    int width = 0;
    int height = 0;
};

// Every frame of the stream's recording (<folder>/<stream>-NNNNN.mkv, file
// after file), decoded.
std::vector<DecodedFrame> decode_recording(const std::string &folder, const std::string &stream);

} // namespace rigtest

#endif
