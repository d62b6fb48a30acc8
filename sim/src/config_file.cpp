// config_file.cpp - the simulator's configuration file: an INI file (read
// with libinih) that describes the simulated board for programs run under
// LD_PRELOAD or zelisp-sim-run, where no test code can call the API:
//
//   [cameras]            present = 0,1,2,3
//   [camera 2]           fps, view0..view2 ("NV12 1920x1080"), sensor,
//                        supported_combination, max_buffers, mode, source,
//                        noise, drop_percent, error_every, disconnect_after,
//                        start values of the controls
//   [node /dev/video5]   kind, open_errno, close_errno
//   [platform]           valid_camera_count, trigger_mode
//   [board]              clock_offset_ms, clock_drift_ppm, trigger_line,
//                        trigger_delay_us
//   [trigger_line NAME]  fps, phase_us
//
// The whole file is checked before anything is applied, so a file with an
// error changes nothing; the error names the file and the line.
#include <ini.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/stat.h>
#include <unistd.h>

#include "board_state.h"
#include "control_table.h"
#include "scene_source.h"
#include "sim_internal.h"

namespace zsim {

namespace {

constexpr int kCameras = 12;
constexpr uint32_t kMaxFps = 240;
constexpr uint32_t kMaxBuffers = 32;
constexpr uint32_t kMaxNoise = 64;
constexpr uint32_t kMaxDimension = 65535; // the driver reports view sizes in 16-bit words
constexpr size_t kMaxLineLength = 200;     // libinih's line buffer holds 199 characters
constexpr off_t kMaxFileSize = 1 << 20;    // a board description is a few hundred bytes
constexpr int64_t kMaxClockOffsetNs = 86400000000000; // a day
constexpr int64_t kMaxClockDriftPpb = 1000000;        // 1000 ppm
constexpr int64_t kMaxLineMilliHz = 1000000;          // 1000 pulses per second
constexpr int64_t kMaxDelayNs = 1000000000;           // a second

struct CameraPlan {
    bool configured = false;
    int line = 0; // of the section header
    CameraConfig config;
    bool has_mode = false;
    FrameMode mode = FrameMode::FreeRunning;
    int view_line[3] = {0, 0, 0};
    std::vector<std::pair<uint32_t, int32_t>> controls; // start values, in file order
};

struct NodePlan {
    std::string path;
    bool has_kind = false;
    NodeKind kind = NodeKind::CharDevice;
    bool has_open_errno = false;
    int open_errno = 0;
    bool has_close_errno = false;
    int close_errno = 0;
};

// A [trigger_line NAME] section.
struct LinePlan {
    std::string name;
    int line = 0; // of the section header
    uint64_t period_ns = 0;
    uint64_t phase_ns = 0;
    int phase_line = 0;
};

struct Plan {
    bool has_present = false;
    bool present[kCameras] = {};
    CameraPlan cameras[kCameras];
    std::vector<NodePlan> nodes;
    bool has_valid_count = false;
    int valid_count = -1;
    bool has_clock = false;
    BoardClock clock;
    bool has_trigger_mode = false;
    TriggerMode trigger_mode = TriggerMode::None;
    TriggerLine line; // the name only, until the file has been read
    int line_key_line = 0;
    int delay_key_line = 0;
    std::vector<LinePlan> lines;
};

enum class Section { None, Cameras, Camera, Node, Platform, Board, Line };

struct Parser {
    FILE *file = nullptr;
    int line = 0;
    std::string directory; // of the file: relative sources are found from there
    Section section = Section::None;
    std::string section_name; // as the header named it, for messages and duplicates
    int camera = -1; // of a [camera N] section
    std::map<std::string, int> keys_seen; // "section\nkey" -> the line that set it
    std::string error; // first error, without its location
    int error_line = 0;
    Plan plan;

