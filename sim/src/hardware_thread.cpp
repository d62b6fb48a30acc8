/*
 * hardware_thread.cpp - the sensors' frame clocks. One thread ends the
 * frames of every free-running stream: each gets the next sequence number
 * and fills the oldest queued buffer, or is dropped and counted when the
 * program has none queued, as a real capture driver does.
 *
 * Frames end at computed instants, not at the moment the thread wakes, so
 * a late wake-up on a loaded machine does not bend the intervals. What
 * paces them depends on the trigger mode set through /dev/isp_misc:
 *
 *  - none: each sensor runs on its own, a frame period after the last;
 *  - internal (or external with no trigger line wired): the board's
 *    trigger ticks every camera's period on one grid of the board's
 *    monotonic clock, so cameras of equal rate end their frames together;
 *  - external with the board wired to a trigger line (trigger_line.cpp):
 *    each sensor takes the line's next pulse once it is ready again, on
 *    the host's time that every board on the line shares.
 *
 * The sensors count time by the board's oscillator, so periods are board
 * time and the thread converts them to the host's time it sleeps on; a
 * frame's timestamp is the board's monotonic clock at its end.
 */
#include <cerrno>
#include <cstdint>
#include <exception>
#include <ctime>

#include <pthread.h>
#include <unistd.h>

#include "board_clock.h"
#include "core.h"

namespace zsim::detail {
namespace {

constexpr uint64_t kNever = UINT64_MAX;

FramePacing pacing_now(const State &s)
{
    switch (trigger_mode()) {
    case TriggerMode::None:
        return FramePacing::Sensor;
    case TriggerMode::External:
        return s.line.name.empty() ? FramePacing::BoardTick : FramePacing::LinePulse;
    default:
        return FramePacing::BoardTick;
    }
}

int64_t board_now(uint64_t host_now) { return to_board(CLOCK_MONOTONIC, int64_t(host_now)); }

void set_end(Node &n, int64_t board_end)
{
    n.frame_end_board_ns = board_end;
    n.next_due_ns = uint64_t(to_host(CLOCK_MONOTONIC, board_end));
}

void set_end_on_pulse(const State &s, Node &n, uint64_t host_earliest)
{
    n.next_due_ns = next_line_pulse(s.line, host_earliest);
    n.frame_end_board_ns = board_now(n.next_due_ns);
}

// The next tick of the board's trigger at or after board time `at`.
int64_t board_tick(const Node &n, int64_t at)
{
    const int64_t period = int64_t(n.period_ns);
    return (at + period - 1) / period * period;
}

// After a frame ended: when the next one does.
void schedule_next(const State &s, Node &n)
{
    if (n.pacing == FramePacing::LinePulse)
        set_end_on_pulse(s, n, n.next_due_ns + ready_after_frame(n.period_ns));
    else
        set_end(n, n.frame_end_board_ns + int64_t(n.period_ns));
}

// The pacing changed while the frame was under way: it ends on the first
// tick or pulse of the new pacing instead.
void repace(const State &s, Node &n, FramePacing pacing)
{
    n.pacing = pacing;
    if (pacing == FramePacing::BoardTick)
        set_end(n, board_tick(n, n.frame_end_board_ns));
    else if (pacing == FramePacing::LinePulse)
        set_end_on_pulse(s, n, n.next_due_ns);
}

// A frame lost at random, drop_percent times in a hundred: a generator of
// the node's own, so that runs repeat.
bool lost_at_random(Node &n, uint32_t drop_percent)
{
    if (drop_percent == 0)
        return false;
    n.drop_lottery = n.drop_lottery * 1664525u + 1013904223u;
    return (n.drop_lottery >> 8) % 100 < drop_percent;
}

void end_frame(State &s, Node &n, int node)
{
    const int camera = camera_of_node(node);
    const CameraConfig &config = s.cameras[camera].config;
    if (config.disconnect_after && n.frames_streamed >= config.disconnect_after) {
        disconnect(s, camera);
        return;
    }
    ++n.frames_streamed;
    uint32_t sequence = n.next_sequence++;
    ++n.counters.produced;
    if (n.queued.empty() || lost_at_random(n, config.drop_percent)) {
        ++n.counters.dropped;
        return;
    }
    int index = n.queued.front();
    n.queued.pop_front();
    const bool error = config.error_every && (sequence + 1) % config.error_every == 0;
    fill_buffer(n, index, sequence, uint64_t(n.frame_end_board_ns), 0, nullptr, true, error);
}

// Ends every frame due by now; returns when the next one is due.
uint64_t run_clocks(State &s, uint64_t now)
{
    const FramePacing pacing = pacing_now(s);
    uint64_t next = kNever;
    for (int node = 0; node < kVideoNodes; ++node) {
        Node &n = s.nodes[node];
        if (n.streaming && node_disconnected(node))
            stop_disconnected_stream(n); // by another process of the board
        if (!n.streaming || n.frame_mode != FrameMode::FreeRunning || n.period_ns == 0)
            continue;
        if (n.pacing != pacing)
            repace(s, n, pacing);
        while (n.streaming && n.next_due_ns <= now) {
            end_frame(s, n, node);
            schedule_next(s, n);
        }
        if (!n.streaming)
            continue;
        next = std::min(next, n.next_due_ns);
    }
    return next;
}

void run()
{
    // Named, so that a client's own threads can be told from the simulated
    // hardware's (top -H, the benchmarks' CPU figures).
    pthread_setname_np(pthread_self(), "zsim-sensor");
    keep_host_time_on_this_thread();
    State &s = state();
    for (;;) {
        CoreLock held;
        if (s.stopping)
            return;
        uint64_t next = run_clocks(s, host_monotonic_ns());
        run_paint_jobs(held);
        if (s.stopping)
            return;
        if (next == kNever)
            s.wake.wait(held.guard());
        else
            s.wake.wait_until(held.guard(),
                              std::chrono::steady_clock::time_point(std::chrono::nanoseconds(next)));
    }
}

} // namespace

void start_frame_clock(State &s, Node &n, uint32_t fps, uint64_t host_now)
{
    n.period_ns = 1000000000u / fps;
    n.frames_streamed = 0;
    n.pacing = pacing_now(s);
    // A sensor's first frame ends a frame time after it starts; on the
    // board's trigger, on the first tick after that; on a trigger line, at
    // the first pulse to come.
    const int64_t first = board_now(host_now) + int64_t(n.period_ns);
    if (n.pacing == FramePacing::Sensor)
        set_end(n, first);
    else if (n.pacing == FramePacing::BoardTick)
        set_end(n, board_tick(n, first));
    else
        set_end_on_pulse(s, n, host_now + 1);
    s.wake.notify_all();
}

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
