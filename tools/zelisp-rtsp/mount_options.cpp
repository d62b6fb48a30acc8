/*
 * mount_options.cpp - reading the group, trigger and size options.
 */
#include "mount_options.h"

#include <algorithm>
#include <cstdlib>
#include <sstream>

#include "trigger_syntax.h"

namespace zrtsp {
namespace {

bool parse_dimension(const std::string &text, int *value)
{
    if (text.empty() || text.size() > 4 || text.find_first_not_of("0123456789") != std::string::npos)
        return false;
    *value = std::atoi(text.c_str());
    // Encoders and the ISP take even sizes (4:2:0 chroma is half size).
    return *value >= 16 && *value <= 8192 && *value % 2 == 0;
}

bool valid_mount_name(const std::string &mount)
{
    if (mount == "group")
        return true;
    if (mount.size() < 4 || mount.size() > 5 || mount.compare(0, 3, "cam") != 0)
        return false;
    std::string number = mount.substr(3);
    return number.find_first_not_of("0123456789") == std::string::npos && std::atoi(number.c_str()) <= 11 &&
           (number.size() == 1 || number[0] != '0');
}

} // namespace

bool parse_size_option(const std::string &text, std::map<std::string, StreamSize> *sizes, std::string *error)
{
    size_t equals = text.find('=');
    std::string mount = equals == std::string::npos ? "" : text.substr(0, equals);
    std::string size = equals == std::string::npos ? text : text.substr(equals + 1);
    size_t x = size.find('x');
    StreamSize parsed;
    if ((equals != std::string::npos && !valid_mount_name(mount)) || x == std::string::npos ||
        !parse_dimension(size.substr(0, x), &parsed.width) || !parse_dimension(size.substr(x + 1), &parsed.height)) {
        *error = "--size takes [MOUNT=]WIDTHxHEIGHT, MOUNT camN or group, even sizes 16..8192, got '" + text + "'";
        return false;
    }
    (*sizes)[mount] = parsed;
    return true;
}

bool parse_trigger_option(const std::string &text, std::string *trigger, std::string *error)
{
    std::string blanks = text;
    std::replace(blanks.begin(), blanks.end(), ',', ' ');
    std::istringstream stream(blanks);
    std::vector<std::string> words;
    for (std::string word; stream >> word;)
        words.push_back(word);
    capture_syntax::TriggerSetting setting;
    std::string bad;
    if (capture_syntax::parse_trigger_words(words, true, &setting, &bad) != capture_syntax::TriggerRefusal::None) {
        *error = "--trigger takes none, or internal or external with up to three numbers, got '" + text + "'";
        return false;
    }
    std::string joined;
    for (const std::string &word : words)
        joined += (joined.empty() ? "" : " ") + word;
    *trigger = joined;
    return true;
}

bool sizes_fit_codec(const MountOptions &options, const std::string &codec, std::string *error)
{
    if (codec != "jpeg")
        return true;
    for (const auto &size : options.sizes) {
        const StreamSize &s = size.second;
        if (s.width % 8 == 0 && s.height % 8 == 0)
            continue;
        std::string given = std::to_string(s.width) + "x" + std::to_string(s.height);
        std::string below = std::to_string(s.width / 8 * 8) + "x" + std::to_string(s.height / 8 * 8);
        std::string above = std::to_string((s.width + 7) / 8 * 8) + "x" + std::to_string((s.height + 7) / 8 * 8);
        *error = "--size " + given + ": JPEG over RTP takes sizes in steps of 8 pixels (" + below + " or " + above +
                 ")";
        return false;
    }
    return true;
}

StreamSize size_of(const MountOptions &options, const std::string &mount)
{
    auto own = options.sizes.find(mount);
    if (own != options.sizes.end())
        return own->second;
    auto every = options.sizes.find("");
    return every != options.sizes.end() ? every->second : StreamSize{};
}

bool sizes_name_served_mounts(const MountOptions &options, const std::vector<std::string> &mounts,
                              std::string *error)
{
    for (const auto &size : options.sizes) {
        if (!size.first.empty() && std::find(mounts.begin(), mounts.end(), size.first) == mounts.end()) {
            *error = "--size " + size.first + "=...: no mount /" + size.first + " is served";
            return false;
        }
    }
    return true;
}

} // namespace zrtsp