    bool fail(const std::string &message)
    {
        if (error.empty()) {
            error = message;
            error_line = line;
        }
        return false;
    }
};

std::string trim(const std::string &text)
{
    const size_t first = text.find_first_not_of(" \t\r\n");
    if (first == std::string::npos)
        return "";
    return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

bool parse_uint(const std::string &text, uint32_t max, uint32_t *value)
{
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos || text.size() > 10)
        return false;
    const unsigned long long parsed = strtoull(text.c_str(), nullptr, 10);
    if (parsed > max)
        return false;
    *value = uint32_t(parsed);
    return true;
}

// A decimal number ("-12.5") as a whole number of 10^-decimals units
// (12.5 ms with 6 decimals: 12500000 ns), within -limit..limit units.
bool parse_fixed(const std::string &text, int decimals, int64_t limit, int64_t *value)
{
    const bool negative = !text.empty() && text[0] == '-';
    const std::string digits = text.substr(negative || (!text.empty() && text[0] == '+') ? 1 : 0);
    const size_t point = digits.find('.');
    const std::string whole = digits.substr(0, point);
    const std::string fraction = point == std::string::npos ? "" : digits.substr(point + 1);
    if ((whole.empty() && fraction.empty()) || whole.size() > 12 || int(fraction.size()) > decimals ||
        (whole + fraction).find_first_not_of("0123456789") != std::string::npos ||
        (point != std::string::npos && fraction.empty()))
        return false;
    int64_t units = whole.empty() ? 0 : std::stoll(whole);
    for (int i = 0; i < decimals; ++i)
        units = units * 10 + (i < int(fraction.size()) ? fraction[size_t(i)] - '0' : 0);
    if (units > limit)
        return false;
    *value = negative ? -units : units;
    return true;
}

bool parse_size(const std::string &text, uint32_t *width, uint32_t *height)
{
    const size_t x = text.find('x');
    return x != std::string::npos && parse_uint(text.substr(0, x), kMaxDimension, width) &&
           parse_uint(text.substr(x + 1), kMaxDimension, height) && *width > 0 && *height > 0;
}

bool parse_fourcc(const std::string &text, uint32_t *fourcc)
{
    static const struct {
        const char *name;
        uint32_t fourcc;
    } kFormats[] = {{"NV12", kNV12}, {"NV21", kNV21}, {"YUYV", kYUYV},
                    {"RGB3", kRGB24}, {"RGB24", kRGB24}, {"GREY", kGREY}};
    for (const auto &format : kFormats) {
        if (text == format.name) {
            *fourcc = format.fourcc;
            return true;
        }
    }
    return false;
}

// "NV12 1920x1080"
bool parse_view(const std::string &text, ViewFormat *view)
{
    const size_t blank = text.find_first_of(" \t");
    if (blank == std::string::npos)
        return false;
    ViewFormat parsed{};
    if (!parse_fourcc(text.substr(0, blank), &parsed.fourcc) ||
        !parse_size(trim(text.substr(blank)), &parsed.width, &parsed.height))
        return false;
    // Chroma is shared by pixel pairs (and line pairs) in these formats.
    if (parsed.fourcc != kGREY && parsed.fourcc != kRGB24 && (parsed.width % 2 || parsed.height % 2))
        return false;
    *view = parsed;
    return true;
}

// An errno by its name ("EACCES") or number; 0 for none.
bool parse_errno(const std::string &text, int *err)
{
    uint32_t number;
    if (parse_uint(text, 4095, &number)) {
        *err = int(number);
        return true;
    }
    for (int candidate = 1; candidate < 4096; ++candidate) {
        const char *name = strerrorname_np(candidate);
        if (name && text == name) {
            *err = candidate;
            return true;
        }
    }
    return false;
}

bool parse_kind(const std::string &text, NodeKind *kind)
{
    static const struct {
        const char *name;
        NodeKind kind;
    } kKinds[] = {{"char", NodeKind::CharDevice},
                  {"regular", NodeKind::RegularFile},
                  {"directory", NodeKind::Directory},
                  {"missing", NodeKind::Missing}};
    for (const auto &each : kKinds) {
        if (text == each.name) {
            *kind = each.kind;
            return true;
        }
    }
    return false;
}

bool valid_node_path(const std::string &path)
{
    if (path == "/dev/isp_misc")
        return true;
    uint32_t node;
    return path.compare(0, 10, "/dev/video") == 0 && parse_uint(path.substr(10), 23, &node) &&
           path.size() <= 12;
}

bool valid_line_name(const std::string &name)
{
    return !name.empty() && name.size() <= 64 &&
           name.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-") ==
               std::string::npos;
}

// ------------------------------------------------------------- sections

bool begin_section(Parser *parser, const std::string &name)
{
    parser->section = Section::None;
    parser->section_name = name;
    if (name == "cameras") {
        parser->section = Section::Cameras;
    } else if (name == "platform") {
        parser->section = Section::Platform;
    } else if (name == "board") {
        parser->section = Section::Board;
    } else if (name.compare(0, 13, "trigger_line ") == 0) {
        const std::string line = trim(name.substr(13));
        if (!valid_line_name(line))
            return parser->fail("trigger line name in [" + name + "] must be letters, digits, '.', '-' or '_'");
        parser->section = Section::Line;
        parser->plan.lines.push_back(LinePlan{});
        parser->plan.lines.back().name = line;
        parser->plan.lines.back().line = parser->line;
    } else if (name.compare(0, 7, "camera ") == 0) {
        uint32_t camera;
        if (!parse_uint(trim(name.substr(7)), kCameras - 1, &camera))
            return parser->fail("camera number in [" + name + "] must be 0 to 11");
        parser->section = Section::Camera;
        parser->section_name = "camera " + std::to_string(camera); // [camera 02] is [camera 2]
        parser->camera = int(camera);
        CameraPlan &plan = parser->plan.cameras[camera];
        if (!plan.configured) {
            plan.configured = true;
            plan.line = parser->line;
        }
    } else if (name.compare(0, 5, "node ") == 0) {
        const std::string path = trim(name.substr(5));
        if (!valid_node_path(path))
            return parser->fail("no simulated node " + path + " (/dev/video0../dev/video23 or /dev/isp_misc)");
        parser->section = Section::Node;
        parser->plan.nodes.push_back(NodePlan{});
        parser->plan.nodes.back().path = path;
    } else {
        return parser->fail("unknown section [" + name + "]");
    }
    return true;
}

// libinih calls its handler only for keys, so the reader notices the
// section headers (empty sections count too) and the line numbers. It reads
// whole lines itself: a line too long for libinih's buffer would otherwise
// be split, and the error would name a line the file does not have.
char *read_line(char *text, int size, void *stream)
{
    auto *parser = static_cast<Parser *>(stream);
    std::string got;
    int c;
    while ((c = getc(parser->file)) != EOF && c != '\n')
        if (got.size() < kMaxLineLength)
            got += char(c);
    if (c == EOF && got.empty())
        return nullptr;
    ++parser->line;
    // Editors on other systems start UTF-8 files with a byte-order mark.
    if (parser->line == 1 && got.compare(0, 3, "\xEF\xBB\xBF") == 0)
        got.erase(0, 3);
    if (got.size() >= kMaxLineLength) {
        parser->fail("line of " + std::to_string(kMaxLineLength) + " characters or more");
        got.clear();
    }
    got.resize(std::min(got.size(), size_t(size - 1)));
    std::memcpy(text, got.c_str(), got.size() + 1);
    const std::string line = trim(got);
    const size_t end = line.find(']');
    if (line.size() > 1 && line[0] == '[' && end != std::string::npos)
        begin_section(parser, trim(line.substr(1, end - 1)));
    return text;
}

// A configuration is a small regular file. A directory, a device that
// never ends (/dev/zero, /dev/urandom) or a FIFO that blocks would stop
// the program before its main(); they are refused before reading.
FILE *open_config(const std::string &path, std::string *problem)
{
    int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        *problem = std::string("cannot open: ") + strerror(errno);
        return nullptr;
    }
    struct stat st;
    if (fstat(fd, &st) < 0)
        *problem = std::string("cannot read: ") + strerror(errno);
    else if (S_ISDIR(st.st_mode))
        *problem = "is a directory, not a configuration file";
    else if (!S_ISREG(st.st_mode))
        *problem = "is not a regular file";
    else if (st.st_size > kMaxFileSize)
        *problem = "is larger than " + std::to_string(kMaxFileSize / 1024) + " KiB";
    FILE *file = problem->empty() ? fdopen(fd, "r") : nullptr;
    if (!file) {
        if (problem->empty())
            *problem = std::string("cannot read: ") + strerror(errno);
        close(fd);
    }
    return file;
}

// ----------------------------------------------------------------- keys

// Controls whose start value a camera section may give, by the names
// zelisp-cam uses for them.
const struct {
    const char *key;
    uint32_t id;
} kControlKeys[] = {
    {"brightness", V4L2_CID_BRIGHTNESS},
    {"contrast", V4L2_CID_CONTRAST},
    {"saturation", V4L2_CID_SATURATION},
    {"hue", V4L2_CID_HUE},
    {"gamma", V4L2_CID_GAMMA},
    {"sharpness", V4L2_CID_SHARPNESS},
    {"awb", V4L2_CID_AUTO_WHITE_BALANCE},
    {"aec", V4L2_CID_EXPOSURE_AUTO},
    {"luma_denoise", detail::kCidLumaDenoise},
    {"chroma_denoise", detail::kCidChromaDenoise},
};

bool control_key(CameraPlan *plan, const std::string &key, const std::string &value, std::string *error)
{
    for (const auto &each : kControlKeys) {
        if (key != each.key)
            continue;
        const detail::ControlDef *control = detail::find_control(each.id);
        char *end = nullptr;
        errno = 0;
        const long long number = value.empty() ? 0 : strtoll(value.c_str(), &end, 0);
        if (value.empty() || *end || errno || number < control->minimum || number > control->maximum) {
            *error = "bad value '" + value + "' for " + key + ": " + std::to_string(control->minimum) + " to " +
                     std::to_string(control->maximum);
            return true;
        }
        plan->controls.emplace_back(each.id, int32_t(number));
        return true;
    }
    return false;
}

bool camera_key(Parser *parser, const std::string &key, const std::string &value)
{
    CameraPlan &plan = parser->plan.cameras[parser->camera];
    CameraConfig &config = plan.config;
    const std::string bad = "bad value '" + value + "' for " + key + ": ";
    if (key == "fps") {
        if (!parse_uint(value, kMaxFps, &config.fps) || config.fps == 0)
            return parser->fail(bad + "frames per second, 1 to 240");
    } else if (key == "view0" || key == "view1" || key == "view2") {
        const int view = key[4] - '0';
        if (!parse_view(value, &config.views[view]))
            return parser->fail(bad + "expected FORMAT WIDTHxHEIGHT, FORMAT one of NV12 NV21 YUYV RGB3 GREY"
                                      " (even sizes for NV12, NV21, YUYV)");
        plan.view_line[view] = parser->line;
    } else if (key == "sensor") {
        if (!parse_size(value, &config.sensor_width, &config.sensor_height))
            return parser->fail(bad + "expected WIDTHxHEIGHT");
    } else if (key == "supported_combination") {
        if (!parse_uint(value, 7, &config.supported_combination))
            return parser->fail(bad + "a view mask, 0 to 7");
    } else if (key == "max_buffers") {
        if (!parse_uint(value, kMaxBuffers, &config.max_buffers) || config.max_buffers == 0)
            return parser->fail(bad + "1 to 32");
    } else if (key == "source") {
        std::string error;
        config.source = value.empty() || value[0] == '/' ? value : parser->directory + value;
        if (value.empty() || !detail::load_scene(config.source, &error))
            return parser->fail("bad source '" + value + "': " + (value.empty() ? "expected a path" : error));
    } else if (key == "noise") {
        if (value == "none")
            config.noise = 0;
        else if (!parse_uint(value, kMaxNoise, &config.noise))
            return parser->fail(bad + "none, or a standard deviation 0 to 64");
    } else if (key == "drop_percent") {
        if (!parse_uint(value, 100, &config.drop_percent))
            return parser->fail(bad + "a percentage of frames, 0 to 100");
    } else if (key == "error_every" || key == "disconnect_after") {
        if (!parse_uint(value, UINT32_MAX, key == "error_every" ? &config.error_every : &config.disconnect_after))
            return parser->fail(bad + "a number of frames, 0 for never");
    } else if (key == "mode") {
        if (value != "scripted" && value != "free")
            return parser->fail(bad + "scripted or free");
        plan.has_mode = true;
        plan.mode = value == "scripted" ? FrameMode::Scripted : FrameMode::FreeRunning;
    } else if (std::string error; control_key(&plan, key, value, &error)) {
        if (!error.empty())
            return parser->fail(error);
    } else {
        return parser->fail("unknown key '" + key + "' in [camera " + std::to_string(parser->camera) + "]");
    }
    return true;
}

bool present_key(Parser *parser, const std::string &key, const std::string &value)
{
    if (key != "present")
        return parser->fail("unknown key '" + key + "' in [cameras]");
    Plan &plan = parser->plan;
    plan.has_present = true;
    std::fill(plan.present, plan.present + kCameras, false);
    if (value.empty() || value == "none")
        return true;
    size_t start = 0;
    while (start <= value.size()) {
        const size_t comma = std::min(value.find(',', start), value.size());
        uint32_t camera;
        if (!parse_uint(trim(value.substr(start, comma - start)), kCameras - 1, &camera))
            return parser->fail("bad value '" + value + "' for present: camera numbers 0 to 11, separated by commas");
        plan.present[camera] = true;
        start = comma + 1;
    }
    return true;
}

bool node_key(Parser *parser, const std::string &key, const std::string &value)
{
    NodePlan &node = parser->plan.nodes.back();
    const std::string bad = "bad value '" + value + "' for " + key + ": ";
    if (key == "kind") {
        node.has_kind = parse_kind(value, &node.kind);
        if (!node.has_kind)
            return parser->fail(bad + "char, regular, directory or missing");
    } else if (key == "open_errno" || key == "close_errno") {
        int *err = key == "open_errno" ? &node.open_errno : &node.close_errno;
        if (!parse_errno(value, err))
            return parser->fail(bad + "an errno name such as EACCES, or a number");
        (key == "open_errno" ? node.has_open_errno : node.has_close_errno) = true;
    } else {
        return parser->fail("unknown key '" + key + "' in [node " + node.path + "]");
    }
    return true;
}

bool trigger_mode_key(Parser *parser, const std::string &value)
{
    static const struct {
        const char *name;
        TriggerMode mode;
    } kModes[] = {{"none", TriggerMode::None}, {"internal", TriggerMode::Internal}, {"external", TriggerMode::External}};
    for (const auto &each : kModes) {
        if (value == each.name) {
            parser->plan.has_trigger_mode = true;
            parser->plan.trigger_mode = each.mode;
            return true;
        }
    }
    return parser->fail("bad value '" + value + "' for trigger_mode: none, internal or external");
}

bool platform_key(Parser *parser, const std::string &key, const std::string &value)
{
    uint32_t count;
    if (key == "trigger_mode")
        return trigger_mode_key(parser, value);
    if (key != "valid_camera_count")
        return parser->fail("unknown key '" + key + "' in [platform]");
    if (value == "auto") {
        count = uint32_t(-1);
    } else if (!parse_uint(value, INT32_MAX, &count)) {
        return parser->fail("bad value '" + value + "' for valid_camera_count: a count, or auto");
    }
    parser->plan.has_valid_count = true;
    parser->plan.valid_count = int(count);
    return true;
}

bool board_key(Parser *parser, const std::string &key, const std::string &value)
{
    Plan &plan = parser->plan;
    const std::string bad = "bad value '" + value + "' for " + key + ": ";
    int64_t number;
    if (key == "clock_offset_ms") {
        if (!parse_fixed(value, 6, kMaxClockOffsetNs, &number))
            return parser->fail(bad + "milliseconds, -86400000 to 86400000 (a day), to the nanosecond");
        plan.clock.offset_ns = number;
    } else if (key == "clock_drift_ppm") {
        if (!parse_fixed(value, 3, kMaxClockDriftPpb, &number))
            return parser->fail(bad + "parts per million, -1000 to 1000, to the thousandth");
        plan.clock.drift_ppb = int32_t(number);
    } else if (key == "trigger_line") {
        if (!valid_line_name(value))
            return parser->fail(bad + "a line name: letters, digits, '.', '-' or '_'");
        plan.line.name = value;
        plan.line_key_line = parser->line;
        return true;
    } else if (key == "trigger_delay_us") {
        if (!parse_fixed(value, 3, kMaxDelayNs, &number) || number < 0)
            return parser->fail(bad + "microseconds, 0 to 1000000, to the nanosecond");
        plan.line.delay_ns = uint64_t(number);
        plan.delay_key_line = parser->line;
        return true;
    } else {
        return parser->fail("unknown key '" + key + "' in [board]");
    }
    plan.has_clock = true;
    return true;
}

bool line_key(Parser *parser, const std::string &key, const std::string &value)
{
    LinePlan &line = parser->plan.lines.back();
    const std::string bad = "bad value '" + value + "' for " + key + ": ";
    int64_t number;
    if (key == "fps") {
        if (!parse_fixed(value, 3, kMaxLineMilliHz, &number) || number <= 0)
            return parser->fail(bad + "pulses per second, 0.001 to 1000, to the thousandth");
        line.period_ns = uint64_t((1000000000000 + number / 2) / number);
    } else if (key == "phase_us") {
        if (!parse_fixed(value, 3, INT64_MAX / 1000, &number) || number < 0)
            return parser->fail(bad + "microseconds from 0, to the nanosecond");
        line.phase_ns = uint64_t(number);
        line.phase_line = parser->line;
    } else {
        return parser->fail("unknown key '" + key + "' in [trigger_line " + line.name + "]");
    }
    return true;
}

// A key given twice in one section (or in two sections of the same name)
// is a mistake whichever value was meant: neither wins.
bool first_time(Parser *parser, const std::string &key)
{
    const auto [seen, inserted] = parser->keys_seen.emplace(parser->section_name + "\n" + key, parser->line);
    if (inserted)
        return true;
    return parser->fail("duplicate key '" + key + "' in [" + parser->section_name + "], first given on line " +
                        std::to_string(seen->second));
}

int on_key(void *user, const char *, const char *name, const char *value)
{
    auto *parser = static_cast<Parser *>(user);
    const std::string key = trim(name);
    const std::string text = trim(value);
    if (parser->section != Section::None && !first_time(parser, key))
        return 0;
    switch (parser->section) {
    case Section::Cameras:
        return present_key(parser, key, text);
    case Section::Camera:
        return camera_key(parser, key, text);
    case Section::Node:
        return node_key(parser, key, text);
    case Section::Platform:
        return platform_key(parser, key, text);
    case Section::Board:
        return board_key(parser, key, text);
    case Section::Line:
        return line_key(parser, key, text);
    case Section::None:
        break;
    }
    // Keys before any section, or in a section already refused.
    return parser->error.empty() ? parser->fail("key '" + key + "' outside a known section") : 0;
}

// The board's trigger line must be described, with a rate, and its phase
// must fall within one period; the description becomes the board's line.
bool check_line(Parser *parser)
{
    Plan &plan = parser->plan;
    for (const LinePlan &line : plan.lines) {
        parser->line = line.line;
        if (!line.period_ns)
            return parser->fail("[trigger_line " + line.name + "] needs fps, its pulses per second");
        parser->line = line.phase_line;
        if (line.phase_ns >= line.period_ns)
            return parser->fail("phase_us of [trigger_line " + line.name + "] must be less than its period, " +
                                std::to_string(line.period_ns / 1000) + " us");
    }
    if (plan.line.name.empty() && plan.delay_key_line) {
        parser->line = plan.delay_key_line;
        return parser->fail("trigger_delay_us without a trigger_line the delay would apply to");
    }
    if (plan.line.name.empty())
        return true;
    for (const LinePlan &line : plan.lines) {
        if (line.name != plan.line.name)
            continue;
        plan.line.period_ns = line.period_ns;
        plan.line.phase_ns = line.phase_ns;
        return true;
    }
    parser->line = plan.line_key_line;
    return parser->fail("trigger line '" + plan.line.name + "' has no [trigger_line " + plan.line.name + "] section");
}

// Checks that need the whole file: a configured camera must be present,
// and its views must fit its sensor.
bool check_plan(Parser *parser)
{
    if (!check_line(parser))
        return false;
    const Plan &plan = parser->plan;
    for (int camera = 0; camera < kCameras; ++camera) {
        const CameraPlan &each = plan.cameras[camera];
        if (!each.configured)
            continue;
        parser->line = each.line;
        if (plan.has_present && !plan.present[camera])
            return parser->fail("[camera " + std::to_string(camera) + "] is not listed in [cameras] present");
        for (int view = 0; view < 3; ++view) {
            const ViewFormat &format = each.config.views[view];
            if (format.width <= each.config.sensor_width && format.height <= each.config.sensor_height)
                continue;
            parser->line = each.view_line[view] ? each.view_line[view] : each.line;
            return parser->fail("view" + std::to_string(view) + " " + std::to_string(format.width) + "x" +
                                std::to_string(format.height) + " of camera " + std::to_string(camera) +
                                " is larger than its sensor " + std::to_string(each.config.sensor_width) +
                                "x" + std::to_string(each.config.sensor_height));
        }
    }
    return true;
}

void apply(const Plan &plan)
{
    if (plan.has_present) {
        for (int camera = 0; camera < kCameras; ++camera) {
            if (!plan.present[camera])
                remove_camera(camera);
            else if (!plan.cameras[camera].configured)
                set_camera(camera, CameraConfig{});
        }
    }
    for (int camera = 0; camera < kCameras; ++camera) {
        const CameraPlan &each = plan.cameras[camera];
        if (!each.configured)
            continue;
        set_camera(camera, each.config);
        // The start values are the board's at its start: a process that
        // joins a running board finds the values as others left them.
        for (const auto &control : each.controls)
            if (!detail::adopting_board())
                set_control_value(camera, control.first, control.second);
        if (each.has_mode) {
            set_frame_mode(camera, each.mode);
            set_frame_mode(camera + kCameras, each.mode);
        }
    }
    if (plan.has_valid_count)
        set_valid_camera_count(plan.valid_count);
    if (plan.has_clock)
        set_board_clock(plan.clock);
    if (!plan.line.name.empty())
        set_trigger_line(plan.line);
    if (plan.has_trigger_mode && !detail::adopting_board())
        set_trigger_mode(plan.trigger_mode);
    // Node settings last: adding a camera makes its nodes character devices.
    for (const NodePlan &node : plan.nodes) {
        if (node.has_kind)
            set_node_kind(node.path, node.kind);
        if (node.has_open_errno)
            set_open_errno(node.path, node.open_errno);
        if (node.has_close_errno)
            set_close_errno(node.path, node.close_errno);
    }
}

} // namespace

bool load_config(const std::string &path, std::string *error)
{
    Parser parser;
    const size_t slash = path.rfind('/');
    parser.directory = slash == std::string::npos ? "" : path.substr(0, slash + 1);
    std::string problem;
    parser.file = open_config(path, &problem);
    if (!parser.file) {
        if (error)
            *error = path + ": " + problem;
        return false;
    }
    const int result = ini_parse_stream(read_line, &parser, on_key, &parser);
    fclose(parser.file);
    // libinih reports the first line it refused: a key our handler refused,
    // or a line it could not read at all.
    if (result > 0 && (parser.error.empty() || result < parser.error_line)) {
        parser.error = "syntax error (expected [section] or key = value)";
        parser.error_line = result;
    }
    if (result < 0 && parser.error.empty())
        parser.fail("out of memory");
    if (parser.error.empty())
        check_plan(&parser);
    if (!parser.error.empty()) {
        if (error)
            *error = path + ":" + std::to_string(parser.error_line) + ": " + parser.error;
        return false;
    }
    apply(parser.plan);
    return true;
}

} // namespace zsim
