/*
 * clock_choice.h - the clock a rig's tools run on, as the user names it on the
 * command line: "system", "ptp[:DOMAIN]" or "ntp:HOST[:PORT]".
 *
 * zelisp-rtsp stamps its frames on this clock and zelisp-rig places the
 * frames of every board on it, so both read the same words.
 */
#ifndef ZELISP_NETWORK_CLOCK_CLOCK_CHOICE_H
#define ZELISP_NETWORK_CLOCK_CLOCK_CHOICE_H

#include <string>

namespace netclock {

enum class ClockKind { System, Ptp, Ntp };

struct ClockChoice {
    ClockKind kind = ClockKind::System;
    int domain = 0;    // PTP domain, 0..255
    std::string host;  // NTP server
    int port = 123;    // NTP port
    std::string interface; // PTP: the network interface (empty: every interface)
};

// Reads "system", "ptp", "ptp:DOMAIN", "ntp:HOST", "ntp:HOST:PORT" or
// "ntp:[IPV6]:PORT". False with a sentence in *error for anything else.
bool parse_clock_choice(const std::string &text, ClockChoice *choice, std::string *error);

// The clock as the user would write it: "ptp:0", "ntp:10.0.0.1:123", "system".
std::string clock_name(const ClockChoice &choice);

} // namespace netclock

#endif
