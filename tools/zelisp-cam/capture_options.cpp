// capture_options.cpp - parsing the compound capture options.
#include "capture_options.h"

#include <set>

#include "formats.h"
#include "numbers.h"
#include "resize_syntax.h"
#include "trigger_syntax.h"

namespace zcam {
using capture_syntax::parse_unsigned;

uint32_t CaptureOptions::combination() const
{
    uint32_t mask = 0;
    for (int view : views)
        mask |= 1u << view;
    return mask;
}

bool parse_resize(const std::string &text, zelvideo::_resize_param_t *param, std::string *error)
{
    if (!capture_syntax::parse_resize(text, "--resize", param, error))
        return false;
    if (const char *step = capture_syntax::odd_step(*param)) {
        *error = "--resize " + text + ": " + step + " has an odd number; the ISP crops and scales in pixel pairs, "
                 "so every position and size is even";
        return false;
    }
    return true;
}

bool parse_view_format(const std::string &text, ViewFormatRequest *request, std::string *error)
{
    *error = "--view-format takes VIEW=FOURCC:WIDTHxHEIGHT (for example 1=NV12:1280x720), got '" + text + "'";
    size_t equals = text.find('='), colon = text.find(':'), times = text.find('x', colon == std::string::npos ? 0 : colon);
    if (equals == std::string::npos || colon == std::string::npos || times == std::string::npos || colon < equals)
        return false;
    unsigned long long view, width, height;
    if (!parse_unsigned(text.substr(0, equals), ISP_VIEW_COUNT - 1, &view)) {
        *error = "--view-format: the view is 0, 1 or 2, got '" + text.substr(0, equals) + "'";
        return false;
    }
    std::string name = text.substr(equals + 1, colon - equals - 1);
    uint32_t fourcc = fourcc_from_name(name);
    if (fourcc == 0) {
        *error = "--view-format: '" + name + "' is not a format the tool can write; use NV12, NV21, YUYV, RGB3 or GREY";
        return false;
    }
    if (!parse_unsigned(text.substr(colon + 1, times - colon - 1), ISP_VIEW_SIZE_MAX, &width) ||
        !parse_unsigned(text.substr(times + 1), ISP_VIEW_SIZE_MAX, &height) || width == 0 || height == 0) {
        *error = "--view-format: the size is WIDTHxHEIGHT, each 1 to " + std::to_string(ISP_VIEW_SIZE_MAX) +
                 ", got '" + text.substr(colon + 1) + "'";
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
    if (!capture_syntax::parse_drop(text, ratio)) {
        *error = "--drop takes T/D, D frames dropped out of every T (1 <= T <= 120, D < T), got '" + text + "'";
        return false;
    }
    if (!capture_syntax::one_frame_in_n(*ratio)) {
        *error = "--drop " + text + ": the library drops one frame in N or keeps one in N, so T must be a multiple "
                 "of D, or of T - D when more than half are dropped (30/10 drops every third frame, 30/20 keeps "
                 "every third)";
        return false;
    }
    return true;
}

bool parse_trigger(const std::vector<std::string> &words, TriggerSetting *trigger, std::string *error)
{
    *trigger = {};
    capture_syntax::TriggerSetting parsed;
    std::string bad;
    switch (capture_syntax::parse_trigger_words(words, false, &parsed, &bad)) {
    case capture_syntax::TriggerRefusal::None:
        break;
    case capture_syntax::TriggerRefusal::Shape:
        *error = "--trigger takes internal|external and up to three parameters";
        return false;
    case capture_syntax::TriggerRefusal::Parameter:
        *error = "--trigger: '" + bad + "' is not a parameter value";
        return false;
    }
    trigger->external = parsed.mode == capture_syntax::TriggerSetting::External;
    uint32_t *params[3] = {&trigger->param1, &trigger->param2, &trigger->param3};
    for (int i = 0; i < 3; ++i)
        *params[i] = parsed.param[i];
    // Checked here for cameras and groups alike: the group's trigger calls
    // answer 0 whatever the driver says, so a bad value would only show as
    // cameras that are not in step.
    const char *names[3] = {"P1", "P2", "P3"};
    const uint32_t limits[3] = {ISP_TRIGGER_PARAM1_MAX, ISP_TRIGGER_PARAM2_MAX,
                                trigger->external ? uint32_t(ISP_EXTERNAL_PARAM3_MAX) : UINT32_MAX};
    for (int i = 0; i < 3; ++i) {
        if (*params[i] > limits[i]) {
            *error = std::string("--trigger ") + words[0] + ": " + names[i] + " is 0 to " + std::to_string(limits[i]) +
                     ", got " + std::to_string(*params[i]);
            return false;
        }
    }
    return true;
}

} // namespace zcam
