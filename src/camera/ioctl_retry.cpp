/*
 * ioctl_retry.cpp - the one path by which the camera talks to its node.
 *
 * A signal arriving while the driver works makes a request fail with EINTR
 * although nothing went wrong, so every request is simply issued again.
 * Failures are reported by the caller, which knows what was being done.
 */
#include <sys/ioctl.h>

#include <cerrno>

#include "isp_video.h"

namespace zelisp {

int IspVideo::IoctlRetry(int descriptor, unsigned long request, void *argument)
{
    int result;
    do {
        result = ioctl(descriptor, request, argument);
    } while (result == -1 && errno == EINTR);
    return result;
}

} // namespace zelisp
