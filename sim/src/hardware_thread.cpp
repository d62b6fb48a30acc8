/*
 * hardware_thread.cpp - the sensors' frame clocks. One thread ends the
 * frame periods of every free-running stream: each period gets the next
 * sequence number and fills the oldest queued buffer, or is dropped and
 * counted when the program has none queued, as a real capture driver does.
 *
 * Frame times are the period boundaries on CLOCK_MONOTONIC, not the moment
 * the thread woke, so a late wake-up on a loaded machine does not bend the
 * intervals. With a MIPI trigger mode set all cameras end their periods on
 * one shared grid, so cameras of equal rate carry identical timestamps.
 */
#include <cerrno>
#include <cstdint>
#include <exception>
#include <ctime>

#include <unistd.h>

#include "board_clock.h"
#include "core.h"

namespace zsim::detail {
namespace {

constexpr uint64_t kNever = UINT64_MAX;

void end_period(Node &n)
{
    uint32_t sequence = n.next_sequence++;
    ++n.counters.produced;
    if (n.queued.empty()) {
        ++n.counters.dropped;
        return;
    }
    int index = n.queued.front();
    n.queued.pop_front();
    // Stamped as the board's clock read the end of the frame.
    fill_buffer(n, index, sequence, uint64_t(to_board(CLOCK_MONOTONIC, int64_t(n.next_due_ns))), 0, nullptr, true);
}

// Ends every period due by now; returns when the next one is due.
uint64_t run_clocks(State &s, uint64_t now, bool shared_clock)
{
    uint64_t next = kNever;
    for (int node = 0; node < kVideoNodes; ++node) {
        Node &n = s.nodes[node];
        if (!n.streaming || n.frame_mode != FrameMode::FreeRunning || n.period_ns == 0)
            continue;
        if (shared_clock && !n.on_shared_clock)
            n.next_due_ns = (n.next_due_ns + n.period_ns - 1) / n.period_ns * n.period_ns;
        n.on_shared_clock = shared_clock;
        while (n.next_due_ns <= now) {
            end_period(n);
            n.next_due_ns += n.period_ns;
        }
        next = std::min(next, n.next_due_ns);
    }
    return next;
}

void run()
{
    keep_host_time_on_this_thread();
    State &s = state();
    for (;;) {
        // The platform node keeps the trigger mode in an atomic word, so
        // it is read without any lock.
        bool shared_clock = trigger_mode() != TriggerMode::None;
        CoreLock held;
        if (s.stopping)
            return;
        uint64_t next = run_clocks(s, host_monotonic_ns(), shared_clock);
        if (next == kNever)
            s.wake.wait(held.guard());
        else
            s.wake.wait_until(held.guard(),
                              std::chrono::steady_clock::time_point(std::chrono::nanoseconds(next)));
    }
}

} // namespace

int ensure_hardware_thread(State &s)
{
    if (s.stopping)
        return 0;
    if (s.hardware.joinable() && s.hardware_pid == getpid())
        return 0;
    // A driver out of memory fails the request; it does not end the program.
    try {
        if (s.hardware.joinable())
            new std::thread(std::move(s.hardware)); // inherited from a parent process: no such thread here
        s.hardware = std::thread(run);
    } catch (const std::exception &) {
        return ENOMEM;
    }
    s.hardware_pid = getpid();
    return 0;
}

} // namespace zsim::detail
