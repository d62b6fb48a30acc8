/*
 * trigger_line.cpp - a trigger line shared by boards: one sync-pulse
 * generator wired to the sensors of several boards, as multi-board rigs
 * are built. Its pulses come at the host's CLOCK_MONOTONIC instants
 *
 *     phase + k x period      (k whole)
 *
 * so every board (every runner) on the machine that names the line
 * computes the same instants from its own configuration, without talking
 * to the others; a board's cable and sensor see each pulse `delay` later.
 * Each board stamps the frames it takes on a pulse with its own clock, so
 * the true skew between boards is known exactly: zero, or the difference
 * of their delays.
 */
#include "core.h"

namespace zsim::detail {

// A sensor ready a hair early still takes a pulse meant for its rate: a
// 30.03 Hz line drives a 30 fps camera at every pulse.
constexpr uint64_t kReadyFraction = 100;

uint64_t next_line_pulse(const TriggerLine &line, uint64_t at)
{
    const uint64_t first = line.phase_ns + line.delay_ns;
    if (at <= first)
        return first;
    const uint64_t pulses = (at - first + line.period_ns - 1) / line.period_ns;
    return first + pulses * line.period_ns;
}

uint64_t ready_after_frame(uint64_t period_ns) { return period_ns - period_ns / kReadyFraction; }

} // namespace zsim::detail

namespace zsim {

using namespace detail;

void set_trigger_line(const TriggerLine &line)
{
    CoreLock held;
    TriggerLine &wired = state().line;
    wired = line.period_ns ? line : TriggerLine{};
    if (!wired.name.empty())
        wired.phase_ns %= wired.period_ns;
    state().wake.notify_all();
}

TriggerLine trigger_line()
{
    CoreLock held;
    return state().line;
}

} // namespace zsim
