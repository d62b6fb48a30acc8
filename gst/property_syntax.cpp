// property_syntax.cpp - parsing and printing the elements' text properties.
#include "property_syntax.h"

#include <sstream>

#include "numbers.h"
#include "resize_syntax.h"

namespace gstzelisp {
using capture_syntax::parse_unsigned;
using capture_syntax::split;

bool parse_drop(const std::string &text, DropRatio *ratio, std::string *error)
{
    if (capture_syntax::parse_drop(text, ratio))
        return true;
    *error = "drop takes TOTAL/DROP, DROP frames dropped out of every TOTAL (1 <= TOTAL <= 120, DROP < TOTAL), "
             "got '" + text + "'";
    return false;
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
    return capture_syntax::parse_resize(text, "resize", param, error);
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
    std::string bad;
    switch (capture_syntax::parse_trigger_words(words, true, trigger, &bad)) {
    case capture_syntax::TriggerRefusal::None:
        return true;
    case capture_syntax::TriggerRefusal::Shape:
        *error = "trigger takes none, or internal|external and up to three parameters, got '" + text + "'";
        return false;
    case capture_syntax::TriggerRefusal::Parameter:
        *error = "trigger: '" + bad + "' is not a parameter value";
        return false;
    }
    return false;
}

std::string format_trigger(const TriggerSetting &trigger)
{
    if (trigger.mode == TriggerSetting::None)
        return "none";
    return std::string(trigger.mode == TriggerSetting::Internal ? "internal" : "external") + " " +
           std::to_string(trigger.param[0]) + " " + std::to_string(trigger.param[1]) + " " +
           std::to_string(trigger.param[2]);
}

} // namespace gstzelisp
