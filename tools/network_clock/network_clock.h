/*
 * network_clock.h - the GStreamer clock a rig runs on, and what is known of
 * its state.
 *
 * Boards never agree about time on their own: each runs its clocks from its
 * own oscillator and was set at boot to its own idea of the time. A rig
 * therefore puts every pipeline on one network clock: GStreamer's PTP client
 * (IEEE 1588, following the grandmaster that linuxptp's ptp4l or a switch
 * provides) or its NTP client. The PTP client's helper only relays the
 * packets; the clock arithmetic runs in this process, against this
 * machine's monotonic clock.
 */
#ifndef ZELISP_NETWORK_CLOCK_NETWORK_CLOCK_H
#define ZELISP_NETWORK_CLOCK_NETWORK_CLOCK_H

#include <gst/gst.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "clock_choice.h"

namespace netclock {

struct ClockState {
    bool synced = false;
    bool heard = false;       // a PTP or NTP message came from the network
    std::string grandmaster;  // PTP: the grandmaster's identity, "AA-BB-CC-FF-FE-DD-EE-FF"
    int64_t offset_ns = 0;    // the last correction: network time minus what the clock expected
    uint64_t path_delay_ns = 0; // PTP: mean path delay; NTP: half the round trip
    double seconds_to_sync = -1; // from the clock's creation to its first sync; -1: not yet
    // Settled: synced, and its estimates of the path delay and of the rate
    // steady. Right after the first sync a clock still learns both: the
    // path delay from a first measurement that may be milliseconds off, the
    // rate from a handful of observations (hundreds of ppm off), and its
    // time is off by as much as they are.
    bool settled = false;
    double seconds_to_settle = -1;
    // This machine's real-time clock minus the network clock, when synced:
    // how far the board's own idea of the time is off.
    int64_t system_offset_ns = 0;
};

class NetworkClock {
public:
    // The clock of `choice`. PTP starts GStreamer's PTP client on
    // choice.interface (every interface when empty). Null with a sentence in
    // *error when it cannot start.
    static std::unique_ptr<NetworkClock> create(const ClockChoice &choice, std::string *error);
    ~NetworkClock();
    NetworkClock(const NetworkClock &) = delete;
    NetworkClock &operator=(const NetworkClock &) = delete;

    const ClockChoice &choice() const { return choice_; }
    // The clock itself (the real-time system clock for "system"); borrowed.
    GstClock *clock() const { return clock_; }
    bool is_network() const { return choice_.kind != ClockKind::System; }

    // Waits up to `timeout_seconds` for the first sync. False with a
    // sentence saying what was heard from the network and what not.
    bool wait_for_sync(double timeout_seconds, std::string *error);

    ClockState state() const;

private:
    NetworkClock(const ClockChoice &choice, GstClock *clock);
    void on_ptp_statistics(const GstStructure *statistics);
    void on_ntp_statistics(const GstStructure *statistics);
    // With mutex_ held: a new estimate of the path delay or of the rate.
    void note_path_delay(uint64_t delay_ns);
    void note_rate(double rate);
    void update_settled();
    void smooth_ptp_clock();
    static gboolean ptp_statistics(guint8 domain, const GstStructure *statistics, gpointer self);
    static GstBusSyncReply ntp_message(GstBus *bus, GstMessage *message, gpointer self);

    ClockChoice choice_;
    GstClock *clock_ = nullptr;
    gulong ptp_callback_ = 0;
    GstBus *ntp_bus_ = nullptr;
    gint64 created_us_ = 0;
    int steady_delays_ = 0; // path delay estimates in a row that barely moved
    int steady_rates_ = 0;  // rate estimates in a row that barely moved
    double rate_ = 0;
    // Statistics arrive on GStreamer's threads; state() also notes a sync
    // the clock reports before its statistics do.
    mutable std::mutex mutex_;
    mutable ClockState state_;
};

// The PTP observations the clock's rate and offset are fitted to.
constexpr int kPtpObservations = 128;

// A settled clock's estimates: this many updates in a row, each within
// this much of the one before: the path delay within 5% (or 10 µs), the
// rate within 5 ppm.
constexpr int kSteadyUpdates = 4;
constexpr double kSteadyDelayChange = 0.05;
constexpr double kSteadyRateChange = 5e-6;

// "AA-96-9C-FF-FE-54-63-38": a PTP clock identity as RFC 7273 writes it.
std::string ptp_identity(uint64_t id);

} // namespace netclock

#endif
