/*
 * tool_run.h - running zelisp-cam on the simulated driver and reading what
 * it wrote: PNG and raw images, and the frame number the simulated sensor
 * paints into every frame.
 */
#ifndef ZELISP_TESTS_TOOL_RUN_H
#define ZELISP_TESTS_TOOL_RUN_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace zelisp_tool_test {

struct ToolRun {
    int status = -1; // exit status of zelisp-cam
    std::string out;
    std::string err;
};

// A folder of its own for the running test, emptied first.
std::string test_folder();

// Runs "zelisp-sim-run -- zelisp-cam <arguments>" in the test's folder, with
// the simulator configured by `config` (INI text) when it is not empty.
// Standard output goes to `output` when given (`out` stays empty then).
ToolRun run_tool(const std::string &arguments, const std::string &config = "", const std::string &output = "");

// Files of a folder whose names start with `prefix`, sorted.
std::vector<std::string> files_in(const std::string &folder, const std::string &prefix = "");

// The sequence number zelisp-cam put into a file name (cam0-view2-000123.png).
uint32_t sequence_in_name(const std::string &path);

struct LumaImage {
    uint32_t width = 0;
    uint32_t height = 0;
    std::vector<uint8_t> luma;
};

// A PNG decoded to 8-bit RGB and reduced to luma; nullopt when it does not decode.
std::optional<LumaImage> read_png_luma(const std::string &path);
// The luma plane at the start of a raw NV12/NV21/GREY file.
std::optional<LumaImage> read_raw_luma(const std::string &path, uint32_t width, uint32_t height);

// The frame number the simulated sensor paints: 32 cells in two
// complementary rows near the top of the image, most significant bit first.
std::optional<uint32_t> frame_number(const LumaImage &image);

} // namespace zelisp_tool_test

#endif
