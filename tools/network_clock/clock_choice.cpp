/*
 * clock_choice.cpp - reading the clock names of the rig's tools.
 */
#include "clock_choice.h"

#include <cstdlib>

namespace netclock {
namespace {

const char *kSyntax = "system, ptp[:DOMAIN] or ntp:HOST[:PORT]";

bool parse_number(const std::string &text, int low, int high, int *value)
{
    if (text.empty() || text.size() > 5 || text.find_first_not_of("0123456789") != std::string::npos)
        return false;
    int number = std::atoi(text.c_str());
    if (number < low || number > high)
        return false;
    *value = number;
    return true;
}

// "HOST", "HOST:PORT" or "[V6]:PORT"; an IPv6 address without brackets has
// colons of its own and so no port.
bool parse_server(const std::string &text, ClockChoice *choice)
{
    std::string host = text, port;
    if (!text.empty() && text[0] == '[') {
        size_t close = text.find(']');
        if (close == std::string::npos || close == 1)
            return false;
        host = text.substr(1, close - 1);
        std::string rest = text.substr(close + 1);
        if (!rest.empty()) {
            if (rest[0] != ':')
                return false;
            port = rest.substr(1);
            if (port.empty())
                return false;
        }
    } else if (text.find(':') == text.rfind(':') && text.find(':') != std::string::npos) {
        host = text.substr(0, text.find(':'));
        port = text.substr(text.find(':') + 1);
        if (port.empty())
            return false;
    }
    if (host.empty())
        return false;
    choice->host = host;
    return port.empty() || parse_number(port, 1, 65535, &choice->port);
}

} // namespace

bool parse_clock_choice(const std::string &text, ClockChoice *choice, std::string *error)
{
    ClockChoice parsed;
    parsed.interface = choice->interface;
    bool good = false;
    if (text == "system") {
        good = true;
    } else if (text == "ptp" || text.compare(0, 4, "ptp:") == 0) {
        parsed.kind = ClockKind::Ptp;
        good = text == "ptp" || parse_number(text.substr(4), 0, 255, &parsed.domain);
        if (!good) {
            *error = "the PTP domain is a number 0..255, got '" + text.substr(4) + "'";
            return false;
        }
    } else if (text.compare(0, 4, "ntp:") == 0) {
        parsed.kind = ClockKind::Ntp;
        good = parse_server(text.substr(4), &parsed);
        if (!good) {
            *error = "ntp takes a server as ntp:HOST or ntp:HOST:PORT (port 1..65535), got '" + text + "'";
            return false;
        }
    }
    if (!good) {
        *error = std::string("the clock is ") + kSyntax + ", got '" + text + "'";
        return false;
    }
    *choice = parsed;
    return true;
}

std::string clock_name(const ClockChoice &choice)
{
    switch (choice.kind) {
    case ClockKind::Ptp:
        return "ptp:" + std::to_string(choice.domain);
    case ClockKind::Ntp: {
        std::string host = choice.host.find(':') != std::string::npos ? "[" + choice.host + "]" : choice.host;
        return "ntp:" + host + ":" + std::to_string(choice.port);
    }
    case ClockKind::System:
        break;
    }
    return "system";
}

} // namespace netclock
