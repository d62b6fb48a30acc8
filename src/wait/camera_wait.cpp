/*
 * camera_wait.cpp - sleeping until at least one of up to eight cameras has a
 * filled frame, so that one thread can serve several cameras. A camera node
 * turns readable when the driver holds a filled buffer (or reports an error
 * on the stream); the wait reports which cameras did and takes no frame.
 *
 * Readiness is asked with ppoll rather than select. A process that holds
 * many descriptors may get camera nodes numbered FD_SETSIZE (1024) or above,
 * and FD_SET on such a number writes outside the fd_set; ppoll takes any
 * descriptor with the same microsecond timeout. The answer is given as
 * select's read set would give it: readable includes hang-up and error, a
 * descriptor listed twice counts once, a closed descriptor fails the wait
 * (-1), and the time left is written back as Linux select does.
 */
#include <poll.h>
#include <sys/time.h>
#include <time.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>

#include "camera/isp_video.h"

namespace zelisp {

namespace {

constexpr int kMaxWaitCameras = 8;
constexpr short kReadable = POLLIN | POLLRDNORM | POLLHUP | POLLERR;
constexpr int64_t kMicrosPerSecond = 1000000;

int64_t MonotonicMicros()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t(now.tv_sec) * kMicrosPerSecond + now.tv_nsec / 1000;
}

bool ValidTimeval(const timeval &limit)
{
    return limit.tv_sec >= 0 && limit.tv_usec >= 0 && limit.tv_usec < kMicrosPerSecond;
}

timeval TimeLeft(const timeval &limit, int64_t elapsed_us)
{
    int64_t left = int64_t(limit.tv_sec) * kMicrosPerSecond + limit.tv_usec - elapsed_us;
    if (left < 0)
        left = 0;
    timeval result{};
    result.tv_sec = left / kMicrosPerSecond;
    result.tv_usec = left % kMicrosPerSecond;
    return result;
}

// ppoll with select's timeout contract: *timeout, when given, receives the
// time that was left (none after a timeout). An invalid limit fails with
// EINVAL and is left as it was.
int PollWithTimeout(pollfd *fds, int count, timeval *timeout)
{
    const nfds_t nfds = count > 0 ? nfds_t(count) : 0;
    if (timeout == nullptr)
        return ppoll(fds, nfds, nullptr, nullptr);
    const timeval limit = *timeout;
    const timespec poll_limit = {limit.tv_sec, limit.tv_usec * 1000};
    const int64_t start = MonotonicMicros();
    const int polled = ppoll(fds, nfds, &poll_limit, nullptr);
    const int poll_errno = errno;
    if (ValidTimeval(limit))
        *timeout = polled == 0 ? timeval{} : TimeLeft(limit, MonotonicMicros() - start);
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

} // namespace zelisp

int isp_camera_wait_for_data(const unsigned long *handles, int *ready, int count, struct timeval *timeout)
{
    using namespace zelisp;
    if (ready == nullptr || handles == nullptr || count > kMaxWaitCameras)
        return ISP_ERR_INVALID;
    for (int i = 0; i < count; ++i)
        if (handles[i] == 0)
            return ISP_ERR_INVALID;

    pollfd fds[kMaxWaitCameras] = {};
    for (int i = 0; i < count; ++i) {
        const int fd = VideoFromHandle(handles[i])->GetVideoFd();
        if (fd < 0) {
            printf("camera %dnot opened\n", i);
            fflush(stdout);
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
