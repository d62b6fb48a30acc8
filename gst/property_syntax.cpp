// property_syntax.cpp - parsing and printing the elements' text properties.
#include "property_syntax.h"

#include <cerrno>
#include <cstdlib>
#include <sstream>

namespace gstzelisp {
namespace {

std::vector<std::string> split(const std::string &text, const char *separators)
{
    std::vector<std::string> parts;
    std::string part;
    for (char c : text) {
        if (std::string(separators).find(c) != std::string::npos) {
            parts.push_back(part);
            part.clear();
        } else {
            part += c;
        }
    }
    parts.push_back(part);
    return parts;
}

bool parse_unsigned(const std::string &text, unsigned long long limit, unsigned long long *value)
{
    if (text.empty() || text[0] == '-' || text[0] == '+' || text[0] == ' ')
        return false;
    errno = 0;
    char *end = nullptr;
    *value = strtoull(text.c_str(), &end, 0);
    return errno == 0 && *end == '\0' && *value <= limit;
}

bool parse_numbers(const std::string &text, size_t count, uint16_t *out)
{
    std::vector<std::string> parts = split(text, ",");
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

bool parse_drop(const std::string &text, DropRatio *ratio, std::string *error)
{
    std::vector<std::string> parts = split(text, "/");
    unsigned long long total, drop;
    if (parts.size() != 2 || !parse_unsigned(parts[0], 120, &total) || !parse_unsigned(parts[1], 120, &drop) ||
        total < 1 || drop >= total) {
        *error = "drop takes TOTAL/DROP, DROP frames dropped out of every TOTAL (1 <= TOTAL <= 120, DROP < TOTAL), "
                 "got '" + text + "'";
        return false;
    }
    ratio->total = int(total);
    ratio->drop = int(drop);
    return true;
}

std::string format_drop(const DropRatio &ratio)
{
    return std::to_string(ratio.total) + "/" + std::to_string(ratio.drop);
}

bool parse_resize(const std::string &text, zelvideo::_resize_param_t *param, std::string *error)
{
    if (text.empty()) {
        *param = {};
        return true;
    }
    std::vector<std::string> steps = split(text, ":");
    uint16_t before[4], scale[2] = {0, 0}, after[4];
    if (steps.size() > 3 || !parse_numbers(steps[0], 4, before)) {
        *error = "resize takes X,Y,W,H[:SW,SH[:X,Y,W,H]], got '" + text + "'";
        return false;
    }
    if (steps.size() >= 2 && !parse_numbers(steps[1], 2, scale)) {
        *error = "resize: the scaled size is SW,SH, got '" + steps[1] + "'";
        return false;
    }
    if (steps.size() == 3) {
        if (!parse_numbers(steps[2], 4, after)) {
            *error = "resize: the second crop is X,Y,W,H, got '" + steps[2] + "'";
            return false;
        }
    } else {
        // Without a second crop the whole scaled (or cropped) image is kept.
        bool scaled = scale[0] != 0 || scale[1] != 0;
        after[0] = after[1] = 0;
        after[2] = scaled ? scale[0] : before[2];
        after[3] = scaled ? scale[1] : before[3];
    }
    *param = {};
    param->cropBefore = {before[0], before[1], before[2], before[3]};
    param->scale = {scale[0], scale[1]};
    param->cropAfter = {after[0], after[1], after[2], after[3]};
    return true;
}

std::string format_resize(const zelvideo::_resize_param_t &p)
{
    if (p.cropBefore.width == 0 && p.cropBefore.height == 0 && p.scale.width == 0 && p.scale.height == 0 &&
        p.cropAfter.width == 0 && p.cropAfter.height == 0)
        return "";
    std::ostringstream text;
    text << p.cropBefore.x << ',' << p.cropBefore.y << ',' << p.cropBefore.width << ',' << p.cropBefore.height << ':'
         << p.scale.width << ',' << p.scale.height << ':' << p.cropAfter.x << ',' << p.cropAfter.y << ','
         << p.cropAfter.width << ',' << p.cropAfter.height;
    return text.str();
}

bool parse_number_list(const std::string &text, int highest, size_t most, std::vector<int> *numbers,
                       std::string *error)
{
    std::vector<int> parsed;
    for (const std::string &part : split(text, ",")) {
        unsigned long long value;
        if (!parse_unsigned(part, unsigned(highest), &value)) {
            *error = "'" + text + "' is not a list of numbers 0.." + std::to_string(highest) + " separated by commas";
            return false;
        }
        for (int seen : parsed)
            if (seen == int(value)) {
                *error = "'" + text + "' names " + part + " twice";
                return false;
            }
        parsed.push_back(int(value));
    }
    if (parsed.size() > most) {
        *error = "'" + text + "' names more than " + std::to_string(most);
        return false;
    }
    *numbers = parsed;
    return true;
}

std::string format_number_list(const std::vector<int> &numbers)
{
    std::string text;
    for (int number : numbers)
        text += (text.empty() ? "" : ",") + std::to_string(number);
    return text;
}

bool parse_trigger(const std::string &text, TriggerSetting *trigger, std::string *error)
{
    std::vector<std::string> words;
    for (const std::string &word : split(text, " ,"))
        if (!word.empty())
            words.push_back(word);
    TriggerSetting parsed;
    if (words.empty() || (words[0] != "none" && words[0] != "internal" && words[0] != "external") ||
        words.size() > 4 || (words[0] == "none" && words.size() > 1)) {
        *error = "trigger takes none, or internal|external and up to three parameters, got '" + text + "'";
        return false;
    }
    parsed.mode = words[0] == "none"       ? TriggerSetting::None
                  : words[0] == "internal" ? TriggerSetting::Internal
                                           : TriggerSetting::External;
    for (size_t i = 1; i < words.size(); ++i) {
        unsigned long long value;
        if (!parse_unsigned(words[i], UINT32_MAX, &value)) {
            *error = "trigger: '" + words[i] + "' is not a parameter value";
            return false;
        }
        parsed.param[i - 1] = uint32_t(value);
    }
    *trigger = parsed;
    return true;
}

std::string format_trigger(const TriggerSetting &trigger)
{
    if (trigger.mode == TriggerSetting::None)
        return "none";
    return std::string(trigger.mode == TriggerSetting::Internal ? "internal" : "external") + " " +
           std::to_string(trigger.param[0]) + " " + std::to_string(trigger.param[1]) + " " +
           std::to_string(trigger.param[2]);
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
    if (interval_ == 0 || first > last)
        return 0;
    uint64_t multiples = uint64_t(last) / interval_ - (first == 0 ? 0 : (uint64_t(first) - 1) / interval_) +
                         (first == 0 ? 1 : 0);
    uint64_t span = uint64_t(last) - first + 1;
    return keep_one_ ? span - multiples : multiples;
}

} // namespace gstzelisp
