/*
 * clock_interpose.cpp - the C library's clock readings and absolute waits,
 * on the board's time (board_clock.h).
 *
 * A reading of a board clock is the host's reading shifted. A deadline is a
 * time on some clock: a program computes it from a reading of the board's
 * clock, and the kernel waits until its own clock reaches it, so every
 * function that takes one gets it translated to the host's time first
 * (clock_nanosleep with TIMER_ABSTIME, the timed and clock waits of
 * conditions, semaphores, mutexes, read-write locks and joins, absolute
 * timer descriptors, and the futex waits programs make through syscall():
 * GStreamer's system clock and libstdc++'s futures wait that way). Relative
 * waits pass untouched: they last host time, whatever the board's drift.
 *
 * With the board on the host's time (no offset, no drift) every function
 * passes straight through after one relaxed load.
 */
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <linux/futex.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include "board_clock.h"
#include "real_libc.h"

using namespace zsim::detail;
namespace real = zsim::real;

namespace {

constexpr long kBillion = 1000000000;

bool board_time_here() { return board_clock_shifted() && !this_thread_keeps_host_time(); }

int64_t nanoseconds(const timespec &time) { return int64_t(time.tv_sec) * kBillion + time.tv_nsec; }

timespec timespec_of(int64_t ns)
{
    timespec time;
    time.tv_sec = time_t(ns / kBillion);
    time.tv_nsec = long(ns % kBillion);
    if (time.tv_nsec < 0) {
        time.tv_nsec += kBillion;
        --time.tv_sec;
    }
    return time;
}

void shift_reading(clockid_t clock, timespec *now)
{
    if (now && board_time_here() && board_keeps(clock))
        *now = timespec_of(to_board(clock, nanoseconds(*now)));
}

// Deadlines this far ahead stand for "never" (programs pass the largest
// time they can); shifting them would overflow.
constexpr time_t kNever = time_t(1) << 33; // the year 2242

// A deadline on the board's `clock` as the host's: the original when there
// is nothing to translate, when it means never, or when it is malformed
// (the C library refuses it with EINVAL as it is).
const timespec *host_deadline(clockid_t clock, const timespec *deadline, timespec *storage)
{
    if (!deadline || !board_time_here() || !board_keeps(clock) || deadline->tv_nsec < 0 ||
        deadline->tv_nsec >= kBillion || deadline->tv_sec < 0 || deadline->tv_sec >= kNever)
        return deadline;
    *storage = timespec_of(to_host(clock, nanoseconds(*deadline)));
    return storage;
}

// glibc keeps the clock a condition variable was made for in bit 1 of its
// __wrefs word (pthread_condattr_setclock), the one place it is recorded.
clockid_t condition_clock(const pthread_cond_t *cond)
{
    return (__atomic_load_n(&cond->__data.__wrefs, __ATOMIC_RELAXED) & 2) ? CLOCK_MONOTONIC : CLOCK_REALTIME;
}

// The clock a timer descriptor counts, as the kernel shows it in
// /proc/self/fdinfo; -1 when it cannot be read.
clockid_t timer_descriptor_clock(int fd)
{
    char path[48];
    std::snprintf(path, sizeof path, "/proc/self/fdinfo/%d", fd);
    FILE *info = std::fopen(path, "re");
    if (!info)
        return -1;
    int clock = -1;
    char line[128];
    while (std::fgets(line, sizeof line, info))
        if (std::sscanf(line, "clockid: %d", &clock) == 1)
            break;
    std::fclose(info);
    return clock;
}

// The futex operations whose timeout is a deadline, and the clock it is on.
bool futex_deadline_clock(long operation, clockid_t *clock)
{
    const long command = operation & FUTEX_CMD_MASK;
    const bool realtime = operation & FUTEX_CLOCK_REALTIME;
    switch (command) {
    case FUTEX_WAIT_BITSET:
    case FUTEX_WAIT_REQUEUE_PI:
    case FUTEX_LOCK_PI2:
        *clock = realtime ? CLOCK_REALTIME : CLOCK_MONOTONIC;
        return true;
    case FUTEX_LOCK_PI:
        *clock = CLOCK_REALTIME;
        return true;
    default:
        return false;
    }
}

} // namespace

