/*
 * clock_log.h - a clock's state, told to the people running the rig: a line
 * on standard error when it changes (sync gained or lost, settled, another
 * grandmaster) and once a minute while synced, and a small JSON file,
 * rewritten every second, for monitoring scripts.
 */
#ifndef ZELISP_NETWORK_CLOCK_CLOCK_LOG_H
#define ZELISP_NETWORK_CLOCK_CLOCK_LOG_H

#include <glib.h>

#include <string>

#include "network_clock.h"

namespace netclock {

// "synced to grandmaster AA-..., offset 3 µs, path delay 115 µs; this
// machine's real-time clock is 120.004 ms behind it", or what is missing.
std::string state_sentence(const ClockChoice &choice, const ClockState &state);

// The state as the status file holds it (one JSON object).
std::string state_json(const ClockChoice &choice, const ClockState &state);

class ClockLog {
public:
    // Lines start with "<program>: clock <name>: ". An empty status_path
    // writes no file.
    ClockLog(const NetworkClock &clock, std::string program, std::string status_path);
    ~ClockLog();
    ClockLog(const ClockLog &) = delete;
    ClockLog &operator=(const ClockLog &) = delete;

    // Tells the state now, then follows it from the default main context.
    void start();
    // Whether the status file could be written the last time (an error
    // has been told on standard error once when not).
    bool status_written() const { return status_ok_; }

private:
    static gboolean on_tick(gpointer self);
    void tell(const ClockState &state);
    void write_status(const ClockState &state);

    const NetworkClock &clock_;
    std::string program_;
    std::string status_path_;
    guint timer_ = 0;
    bool told_once_ = false;
    bool was_synced_ = false;
    bool was_settled_ = false;
    std::string grandmaster_;
    gint64 last_line_us_ = 0;
    bool status_ok_ = true;
};

} // namespace netclock

#endif
