/*
 * clock_log.cpp - clock state lines and the status file.
 */
#include "clock_log.h"

#include <nlohmann/json.hpp>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace netclock {
namespace {

constexpr gint64 kStateLineEveryUs = 60 * G_USEC_PER_SEC;

std::string duration_text(int64_t ns)
{
    char text[48];
    int64_t magnitude = ns < 0 ? -ns : ns;
    if (magnitude < 10 * GST_MSECOND)
        std::snprintf(text, sizeof text, "%" PRId64 " µs", magnitude / 1000);
    else if (magnitude < 10 * GST_SECOND)
        std::snprintf(text, sizeof text, "%.3f ms", double(magnitude) / 1e6);
    else
        std::snprintf(text, sizeof text, "%.3f s", double(magnitude) / 1e9);
    return text;
}

std::string signed_duration_text(int64_t ns)
{
    return (ns < 0 ? "-" : "") + duration_text(ns);
}

} // namespace

std::string state_sentence(const ClockChoice &choice, const ClockState &state)
{
    if (choice.kind == ClockKind::System)
        return "this machine's own real-time clock, followed by no network clock";
    std::string text;
    if (!state.synced) {
        if (!state.heard)
            return choice.kind == ClockKind::Ptp ? "not synced: no PTP grandmaster heard yet"
                                               : "not synced: no answer from the NTP server yet";
        text = "not synced";
        if (!state.grandmaster.empty())
            text += ", grandmaster " + state.grandmaster + " heard";
        return text;
    }
    text = "synced";
    if (!state.grandmaster.empty())
        text += " to grandmaster " + state.grandmaster;
    text += ", offset " + signed_duration_text(state.offset_ns) + ", path delay " + duration_text(int64_t(state.path_delay_ns));
    int64_t off = state.system_offset_ns;
    text += "; this machine's real-time clock is " + duration_text(off) + (off < 0 ? " behind it" : " ahead of it");
    return text;
}

std::string state_json(const ClockChoice &choice, const ClockState &state)
{
    nlohmann::json json = {
        {"clock", clock_name(choice)},
        {"synced", state.synced},
        {"offset_ns", state.offset_ns},
        {"path_delay_ns", state.path_delay_ns},
        {"system_offset_ns", state.system_offset_ns},
        {"state", state_sentence(choice, state)},
    };
    json["interface"] = choice.interface.empty() ? nullptr : nlohmann::json(choice.interface);
    json["grandmaster"] = state.grandmaster.empty() ? nullptr : nlohmann::json(state.grandmaster);
    json["seconds_to_sync"] = state.seconds_to_sync < 0 ? nullptr : nlohmann::json(state.seconds_to_sync);
    json["settled"] = state.settled;
    json["seconds_to_settle"] = state.seconds_to_settle < 0 ? nullptr : nlohmann::json(state.seconds_to_settle);
    return json.dump(2) + "\n";
}

ClockLog::ClockLog(const NetworkClock &clock, std::string program, std::string status_path)
    : clock_(clock), program_(std::move(program)), status_path_(std::move(status_path))
{
}

ClockLog::~ClockLog()
{
    if (timer_)
        g_source_remove(timer_);
}

void ClockLog::start()
{
    ClockState state = clock_.state();
    tell(state);
    write_status(state);
    if (!timer_)
        timer_ = g_timeout_add_seconds(1, on_tick, this);
}

gboolean ClockLog::on_tick(gpointer self)
{
    auto *log = static_cast<ClockLog *>(self);
    ClockState state = log->clock_.state();
    log->tell(state);
    log->write_status(state);
    return G_SOURCE_CONTINUE;
}

// A line when something changed, and a reminder of the figures now and then
// while nothing does.
void ClockLog::tell(const ClockState &state)
{
    gint64 now = g_get_monotonic_time();
    bool changed = !told_once_ || state.synced != was_synced_ || state.grandmaster != grandmaster_ ||
                   (state.settled && !was_settled_);
    if (!changed && !(state.synced && now - last_line_us_ >= kStateLineEveryUs))
        return;
    std::string text = state_sentence(clock_.choice(), state);
    char after[48] = "";
    if (state.settled && !was_settled_ && was_synced_ && clock_.is_network()) {
        std::snprintf(after, sizeof after, "settled after %.1f s: ", state.seconds_to_settle);
        text = after + text;
    } else if (state.synced && !was_synced_ && state.seconds_to_sync >= 0 && clock_.is_network()) {
        std::snprintf(after, sizeof after, " after %.1f s", state.seconds_to_sync);
        text.insert(std::string("synced").size(), after);
    } else if (!state.synced && was_synced_) {
        text = "lost sync: " + text;
    }
    std::fprintf(stderr, "%s: clock %s: %s\n", program_.c_str(), clock_name(clock_.choice()).c_str(), text.c_str());
    told_once_ = true;
    was_synced_ = state.synced;
    was_settled_ = state.settled;
    grandmaster_ = state.grandmaster;
    last_line_us_ = now;
}

// Written beside and renamed over the old file, so that a reader never sees
// half a file.
void ClockLog::write_status(const ClockState &state)
{
    if (status_path_.empty())
        return;
    std::string partial = status_path_ + ".partial";
    FILE *file = std::fopen(partial.c_str(), "w");
    bool written = file && std::fputs(state_json(clock_.choice(), state).c_str(), file) >= 0;
    if (file && std::fclose(file) != 0)
        written = false;
    if (written && std::rename(partial.c_str(), status_path_.c_str()) != 0)
        written = false;
    if (!written && status_ok_)
        std::fprintf(stderr, "%s: cannot write the clock status file %s: %s\n", program_.c_str(),
                     status_path_.c_str(), std::strerror(errno));
    if (!written)
        std::remove(partial.c_str());
    status_ok_ = written;
}

} // namespace netclock
