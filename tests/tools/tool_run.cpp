// tool_run.cpp - starting zelisp-cam under the simulator and decoding its files.
#include "tool_run.h"

#include <gtest/gtest.h>
#include <png.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace fs = std::filesystem;

namespace zelisp_tool_test {
namespace {

std::string read_file(const fs::path &path)
{
    std::ifstream file(path, std::ios::binary);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

} // namespace

std::string test_folder()
{
    const testing::TestInfo *test = testing::UnitTest::GetInstance()->current_test_info();
    fs::path folder = fs::path(TOOL_RUNS_DIR) / (std::string(test->test_suite_name()) + "." + test->name());
    fs::remove_all(folder);
    fs::create_directories(folder);
    return folder.string();
}

ToolRun run_tool(const std::string &arguments, const std::string &config, const std::string &output)
{
    const testing::TestInfo *test = testing::UnitTest::GetInstance()->current_test_info();
    fs::path scratch = fs::path(TOOL_RUNS_DIR) / "io" / (std::string(test->test_suite_name()) + "." + test->name());
    fs::create_directories(scratch);
    std::string environment;
    if (!config.empty()) {
        std::ofstream(scratch / "sim.ini") << config;
        environment = "ZELISP_SIM_CONFIG='" + (scratch / "sim.ini").string() + "' ";
    }
    std::ofstream(scratch / "out").close();
    std::string command = environment + "'" ZELISP_SIM_RUN "' -- '" ZELISP_CAM "' " + arguments + " >'" +
                          (output.empty() ? (scratch / "out").string() : output) + "' 2>'" +
                          (scratch / "err").string() + "' </dev/null";
    int status = std::system(command.c_str());
    ToolRun run;
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    run.out = read_file(scratch / "out");
    run.err = read_file(scratch / "err");
    return run;
}

std::vector<std::string> files_in(const std::string &folder, const std::string &prefix)
{
    std::vector<std::string> files;
    for (const fs::directory_entry &entry : fs::directory_iterator(folder))
        if (entry.path().filename().string().rfind(prefix, 0) == 0)
            files.push_back(entry.path().string());
    std::sort(files.begin(), files.end());
    return files;
}

uint32_t sequence_in_name(const std::string &path)
{
    std::string stem = fs::path(path).stem().string();
    return uint32_t(std::stoul(stem.substr(stem.rfind('-') + 1)));
}

std::optional<LumaImage> read_png_luma(const std::string &path)
{
    png_image png;
    memset(&png, 0, sizeof png);
    png.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_file(&png, path.c_str()))
        return std::nullopt;
    png.format = PNG_FORMAT_RGB;
    std::vector<uint8_t> rgb(PNG_IMAGE_SIZE(png));
    if (!png_image_finish_read(&png, nullptr, rgb.data(), 0, nullptr)) {
        png_image_free(&png);
        return std::nullopt;
    }
    LumaImage image;
    image.width = png.width;
    image.height = png.height;
    image.luma.resize(size_t(png.width) * png.height);
    for (size_t i = 0; i < image.luma.size(); ++i)
        image.luma[i] = uint8_t((77u * rgb[3 * i] + 150u * rgb[3 * i + 1] + 29u * rgb[3 * i + 2]) >> 8);
    return image;
}

std::optional<LumaImage> read_raw_luma(const std::string &path, uint32_t width, uint32_t height)
{
    std::string bytes = read_file(path);
    if (bytes.size() < size_t(width) * height)
        return std::nullopt;
    LumaImage image;
    image.width = width;
    image.height = height;
    image.luma.assign(bytes.begin(), bytes.begin() + long(width) * height);
    return image;
}

std::optional<uint32_t> frame_number(const LumaImage &image)
{
    // The cell is a 48th of the width (at most a fifth of the height less
    // two rows), even; the upper row of cells starts one cell down.
    uint32_t cell = std::min(image.width / 48, (image.height - 2) / 5) & ~1u;
    if (cell < 2)
        return std::nullopt;
    auto cell_luma = [&](uint32_t x0, uint32_t y0) {
        uint32_t sum = 0;
        for (uint32_t j = 1; j <= 3; ++j)
            for (uint32_t i = 1; i <= 3; ++i)
                sum += image.luma[size_t(y0 + cell * j / 4) * image.width + x0 + cell * i / 4];
        return sum / 9;
    };
    uint32_t number = 0;
    for (uint32_t bit = 0; bit < 32; ++bit) {
        uint32_t x = cell * (bit + 1);
        bool upper = cell_luma(x, cell) >= 128;
        bool lower = cell_luma(x, 2 * cell) >= 128;
        if (upper == lower)
            return std::nullopt;
        number = number << 1 | (upper ? 1u : 0u);
    }
    return number;
}

} // namespace zelisp_tool_test
