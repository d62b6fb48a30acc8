/*
 * network_clock.cpp - GStreamer's PTP and NTP clients as the rig's tools use
 * them, and the state their statistics give.
 */
#include "network_clock.h"

#include <gst/net/net.h>
#include <net/if.h>
#include <netdb.h>
#include <sys/socket.h>

#include <cinttypes>
#include <cmath>
#include <cstdio>

namespace netclock {
namespace {

// NTP counts from 1900, the real-time clock from 1970.
constexpr int64_t kNtpToUnixNs = int64_t(2208988800) * GST_SECOND;

std::string seconds_text(double seconds)
{
    char text[32];
    std::snprintf(text, sizeof text, "%g", seconds);
    return text;
}

// The network time a real-time reading of this machine corresponds to, in
// the clock's own epoch (NTP counts from 1900; PTP and the system clock
// from 1970).
int64_t to_clock_epoch(const ClockChoice &choice, int64_t unix_ns)
{
    return choice.kind == ClockKind::Ntp ? unix_ns + kNtpToUnixNs : unix_ns;
}

// A server named by a host name that does not resolve would only ever be
// "not answering": the user is told the name is the problem.
bool host_resolves(const std::string &host, std::string *error)
{
    addrinfo hints{};
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo *found = nullptr;
    int result = getaddrinfo(host.c_str(), nullptr, &hints, &found);
    if (result != 0) {
        *error = "the NTP server's name '" + host + "' does not resolve (" + gai_strerror(result) + ")";
        return false;
    }
    freeaddrinfo(found);
    return true;
}

} // namespace

std::string ptp_identity(uint64_t id)
{
    char text[24];
    std::snprintf(text, sizeof text, "%02X-%02X-%02X-%02X-%02X-%02X-%02X-%02X", unsigned(id >> 56) & 0xff,
                  unsigned(id >> 48) & 0xff, unsigned(id >> 40) & 0xff, unsigned(id >> 32) & 0xff,
                  unsigned(id >> 24) & 0xff, unsigned(id >> 16) & 0xff, unsigned(id >> 8) & 0xff, unsigned(id) & 0xff);
    return text;
}

std::unique_ptr<NetworkClock> NetworkClock::create(const ClockChoice &choice, std::string *error)
{
    GstClock *clock = nullptr;
    switch (choice.kind) {
    case ClockKind::System:
        // The real-time clock, so that a time on it reads as a date.
        clock = GST_CLOCK(g_object_new(GST_TYPE_SYSTEM_CLOCK, "name", "system-clock", "clock-type",
                                       GST_CLOCK_TYPE_REALTIME, nullptr));
        gst_object_ref_sink(clock);
        break;
    case ClockKind::Ptp: {
        if (!choice.interface.empty() && if_nametoindex(choice.interface.c_str()) == 0) {
            *error = "there is no network interface '" + choice.interface + "'";
            return nullptr;
        }
        gchar *interfaces[] = {const_cast<gchar *>(choice.interface.c_str()), nullptr};
        if (!gst_ptp_init(GST_PTP_CLOCK_ID_NONE, choice.interface.empty() ? nullptr : interfaces)) {
            *error = "GStreamer's PTP client did not start: its helper (gst-ptp-helper, from "
                     "libgstreamer1.0-0) is missing or lacks its network capabilities";
            return nullptr;
        }
        clock = gst_ptp_clock_new(("ptp-clock-" + std::to_string(choice.domain)).c_str(), guint(choice.domain));
        break;
    }
    case ClockKind::Ntp:
        if (!host_resolves(choice.host, error))
            return nullptr;
        clock = gst_ntp_clock_new("ntp-clock", choice.host.c_str(), choice.port, 0);
        break;
    }
    if (!clock) {
        *error = "GStreamer could not make the " + clock_name(choice) + " clock";
        return nullptr;
    }
    std::unique_ptr<NetworkClock> made(new NetworkClock(choice, clock));
    if (choice.kind == ClockKind::Ptp) {
        made->ptp_callback_ = gst_ptp_statistics_callback_add(ptp_statistics, made.get(), nullptr);
    } else if (choice.kind == ClockKind::Ntp) {
        // The NTP client posts its statistics on a bus of its own.
        made->ntp_bus_ = gst_bus_new();
        gst_bus_set_sync_handler(made->ntp_bus_, ntp_message, made.get(), nullptr);
        g_object_set(clock, "bus", made->ntp_bus_, nullptr);
    }
    return made;
}

NetworkClock::NetworkClock(const ClockChoice &choice, GstClock *clock)
    : choice_(choice), clock_(clock), created_us_(g_get_monotonic_time())
{
    if (choice.kind == ClockKind::System) {
        state_.synced = state_.settled = true;
        state_.seconds_to_sync = state_.seconds_to_settle = 0;
    }
}

NetworkClock::~NetworkClock()
{
    // Statistics stop before the state they write goes away.
    if (ptp_callback_)
        gst_ptp_statistics_callback_remove(ptp_callback_);
    if (ntp_bus_) {
        g_object_set(clock_, "bus", nullptr, nullptr);
        gst_bus_set_sync_handler(ntp_bus_, nullptr, nullptr, nullptr);
        gst_object_unref(ntp_bus_);
    }
    gst_object_unref(clock_);
}

gboolean NetworkClock::ptp_statistics(guint8 domain, const GstStructure *statistics, gpointer self)
{
    auto *clock = static_cast<NetworkClock *>(self);
    if (domain == clock->choice_.domain)
        clock->on_ptp_statistics(statistics);
    return TRUE;
}

void NetworkClock::on_ptp_statistics(const GstStructure *statistics)
{
    std::lock_guard<std::mutex> lock(mutex_);
    state_.heard = true;
    guint64 value = 0;
    if (gst_structure_has_name(statistics, GST_PTP_STATISTICS_BEST_MASTER_CLOCK_SELECTED) &&
        gst_structure_get_uint64(statistics, "grandmaster-clock-id", &value))
        state_.grandmaster = ptp_identity(value);
    if (gst_structure_get_uint64(statistics, "mean-path-delay-avg", &value) &&
        gst_structure_has_name(statistics, GST_PTP_STATISTICS_PATH_DELAY_MEASURED))
        note_path_delay(value);
    if (!gst_structure_has_name(statistics, GST_PTP_STATISTICS_TIME_UPDATED))
        return;
    // Whether the clock follows its grandmaster is the clock's to say (see
    // state()); these statistics may claim it before the clock does.
    guint64 measured = 0, expected = GST_CLOCK_TIME_NONE;
    double rate = 0;
    if (gst_structure_get_double(statistics, "rate", &rate))
        note_rate(rate);
    if (gst_structure_get_uint64(statistics, "ptp-time", &measured) &&
        gst_structure_get_uint64(statistics, "estimated-ptp-time", &expected) && GST_CLOCK_TIME_IS_VALID(expected))
        state_.offset_ns = int64_t(measured - expected);
}

void NetworkClock::note_path_delay(uint64_t delay_ns)
{
    double change = double(delay_ns > state_.path_delay_ns ? delay_ns - state_.path_delay_ns
                                                           : state_.path_delay_ns - delay_ns);
    bool steady = state_.path_delay_ns > 0 &&
                  (change <= kSteadyDelayChange * double(state_.path_delay_ns) || change <= 10000);
    steady_delays_ = steady ? steady_delays_ + 1 : 0;
    state_.path_delay_ns = delay_ns;
    update_settled();
}

void NetworkClock::note_rate(double rate)
{
    bool steady = rate_ > 0 && std::fabs(rate - rate_) <= kSteadyRateChange;
    steady_rates_ = steady ? steady_rates_ + 1 : 0;
    rate_ = rate;
    update_settled();
}

void NetworkClock::update_settled()
{
    bool settled = state_.synced && steady_delays_ >= kSteadyUpdates && steady_rates_ >= kSteadyUpdates;
    if (settled && state_.seconds_to_settle < 0)
        state_.seconds_to_settle = double(g_get_monotonic_time() - created_us_) / 1e6;
    state_.settled = settled;
}

GstBusSyncReply NetworkClock::ntp_message(GstBus *, GstMessage *message, gpointer self)
{
    const GstStructure *statistics = gst_message_get_structure(message);
    if (statistics && gst_structure_has_name(statistics, "gst-netclock-statistics"))
        static_cast<NetworkClock *>(self)->on_ntp_statistics(statistics);
    gst_message_unref(message); // dropped here, so it is ours to release
    return GST_BUS_DROP;
}

void NetworkClock::on_ntp_statistics(const GstStructure *statistics)
{
    std::lock_guard<std::mutex> lock(mutex_);
    state_.heard = true;
    gboolean synced = FALSE;
    guint64 round_trip = 0;
    gint64 discontinuity = 0;
    gst_structure_get_boolean(statistics, "synchronised", &synced);
    if (synced && state_.seconds_to_sync < 0)
        state_.seconds_to_sync = double(g_get_monotonic_time() - created_us_) / 1e6;
    state_.synced = synced;
    // Before the first sync the client jumps from its start value to the
    // server's time: that step is no correction of a running clock.
    if (synced && gst_structure_get_int64(statistics, "discontinuity", &discontinuity))
        state_.offset_ns = discontinuity;
    double rate = 0;
    if (synced && gst_structure_get_double(statistics, "rate", &rate))
        note_rate(rate);
    if (gst_structure_get_uint64(statistics, "rtt-average", &round_trip))
        note_path_delay(round_trip / 2);
}

bool NetworkClock::wait_for_sync(double timeout_seconds, std::string *error)
{
    if (!is_network())
        return true;
    // Polled: the NTP client does not flag that it needs a first sync, so
    // gst_clock_wait_for_sync would not wait for it.
    gint64 deadline = g_get_monotonic_time() + gint64(timeout_seconds * 1e6);
    while (!state().synced && g_get_monotonic_time() < deadline)
        g_usleep(50 * 1000);
    ClockState now = state();
    if (now.synced) {
        smooth_ptp_clock();
        return true;
    }
    std::string head = "the " + clock_name(choice_) + " clock did not sync within " + seconds_text(timeout_seconds) + " s: ";
    if (choice_.kind == ClockKind::Ptp && !now.heard)
        *error = head + "no PTP grandmaster answered on domain " + std::to_string(choice_.domain) +
                 (choice_.interface.empty() ? "" : " on " + choice_.interface) +
                 " (is ptp4l running, and is there a multicast route, 224.0.0.0/4, on that interface?)";
    else if (choice_.kind == ClockKind::Ptp)
        *error = head + "grandmaster " + (now.grandmaster.empty() ? "(unknown)" : now.grandmaster) +
                 " answers, but the clock has not settled on it yet";
    else if (!now.heard)
        *error = head + "no answer from the NTP server " + choice_.host + " port " + std::to_string(choice_.port);
    else
        *error = head + "the NTP server answers, but the clock has not settled on it yet";
    return false;
}

// GStreamer's PTP client stamps each message in user space, when its
// thread reads it: on a busy board some stamps come late by milliseconds.
// The clock fits its rate and offset to its last observations; fitted to
// two minutes of them (128 at one sync a second) instead of half a minute,
// a late stamp moves it a quarter as much. The rate of a board's
// oscillator changes slowly enough for that.
void NetworkClock::smooth_ptp_clock()
{
    if (choice_.kind != ClockKind::Ptp)
        return;
    GstClock *domain_clock = nullptr;
    g_object_get(clock_, "internal-clock", &domain_clock, nullptr);
    if (domain_clock) {
        g_object_set(domain_clock, "window-size", kPtpObservations, nullptr);
        gst_object_unref(domain_clock);
    }
}

ClockState NetworkClock::state() const
{
    // Asked without our lock held: the PTP clock may take its own locks and
    // signal its sync while answering.
    bool ptp_synced = choice_.kind == ClockKind::Ptp && gst_clock_is_synced(clock_);
    ClockState copy;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (ptp_synced && !state_.synced) {
            state_.synced = true;
            state_.seconds_to_sync = double(g_get_monotonic_time() - created_us_) / 1e6;
        }
        copy = state_;
    }
    // Only a synced clock is read: GStreamer's PTP clock answers "no time"
    // before its first sync, and a clock never goes back behind a time it
    // answered, so one early reading would stick for good.
    if (copy.synced)
        copy.system_offset_ns = to_clock_epoch(choice_, g_get_real_time() * 1000) - int64_t(gst_clock_get_time(clock_));
    return copy;
}

} // namespace netclock
