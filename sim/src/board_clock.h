/*
 * board_clock.h - the simulated board's own clocks.
 *
 * Boards never agree about time: each runs its clocks from its own
 * oscillator and was set at boot to its own idea of the time, which is why
 * a rig of several boards needs PTP. The simulated board reads the host's
 * clocks and shifts them: by a fixed offset, plus a drift that grows with
 * the time since the board started. Every process of the board computes the
 * shift from the same start instant (ZELISP_SIM_BOARD_START, a host
 * CLOCK_MONOTONIC time in nanoseconds that the runner sets and children
 * inherit), so all of them agree to the nanosecond.
 *
 * The monotonic clocks, the boot-time clock, the real-time clock and TAI
 * follow the board; CPU-time clocks and clocks of descriptors do not.
 */
#ifndef ZELISP_SIM_BOARD_CLOCK_H
#define ZELISP_SIM_BOARD_CLOCK_H

#include <cstdint>
#include <ctime>

namespace zsim::detail {

// The host's clocks, past any shift: what the simulator times its frames
// and trigger pulses by.
int64_t host_clock_ns(clockid_t clock);
uint64_t host_monotonic_ns();

// True while the board's clocks differ from the host's. One relaxed load:
// the interposed clock functions ask it on every call.
bool board_clock_shifted();
// Whether `clock` is one the board shifts.
bool board_keeps(clockid_t clock);
// A reading of `clock` converted between the host's and the board's time.
// to_host rounds up, so that a wait until the host time it gives never ends
// before the board's clock reaches `board_ns`.
int64_t to_board(clockid_t clock, int64_t host_ns);
int64_t to_host(clockid_t clock, int64_t board_ns);

// The simulator's own threads (frame clocks, image worker) keep the host's
// time in every interposed call, since they schedule by it.
void keep_host_time_on_this_thread();
bool this_thread_keeps_host_time();

// Makes sure this process knows when its board started, exporting the
// instant to the environment for the programs it starts. Called once the
// library is loaded, before any configuration.
void establish_board_start();

// The host CLOCK_MONOTONIC instant at which the board started.
int64_t board_start_ns();

} // namespace zsim::detail

#endif
