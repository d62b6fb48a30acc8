// capture_options.cpp - parsing the compound capture options.
#include "capture_options.h"

#include <cerrno>
#include <cstdlib>
#include <set>
#include <sstream>

#include "formats.h"

namespace zcam {
namespace {

std::vector<std::string> split(const std::string &text, char separator)
{
    std::vector<std::string> parts;
    std::string part;
    std::istringstream stream(text);
    while (std::getline(stream, part, separator))
        parts.push_back(part);
    if (!text.empty() && text.back() == separator)
        parts.emplace_back();
    return parts;
}

bool parse_unsigned(const std::string &text, unsigned long long limit, unsigned long long *value)
{
    if (text.empty() || text[0] == '-' || text[0] == '+')
        return false;
    errno = 0;
    char *end = nullptr;
    *value = strtoull(text.c_str(), &end, 0);
    return errno == 0 && *end == '\0' && *value <= limit;
}

// "a,b,c,d" (count numbers, each a 16-bit pixel position or size).
bool parse_numbers(const std::string &text, size_t count, uint16_t *out)
{
    std::vector<std::string> parts = split(text, ',');
    if (parts.size() != count)
        return false;
    for (size_t i = 0; i < count; ++i) {
        unsigned long long value;
        if (!parse_unsigned(parts[i], UINT16_MAX, &value))
            return false;
        out[i] = uint16_t(value);
    }
    return true;
}

} // namespace

uint32_t CaptureOptions::combination() const
{
    uint32_t mask = 0;
    for (int view : views)
        mask |= 1u << view;
    return mask;
}

bool parse_resize(const std::string &text, zelvideo::_resize_param_t *param, std::string *error)
{
    std::vector<std::string> steps = split(text, ':');
    *param = {};
    uint16_t before[4], scale[2] = {0, 0}, after[4];
    if (steps.empty() || steps.size() > 3 || !parse_numbers(steps[0], 4, before)) {
        *error = "--resize takes X,Y,W,H[:SW,SH[:X,Y,W,H]], got '" + text + "'";
        return false;
    }
    if (steps.size() >= 2 && !parse_numbers(steps[1], 2, scale)) {
        *error = "--resize: the scaled size is SW,SH, got '" + steps[1] + "'";
        return false;
    }
    if (steps.size() == 3) {
        if (!parse_numbers(steps[2], 4, after)) {
            *error = "--resize: the second crop is X,Y,W,H, got '" + steps[2] + "'";
            return false;
        }
    } else {
        bool scaled = scale[0] != 0 || scale[1] != 0;
        after[0] = after[1] = 0;
        after[2] = scaled ? scale[0] : before[2];
        after[3] = scaled ? scale[1] : before[3];
    }
    param->cropBefore = {before[0], before[1], before[2], before[3]};
    param->scale = {scale[0], scale[1]};
    param->cropAfter = {after[0], after[1], after[2], after[3]};
    return true;
}

bool parse_view_format(const std::string &text, ViewFormatRequest *request, std::string *error)
{
    *error = "--view-format takes VIEW=FOURCC:WIDTHxHEIGHT (for example 1=NV12:1280x720), got '" + text + "'";
    size_t equals = text.find('='), colon = text.find(':'), times = text.find('x', colon == std::string::npos ? 0 : colon);
    if (equals == std::string::npos || colon == std::string::npos || times == std::string::npos || colon < equals)
        return false;
    unsigned long long view, width, height;
    if (!parse_unsigned(text.substr(0, equals), 2, &view)) {
        *error = "--view-format: the view is 0, 1 or 2, got '" + text.substr(0, equals) + "'";
        return false;
    }
    std::string name = text.substr(equals + 1, colon - equals - 1);
    uint32_t fourcc = fourcc_from_name(name);
    if (fourcc == 0) {
        *error = "--view-format: '" + name + "' is not a format the tool can write; use NV12, NV21, YUYV, RGB3 or GREY";
        return false;
    }
    if (!parse_unsigned(text.substr(colon + 1, times - colon - 1), UINT16_MAX, &width) ||
        !parse_unsigned(text.substr(times + 1), UINT16_MAX, &height) || width == 0 || height == 0) {
        *error = "--view-format: the size is WIDTHxHEIGHT, each 1 to 65535, got '" + text.substr(colon + 1) + "'";
        return false;
    }
    request->view = int(view);
    request->format = {fourcc, uint32_t(width), uint32_t(height)};
    error->clear();
    return true;
}

bool parse_view_formats(const std::vector<std::string> &texts, std::vector<ViewFormatRequest> *requests,
                        std::string *error)
{
    requests->clear();
    std::set<int> seen;
    for (const std::string &text : texts) {
        ViewFormatRequest request;
        if (!parse_view_format(text, &request, error))
            return false;
        if (!seen.insert(request.view).second) {
            *error = "--view-format names view " + std::to_string(request.view) + " twice";
            return false;
        }
        requests->push_back(request);
    }
    return true;
}

std::string describe_resize(const zelvideo::_resize_param_t &p)
{
    auto crop = [](const zelvideo::_resize_crop_t &c) {
        return std::to_string(c.width) + "x" + std::to_string(c.height) + " at " + std::to_string(c.x) + "," +
               std::to_string(c.y);
    };
    std::string scale = p.scale.width == 0 && p.scale.height == 0
                            ? "no scaling"
                            : "scale to " + std::to_string(p.scale.width) + "x" + std::to_string(p.scale.height);
    return "crop " + crop(p.cropBefore) + ", " + scale + ", crop " + crop(p.cropAfter);
}

bool parse_drop(const std::string &text, DropRatio *ratio, std::string *error)
{
    std::vector<std::string> parts = split(text, '/');
    unsigned long long total, drop;
    if (parts.size() != 2 || !parse_unsigned(parts[0], 120, &total) || !parse_unsigned(parts[1], 120, &drop) ||
        total < 1 || drop >= total) {
        *error = "--drop takes T/D, D frames dropped out of every T (1 <= T <= 120, D < T), got '" + text + "'";
        return false;
    }
    ratio->total = int(total);
    ratio->drop = int(drop);
    return true;
}

bool parse_trigger(const std::vector<std::string> &words, TriggerSetting *trigger, std::string *error)
{
    *trigger = {};
    if (words.empty() || (words[0] != "internal" && words[0] != "external") || words.size() > 4) {
        *error = "--trigger takes internal|external and up to three parameters";
        return false;
    }
    trigger->external = words[0] == "external";
    uint32_t *params[3] = {&trigger->param1, &trigger->param2, &trigger->param3};
    for (size_t i = 1; i < words.size(); ++i) {
        unsigned long long value;
        if (!parse_unsigned(words[i], UINT32_MAX, &value)) {
            *error = "--trigger: '" + words[i] + "' is not a parameter value";
            return false;
        }
        *params[i - 1] = uint32_t(value);
    }
    // Checked here for cameras and groups alike: the group's trigger calls
    // answer 0 whatever the driver says, so a bad value would only show as
    // cameras that are not in step.
    const char *names[3] = {"P1", "P2", "P3"};
    const uint32_t limits[3] = {2, 7, trigger->external ? 2u : UINT32_MAX};
    for (int i = 0; i < 3; ++i) {
        if (*params[i] > limits[i]) {
            *error = std::string("--trigger ") + words[0] + ": " + names[i] + " is 0 to " + std::to_string(limits[i]) +
                     ", got " + std::to_string(*params[i]);
            return false;
        }
    }
    return true;
}

DecimationRule::DecimationRule(const DropRatio &ratio)
{
    if (ratio.drop == 0)
        return;
    int keep = ratio.total - ratio.drop;
    if (keep >= ratio.drop) {
        interval_ = uint32_t(ratio.total / ratio.drop);
    } else {
        keep_one_ = true;
        interval_ = uint32_t(ratio.total / keep);
    }
}

uint64_t DecimationRule::skipped_between(uint32_t first, uint32_t last) const
{
    if (!active() || first > last)
        return 0;
    // Multiples of the interval in [first, last].
    uint64_t multiples = uint64_t(last) / interval_ - (first == 0 ? 0 : (uint64_t(first) - 1) / interval_) +
                         (first == 0 ? 1 : 0);
    uint64_t span = uint64_t(last) - first + 1;
    return keep_one_ ? span - multiples : multiples;
}

} // namespace zcam