extern "C" {

int clock_gettime(clockid_t clock, struct timespec *now) noexcept
{
    const int result = real::clock_gettime(clock, now);
    if (result == 0)
        shift_reading(clock, now);
    return result;
}

int gettimeofday(struct timeval *__restrict given_now, void *__restrict zone) noexcept
{
    struct timeval *now = real::unchecked(given_now);
    if (!board_time_here() || !now)
        return real::gettimeofday(now, zone);
    timespec precise;
    if (clock_gettime(CLOCK_REALTIME, &precise) < 0)
        return -1;
    if (zone)
        std::memset(zone, 0, sizeof(struct timezone)); // Linux keeps no time zone: all zero
    now->tv_sec = precise.tv_sec;
    now->tv_usec = precise.tv_nsec / 1000;
    return 0;
}

time_t time(time_t *now) noexcept
{
    timespec precise;
    if (clock_gettime(CLOCK_REALTIME, &precise) < 0)
        return time_t(-1);
    if (now)
        *now = precise.tv_sec;
    return precise.tv_sec;
}

int timespec_get(struct timespec *now, int base) noexcept
{
    const int result = real::timespec_get(now, base);
    if (result == TIME_UTC)
        shift_reading(CLOCK_REALTIME, now);
    return result;
}

int clock_nanosleep(clockid_t clock, int flags, const struct timespec *request, struct timespec *remain)
{
    timespec host;
    if (flags & TIMER_ABSTIME)
        request = host_deadline(clock, request, &host);
    return real::clock_nanosleep(clock, flags, request, remain);
}

int pthread_cond_timedwait(pthread_cond_t *__restrict cond, pthread_mutex_t *__restrict mutex,
                           const struct timespec *__restrict deadline)
{
    timespec host;
    return real::pthread_cond_timedwait(cond, mutex, host_deadline(condition_clock(cond), deadline, &host));
}

int pthread_cond_clockwait(pthread_cond_t *__restrict cond, pthread_mutex_t *__restrict mutex, clockid_t clock,
                           const struct timespec *__restrict deadline)
{
    timespec host;
    return real::pthread_cond_clockwait(cond, mutex, clock, host_deadline(clock, deadline, &host));
}

int sem_timedwait(sem_t *__restrict sem, const struct timespec *__restrict deadline)
{
    timespec host;
    return real::sem_timedwait(sem, host_deadline(CLOCK_REALTIME, deadline, &host));
}

int sem_clockwait(sem_t *__restrict sem, clockid_t clock, const struct timespec *__restrict deadline)
{
    timespec host;
    return real::sem_clockwait(sem, clock, host_deadline(clock, deadline, &host));
}

int pthread_mutex_timedlock(pthread_mutex_t *__restrict mutex, const struct timespec *__restrict deadline) noexcept
{
    timespec host;
    return real::pthread_mutex_timedlock(mutex, host_deadline(CLOCK_REALTIME, deadline, &host));
}

int pthread_mutex_clocklock(pthread_mutex_t *__restrict mutex, clockid_t clock,
                            const struct timespec *__restrict deadline) noexcept
{
    timespec host;
    return real::pthread_mutex_clocklock(mutex, clock, host_deadline(clock, deadline, &host));
}

int pthread_rwlock_timedrdlock(pthread_rwlock_t *__restrict lock, const struct timespec *__restrict deadline) noexcept
{
    timespec host;
    return real::pthread_rwlock_timedrdlock(lock, host_deadline(CLOCK_REALTIME, deadline, &host));
}

int pthread_rwlock_timedwrlock(pthread_rwlock_t *__restrict lock, const struct timespec *__restrict deadline) noexcept
{
    timespec host;
    return real::pthread_rwlock_timedwrlock(lock, host_deadline(CLOCK_REALTIME, deadline, &host));
}

int pthread_rwlock_clockrdlock(pthread_rwlock_t *__restrict lock, clockid_t clock,
                               const struct timespec *__restrict deadline) noexcept
{
    timespec host;
    return real::pthread_rwlock_clockrdlock(lock, clock, host_deadline(clock, deadline, &host));
}

int pthread_rwlock_clockwrlock(pthread_rwlock_t *__restrict lock, clockid_t clock,
                               const struct timespec *__restrict deadline) noexcept
{
    timespec host;
    return real::pthread_rwlock_clockwrlock(lock, clock, host_deadline(clock, deadline, &host));
}

int pthread_timedjoin_np(pthread_t thread, void **result, const struct timespec *deadline)
{
    timespec host;
    return real::pthread_timedjoin_np(thread, result, host_deadline(CLOCK_REALTIME, deadline, &host));
}

int pthread_clockjoin_np(pthread_t thread, void **result, clockid_t clock, const struct timespec *deadline)
{
    timespec host;
    return real::pthread_clockjoin_np(thread, result, clock, host_deadline(clock, deadline, &host));
}

int timerfd_settime(int fd, int flags, const struct itimerspec *value, struct itimerspec *old) noexcept
{
    itimerspec host;
    if ((flags & TFD_TIMER_ABSTIME) && value && board_time_here() && (value->it_value.tv_sec || value->it_value.tv_nsec)) {
        host = *value;
        const timespec *deadline = host_deadline(timer_descriptor_clock(fd), &value->it_value, &host.it_value);
        if (deadline == &host.it_value)
            value = &host;
    }
    return real::timerfd_settime(fd, flags, value, old);
}

long syscall(long number, ...) noexcept
{
    // Six argument words, as the C library's own syscall() takes them
    // whatever the call passes.
    va_list list;
    va_start(list, number);
    long arg[6];
    for (long &each : arg)
        each = va_arg(list, long);
    va_end(list);
    clockid_t clock;
    timespec host;
    if (number == SYS_futex && arg[3] && futex_deadline_clock(arg[1], &clock))
        arg[3] = long(host_deadline(clock, reinterpret_cast<const timespec *>(arg[3]), &host));
    else if (number == SYS_clock_nanosleep && (arg[1] & TIMER_ABSTIME))
        arg[2] = long(host_deadline(clockid_t(arg[0]), reinterpret_cast<const timespec *>(arg[2]), &host));
    return real::syscall(number, arg[0], arg[1], arg[2], arg[3], arg[4], arg[5]);
}

} // extern "C"
