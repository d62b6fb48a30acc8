/*
 * camera_wait.cpp - sleeping until at least one of up to eight cameras has a
 * filled frame, so that one thread can serve several cameras. A camera node
 * turns readable when the driver holds a filled buffer (or reports an error
 * on the stream); the wait reports which cameras did and takes no frame.
 *
 * Readiness is asked with ppoll rather than select. A process that holds
 * many descriptors may get camera nodes numbered FD_SETSIZE (1024) or above,
 * and FD_SET on such a number writes outside the fd_set; ppoll takes any
 * descriptor. The answer is given as select's would be: readable includes
 * hang-up and error, a descriptor listed twice counts once, a closed
 * descriptor fails the wait (-1), the limit is read as Linux select reads
 * it and the time left is written back as Linux select does.
 */
#include <poll.h>
#include <sys/time.h>
#include <time.h>

#include <cerrno>
#include <climits>
#include <cstdint>

#include "camera/isp_video.h"
#include "library/messages.h"
#include "wait/camera_wait.h"

namespace zelisp {

namespace {

constexpr short kReadable = POLLIN | POLLRDNORM | POLLHUP | POLLERR;
constexpr long kMicrosPerSecond = 1000000;
constexpr long kNanosPerSecond = 1000000000;

// select carries whole seconds out of tv_usec ({0, 1200000} waits 1.2 s) and
// refuses a limit that is negative once carried. The carry saturates rather
// than overflow: a limit of LONG_MAX seconds is forever either way.
bool SelectLimit(const timeval &given, timespec *limit)
{
    const long carried = given.tv_usec / kMicrosPerSecond;
    long seconds = 0;
    if (__builtin_add_overflow(given.tv_sec, carried, &seconds))
        seconds = carried > 0 ? LONG_MAX : LONG_MIN;
    limit->tv_sec = seconds;
    limit->tv_nsec = (given.tv_usec % kMicrosPerSecond) * 1000;
    return limit->tv_sec >= 0 && limit->tv_nsec >= 0;
}

timespec Now()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now;
}

// limit - (end - start), never below zero. Computed on seconds and
// nanoseconds apart, so that no limit, however long, overflows.
timeval TimeLeft(const timespec &limit, const timespec &start, const timespec &end)
{
    long seconds = end.tv_sec - start.tv_sec;
    long nanos = end.tv_nsec - start.tv_nsec;
    if (nanos < 0) {
        nanos += kNanosPerSecond;
        --seconds;
    }
    long left_seconds = limit.tv_sec - seconds;
    long left_nanos = limit.tv_nsec - nanos;
    if (left_nanos < 0) {
        left_nanos += kNanosPerSecond;
        --left_seconds;
    }
    if (left_seconds < 0)
        return timeval{};
    return timeval{left_seconds, left_nanos / 1000};
}

// ppoll with select's timeout contract: *timeout, when given, receives the
// time that was left (none after a timeout). An invalid limit fails with
// EINVAL and is left as it was, as is a zero limit.
int PollWithTimeout(pollfd *fds, int count, timeval *timeout)
{
    const nfds_t nfds = count > 0 ? nfds_t(count) : 0;
    if (timeout == nullptr)
        return ppoll(fds, nfds, nullptr, nullptr);
    timespec limit{};
    if (!SelectLimit(*timeout, &limit)) {
        errno = EINVAL;
        return -1;
    }
    const timespec start = Now();
    const int polled = ppoll(fds, nfds, &limit, nullptr);
    const int poll_errno = errno;
    if (limit.tv_sec != 0 || limit.tv_nsec != 0)
        *timeout = polled == 0 ? timeval{} : TimeLeft(limit, start, Now());
    errno = poll_errno;
    return polled;
}

bool ListedBefore(const pollfd *fds, int position)
{
    for (int earlier = 0; earlier < position; ++earlier)
        if (fds[earlier].fd == fds[position].fd)
            return true;
    return false;
}

} // namespace

int WaitForCameras(const unsigned long *handles, int *ready, int count, timeval *timeout)
{
    pollfd fds[kMaxWaitCameras] = {};
    for (int i = 0; i < count; ++i) {
        const int fd = VideoFromHandle(handles[i])->GetVideoFd();
        if (fd < 0) {
            PrintLine(ISP_MESSAGE_FAILURE, nullptr, "camera %dnot opened", i);
            return ISP_ERR_INVALID;
        }
        ready[i] = 0;
        fds[i].fd = fd;
        fds[i].events = POLLIN;
    }

    const int polled = PollWithTimeout(fds, count, timeout);
    if (polled < 0)
        return errno == EINTR ? ISP_ERR_WAIT_INTERRUPTED : ISP_ERR_SELECT;
    if (polled == 0)
        return ISP_ERR_TIMEOUT;
    for (int i = 0; i < count; ++i)
        if (fds[i].revents & POLLNVAL) {
            errno = EBADF;
            return ISP_ERR_SELECT;
        }

    int ready_descriptors = 0;
    for (int i = 0; i < count; ++i) {
        if ((fds[i].revents & kReadable) == 0)
            continue;
        ready[i] = 1;
        if (!ListedBefore(fds, i))
            ++ready_descriptors;
    }
    return ready_descriptors;
}

} // namespace zelisp
