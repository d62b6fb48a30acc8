/*
 * board_clock.cpp - the board's clocks as a shift of the host's:
 *
 *     board = host + offset + (host - start) x drift
 *
 * per clock, where `start` is that clock's host reading when the board
 * started, so that at the start the board is exactly `offset` away and the
 * difference then grows by `drift` (parts per billion). The interposed
 * clock functions read the shift on every call, so it is kept in atomics
 * under a sequence count: a reader never sees half of a change.
 */
#include "board_clock.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "real_libc.h"
#include "zelisp_sim/sim.h"

namespace zsim::detail {
namespace {

constexpr char kStartVariable[] = "ZELISP_SIM_BOARD_START";
constexpr int64_t kBillion = 1000000000;
// Beyond a thousandth the board would not be a clock; the bound also keeps
// the arithmetic below from dividing by zero.
constexpr int64_t kMaxDriftPpb = 1000000;

// The clocks the board shifts, each from its own start reading.
enum Kind { kMonotonic, kMonotonicRaw, kBoottime, kRealtime, kTai, kKinds };
const clockid_t kKindClock[kKinds] = {CLOCK_MONOTONIC, CLOCK_MONOTONIC_RAW, CLOCK_BOOTTIME, CLOCK_REALTIME,
                                      CLOCK_TAI};

int kind_of(clockid_t clock)
{
    switch (clock) {
    case CLOCK_MONOTONIC:
    case CLOCK_MONOTONIC_COARSE:
        return kMonotonic;
    case CLOCK_MONOTONIC_RAW:
        return kMonotonicRaw;
    case CLOCK_BOOTTIME:
    case CLOCK_BOOTTIME_ALARM:
        return kBoottime;
    case CLOCK_REALTIME:
    case CLOCK_REALTIME_COARSE:
    case CLOCK_REALTIME_ALARM:
        return kRealtime;
    case CLOCK_TAI:
        return kTai;
    default:
        return -1;
    }
}

// Counted from boot, these never read below zero: a board set further back
// than the host had been up when it started starts them at zero instead.
bool counts_from_boot(int kind) { return kind == kMonotonic || kind == kMonotonicRaw || kind == kBoottime; }

// Constant-initialised: clock functions are called before any constructor.
std::mutex g_writer;
std::atomic<uint32_t> g_sequence{0}; // odd while a writer changes the shift
std::atomic<bool> g_shifted{false};
std::atomic<int64_t> g_offset{0};
std::atomic<int64_t> g_drift{0};
std::atomic<int64_t> g_kind_start[kKinds];
std::atomic<int64_t> g_start{0};
std::atomic<bool> g_started{false};

__attribute__((tls_model("initial-exec"))) thread_local bool t_host_time = false;

struct Shift {
    int64_t offset, drift, start;
};

Shift read_shift(int kind)
{
    for (;;) {
        const uint32_t before = g_sequence.load(std::memory_order_acquire);
        Shift shift{g_offset.load(std::memory_order_relaxed), g_drift.load(std::memory_order_relaxed),
                    g_kind_start[kind].load(std::memory_order_relaxed)};
        std::atomic_thread_fence(std::memory_order_acquire);
        if (!(before & 1) && g_sequence.load(std::memory_order_relaxed) == before) {
            if (counts_from_boot(kind))
                shift.offset = std::max(shift.offset, -std::max<int64_t>(shift.start, 0));
            return shift;
        }
    }
}

__int128 floor_div(__int128 a, __int128 b) { return a / b - ((a % b != 0) && ((a < 0) != (b < 0))); }
__int128 ceil_div(__int128 a, __int128 b) { return -floor_div(-a, b); }

// The start readings of every clock, taken now and set back to when the
// board started: the clocks keep their differences (suspended time for the
// boot-time clock, the epoch for the real-time clock) between processes.
void set_kind_starts(int64_t start)
{
    const int64_t elapsed = host_monotonic_ns() - start;
    for (int kind = 0; kind < kKinds; ++kind)
        g_kind_start[kind].store(host_clock_ns(kKindClock[kind]) - elapsed, std::memory_order_relaxed);
}

void write_shift(int64_t offset, int64_t drift)
{
    std::lock_guard<std::mutex> hold(g_writer);
    g_sequence.fetch_add(1, std::memory_order_acq_rel);
    std::atomic_thread_fence(std::memory_order_release);
    set_kind_starts(board_start_ns());
    g_offset.store(offset, std::memory_order_relaxed);
    g_drift.store(drift, std::memory_order_relaxed);
    g_sequence.fetch_add(1, std::memory_order_release);
    g_shifted.store(offset != 0 || drift != 0, std::memory_order_release);
}

// Any instant, even one before the host booted (negative): a test may
// start a board long ago to make its drift show.
bool parse_start(const char *text, int64_t *start)
{
    if (!text || !*text)
        return false;
    char *end = nullptr;
    errno = 0;
    const long long value = std::strtoll(text, &end, 10);
    if (errno || *end)
        return false;
    *start = value;
    return true;
}

} // namespace

int64_t host_clock_ns(clockid_t clock)
{
    timespec now{};
    real::clock_gettime(clock, &now);
    return int64_t(now.tv_sec) * kBillion + now.tv_nsec;
}

uint64_t host_monotonic_ns() { return uint64_t(host_clock_ns(CLOCK_MONOTONIC)); }

bool board_clock_shifted() { return g_shifted.load(std::memory_order_relaxed); }

bool board_keeps(clockid_t clock) { return kind_of(clock) >= 0; }

int64_t to_board(clockid_t clock, int64_t host_ns)
{
    const int kind = kind_of(clock);
    if (kind < 0 || !board_clock_shifted())
        return host_ns;
    const Shift shift = read_shift(kind);
    return int64_t(host_ns + shift.offset + floor_div(__int128(host_ns - shift.start) * shift.drift, kBillion));
}

int64_t to_host(clockid_t clock, int64_t board_ns)
{
    const int kind = kind_of(clock);
    if (kind < 0 || !board_clock_shifted())
        return board_ns;
    const Shift shift = read_shift(kind);
    const __int128 since = __int128(board_ns) - shift.offset - shift.start;
    return int64_t(shift.start + ceil_div(since * kBillion, kBillion + shift.drift));
}

void keep_host_time_on_this_thread() { t_host_time = true; }

bool this_thread_keeps_host_time() { return t_host_time; }

void establish_board_start()
{
    int64_t start;
    if (!parse_start(std::getenv(kStartVariable), &start)) {
        start = int64_t(host_monotonic_ns());
        char text[24];
        std::snprintf(text, sizeof text, "%" PRId64, start);
        setenv(kStartVariable, text, 1);
    }
    g_start.store(start, std::memory_order_relaxed);
    g_started.store(true, std::memory_order_release);
}

int64_t board_start_ns()
{
    if (!g_started.load(std::memory_order_acquire))
        establish_board_start();
    return g_start.load(std::memory_order_relaxed);
}

} // namespace zsim::detail

namespace zsim {

using namespace detail;

void set_board_clock(const BoardClock &clock)
{
    const int64_t drift = std::min<int64_t>(std::max<int64_t>(clock.drift_ppb, -kMaxDriftPpb), kMaxDriftPpb);
    write_shift(clock.offset_ns, drift);
}

BoardClock board_clock()
{
    const Shift shift = read_shift(kMonotonic);
    BoardClock clock;
    clock.offset_ns = shift.offset;
    clock.drift_ppb = int32_t(shift.drift);
    return clock;
}

int64_t board_start_ns() { return detail::board_start_ns(); }

} // namespace zsim
