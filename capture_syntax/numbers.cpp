// numbers.cpp - splitting the settings' texts and reading their numbers.
#include "numbers.h"

#include <cerrno>
#include <cstdlib>

namespace capture_syntax {

std::vector<std::string> split(const std::string &text, const char *separators)
{
    std::vector<std::string> parts;
    std::string part;
    const std::string set(separators);
    for (char c : text) {
        if (set.find(c) != std::string::npos) {
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
    // strtoull would take a sign or leading space (and wrap "-1" around).
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

} // namespace capture_syntax
