// The board's own clocks in one process: every clock reading and frame
// timestamp is the host's shifted by the board's offset and drift, and a
// deadline computed from the board's clock ends a wait when the board's
// clock reaches it, whichever C library call waits. The host's time is read
// with the clock_gettime system call itself, which no board shifts.
#include <fcntl.h>
#include <linux/futex.h>
#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <limits>
#include <future>
#include <mutex>
#include <string>
#include <thread>

#include "sim_fixture.h"
#include "video_test_node.h"

namespace {

using zelisp_test::BufferRecord;
using zelisp_test::VideoNode;

constexpr int64_t kSecond = 1000000000;
constexpr int64_t kWaitNs = 40000000;          // every wait below: 40 ms of board time
constexpr int64_t kHourNs = 3600 * kSecond;     // far enough to tell a wait on the wrong clock
constexpr int64_t kGenerousNs = 60 * kSecond;   // "not an hour late", on a loaded machine
constexpr int kSpuriousWakes = 100;             // a wait woken early on a clock it misreads wakes again

int64_t Host(clockid_t clock)
{
    timespec now{};
    syscall(SYS_clock_gettime, clock, &now);
    return int64_t(now.tv_sec) * kSecond + now.tv_nsec;
}

int64_t Board(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return int64_t(now.tv_sec) * kSecond + now.tv_nsec;
}

timespec Timespec(int64_t ns) { return timespec{time_t(ns / kSecond), long(ns % kSecond)}; }

class BoardClockTest : public zelisp_test::SimTest {
protected:
    // What the board reads when the host's monotonic clock reads
    // host_monotonic and `clock` reads host_reading: the offset, plus the
    // drift over the time since the board started.
    static int64_t Expected(int64_t host_reading, int64_t host_monotonic, const zsim::BoardClock &clock)
    {
        const __int128 elapsed = host_monotonic - zsim::board_start_ns();
        return host_reading + clock.offset_ns + int64_t(elapsed * clock.drift_ppb / kSecond);
    }
    // The board's reading of `clock` lies between what it should read at the
    // host readings taken just before and just after it.
    static void ExpectShifted(clockid_t clock, const zsim::BoardClock &board, const char *name)
    {
        const int64_t mono_before = Host(CLOCK_MONOTONIC), before = Host(clock);
        const int64_t read = Board(clock);
        const int64_t after = Host(clock), mono_after = Host(CLOCK_MONOTONIC);
        EXPECT_GE(read, Expected(before, mono_before, board) - 1000) << name; // a microsecond for the drift's rounding
        EXPECT_LE(read, Expected(after, mono_after, board) + 1000) << name;
    }
    // Runs a wait whose deadline is 40 ms ahead on the board's `clock`:
    // it must neither end before the board's clock reaches the deadline
    // nor last anywhere near the board's hour of offset.
    static void ExpectDeadlineKept(clockid_t clock, const char *name,
                                   const std::function<int(const timespec &deadline)> &wait)
    {
        const int64_t deadline = Board(clock) + kWaitNs;
        const int64_t host_start = Host(CLOCK_MONOTONIC);
        EXPECT_EQ(wait(Timespec(deadline)), ETIMEDOUT) << name;
        EXPECT_GE(Board(clock), deadline) << name << " ended early";
        EXPECT_LT(Host(CLOCK_MONOTONIC) - host_start, kGenerousNs) << name << " waited on the host's time";
    }
};

TEST_F(BoardClockTest, EveryClockReadsTheHostsShiftedByOffsetAndDrift)
{
    EXPECT_EQ(zsim::board_clock().offset_ns, 0);
    const int64_t host = Host(CLOCK_REALTIME);
    EXPECT_LT(Board(CLOCK_REALTIME) - host, kSecond); // on the host's time until set

    // Behind by less than any host has been up when its tests run: the
    // monotonic clocks count from boot and cannot go back past it.
    for (const zsim::BoardClock board : {zsim::BoardClock{2500000000, 250000}, zsim::BoardClock{-1500000000, -40000}}) {
        zsim::set_board_clock(board);
        EXPECT_EQ(zsim::board_clock().offset_ns, board.offset_ns);
        EXPECT_EQ(zsim::board_clock().drift_ppb, board.drift_ppb);
        ExpectShifted(CLOCK_MONOTONIC, board, "monotonic");
        ExpectShifted(CLOCK_BOOTTIME, board, "boot time");
        ExpectShifted(CLOCK_REALTIME, board, "real time");
        ExpectShifted(CLOCK_TAI, board, "TAI");
        ExpectShifted(CLOCK_MONOTONIC_RAW, board, "raw monotonic");
        // The coarse clocks tick every few milliseconds; they carry the offset too.
        EXPECT_NEAR(double(Board(CLOCK_MONOTONIC_COARSE) - Host(CLOCK_MONOTONIC_COARSE)), double(board.offset_ns),
                    0.1 * kSecond);

        const int64_t before = Host(CLOCK_REALTIME);
        timeval day{};
        ASSERT_EQ(gettimeofday(&day, nullptr), 0);
        timespec utc{};
        ASSERT_EQ(timespec_get(&utc, TIME_UTC), TIME_UTC);
        const time_t seconds = time(nullptr);
        const int64_t after = Host(CLOCK_REALTIME);
        for (const int64_t read : {int64_t(day.tv_sec) * kSecond + day.tv_usec * 1000,
                                   int64_t(utc.tv_sec) * kSecond + utc.tv_nsec, int64_t(seconds) * kSecond}) {
            EXPECT_GE(read, before + board.offset_ns - kSecond); // time() drops the fraction
            EXPECT_LE(read, after + board.offset_ns + kSecond);
        }
        // CPU time is the process's own, not the board's.
        EXPECT_LT(Board(CLOCK_PROCESS_CPUTIME_ID), Host(CLOCK_PROCESS_CPUTIME_ID) + kSecond);
    }

    // Each clock keeps its own epoch: the board's real time is not its
    // monotonic time plus a constant it made up.
    EXPECT_NEAR(double(Board(CLOCK_REALTIME) - Board(CLOCK_MONOTONIC)),
                double(Host(CLOCK_REALTIME) - Host(CLOCK_MONOTONIC)), 0.01 * kSecond);
    zsim::reset();
    EXPECT_EQ(zsim::board_clock().offset_ns, 0);
    EXPECT_LT(Board(CLOCK_MONOTONIC) - Host(CLOCK_MONOTONIC), kSecond);
}

TEST_F(BoardClockTest, AbsoluteWaitsEndWhenTheBoardsClockReachesTheirDeadline)
{
    // An hour ahead, then an hour behind: a deadline taken on the host's
    // clock would wait an hour in the first case and not at all in the
    // second (the monotonic clocks go back as far as the host has been up).
    for (const int64_t offset : {kHourNs, -kHourNs}) {
        SCOPED_TRACE("offset " + std::to_string(offset / kSecond) + " s");
        zsim::set_board_clock(zsim::BoardClock{offset, 100000});

        for (const clockid_t clock : {CLOCK_MONOTONIC, CLOCK_REALTIME, CLOCK_BOOTTIME})
            ExpectDeadlineKept(clock, "clock_nanosleep", [clock](const timespec &deadline) {
                int err;
                while ((err = clock_nanosleep(clock, TIMER_ABSTIME, &deadline, nullptr)) == EINTR) {
                }
                return err ? err : ETIMEDOUT;
            });

        pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
        pthread_cond_t realtime_cond = PTHREAD_COND_INITIALIZER;
        pthread_condattr_t attr;
        pthread_condattr_init(&attr);
        pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
        pthread_cond_t monotonic_cond;
        pthread_cond_init(&monotonic_cond, &attr);
        pthread_condattr_destroy(&attr);
        // A condition variable waits on the clock it was made for.
        auto cond_wait = [&mutex](pthread_cond_t *cond, const timespec &deadline) {
            pthread_mutex_lock(&mutex);
            int err = 0;
            for (int wakes = 0; wakes < kSpuriousWakes && err == 0; ++wakes)
                err = pthread_cond_timedwait(cond, &mutex, &deadline);
            pthread_mutex_unlock(&mutex);
            return err;
        };
        ExpectDeadlineKept(CLOCK_REALTIME, "pthread_cond_timedwait",
                           [&](const timespec &deadline) { return cond_wait(&realtime_cond, deadline); });
        ExpectDeadlineKept(CLOCK_MONOTONIC, "pthread_cond_timedwait (monotonic)",
                           [&](const timespec &deadline) { return cond_wait(&monotonic_cond, deadline); });
        ExpectDeadlineKept(CLOCK_MONOTONIC, "pthread_cond_clockwait", [&](const timespec &deadline) {
            pthread_mutex_lock(&mutex);
            int err = 0;
            for (int wakes = 0; wakes < kSpuriousWakes && err == 0; ++wakes)
                err = pthread_cond_clockwait(&realtime_cond, &mutex, CLOCK_MONOTONIC, &deadline);
            pthread_mutex_unlock(&mutex);
            return err;
        });
        pthread_cond_destroy(&monotonic_cond);

        sem_t sem;
        sem_init(&sem, 0, 0);
        ExpectDeadlineKept(CLOCK_REALTIME, "sem_timedwait", [&](const timespec &deadline) {
            while (sem_timedwait(&sem, &deadline) < 0 && errno == EINTR) {
            }
            return errno;
        });
        ExpectDeadlineKept(CLOCK_MONOTONIC, "sem_clockwait", [&](const timespec &deadline) {
            while (sem_clockwait(&sem, CLOCK_MONOTONIC, &deadline) < 0 && errno == EINTR) {
            }
            return errno;
        });
        // The largest deadline a program can give means never; it passes
        // as it is (shifting it would overflow).
        sem_post(&sem);
        const timespec forever{std::numeric_limits<time_t>::max(), 0};
        EXPECT_EQ(sem_timedwait(&sem, &forever), 0);
        sem_destroy(&sem);

        // A mutex another thread holds.
        std::promise<void> held, release;
        std::thread holder([&] {
            pthread_mutex_lock(&mutex);
            held.set_value();
            release.get_future().wait();
            pthread_mutex_unlock(&mutex);
        });
        held.get_future().wait();
        ExpectDeadlineKept(CLOCK_REALTIME, "pthread_mutex_timedlock",
                           [&](const timespec &deadline) { return pthread_mutex_timedlock(&mutex, &deadline); });
        ExpectDeadlineKept(CLOCK_MONOTONIC, "pthread_mutex_clocklock", [&](const timespec &deadline) {
            return pthread_mutex_clocklock(&mutex, CLOCK_MONOTONIC, &deadline);
        });
        release.set_value();
        holder.join();

        // A raw futex wait with an absolute deadline, as GStreamer's system
        // clock and libstdc++'s futures make it.
        uint32_t word = 0;
        ExpectDeadlineKept(CLOCK_MONOTONIC, "futex", [&](const timespec &deadline) {
            long result;
            while ((result = syscall(SYS_futex, &word, FUTEX_WAIT_BITSET | FUTEX_PRIVATE_FLAG, 0, &deadline, nullptr,
                                     FUTEX_BITSET_MATCH_ANY)) < 0 &&
                   errno == EINTR) {
            }
            return result < 0 ? errno : 0;
        });
        std::promise<int> never;
        std::future<int> pending = never.get_future();
        ExpectDeadlineKept(CLOCK_MONOTONIC, "std::future::wait_until", [&](const timespec &deadline) {
            const auto until = std::chrono::steady_clock::time_point(
                std::chrono::seconds(deadline.tv_sec) + std::chrono::nanoseconds(deadline.tv_nsec));
            return pending.wait_until(until) == std::future_status::timeout ? ETIMEDOUT : 0;
        });
        std::condition_variable condition;
        std::mutex std_mutex;
        ExpectDeadlineKept(CLOCK_MONOTONIC, "std::condition_variable::wait_until", [&](const timespec &deadline) {
            const auto until = std::chrono::steady_clock::time_point(
                std::chrono::seconds(deadline.tv_sec) + std::chrono::nanoseconds(deadline.tv_nsec));
            std::unique_lock<std::mutex> lock(std_mutex);
            std::cv_status status = std::cv_status::no_timeout;
            for (int wakes = 0; wakes < kSpuriousWakes && status == std::cv_status::no_timeout; ++wakes)
                status = condition.wait_until(lock, until);
            return status == std::cv_status::timeout ? ETIMEDOUT : 0;
        });

        // A timer descriptor set to an absolute time of the board.
        const int timer = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
        ASSERT_GE(timer, 0);
        ExpectDeadlineKept(CLOCK_MONOTONIC, "timerfd", [timer](const timespec &deadline) {
            itimerspec value{};
            value.it_value = deadline;
            if (timerfd_settime(timer, TFD_TIMER_ABSTIME, &value, nullptr) < 0)
                return errno;
            pollfd expired{timer, POLLIN, 0};
            return poll(&expired, 1, int(kGenerousNs / 1000000)) == 1 ? ETIMEDOUT : errno;
        });
        close(timer);
    }
}

TEST_F(BoardClockTest, FrameTimestampsAreTheBoardsMonotonicTime)
{
    const zsim::BoardClock board{5 * kSecond, 0};
    zsim::set_board_clock(board);
    VideoNode node("/dev/video0");
    ASSERT_EQ(zelisp_test::StreamAllQueued(node, 3), 0);
    pollfd ready{node.fd(), POLLIN, 0};
    ASSERT_EQ(poll(&ready, 1, 10000), 1);
    BufferRecord frame;
    ASSERT_EQ(node.Request(VIDIOC_DQBUF, &frame.buf), 0);
    const int64_t stamp = int64_t(frame.buf.timestamp.tv_sec) * kSecond + frame.buf.timestamp.tv_usec * 1000;
    // Taken before now on the board's clock, and five seconds past the host's.
    EXPECT_LE(stamp, Board(CLOCK_MONOTONIC));
    EXPECT_GT(stamp, Host(CLOCK_MONOTONIC) + 4 * kSecond);
    EXPECT_EQ(frame.buf.flags & V4L2_BUF_FLAG_TIMESTAMP_MASK, uint32_t(V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC));
}

} // namespace
