/*
 * driver_request.h - the one way the library talks to a driver node, be it
 * a camera's /dev/video<n> or the platform's /dev/isp_misc.
 *
 * A signal arriving while the driver works makes a request fail with EINTR
 * although nothing went wrong. Whether the request is then issued again is a
 * decision about the node and the request, so every caller states it. The
 * request itself never prints: the caller knows what was being done and
 * reports it, usually through ReportedRequest.
 */
#ifndef ZELISP_DRIVER_DRIVER_REQUEST_H
#define ZELISP_DRIVER_DRIVER_REQUEST_H

#include <sys/ioctl.h>

#include <cerrno>

namespace zelisp {

enum class Retry {
    WhileInterrupted, // issued again for as long as it fails with EINTR
    Once,             // an interrupted request is a failure the caller sees
};

// Issues the request again for as long as it fails with EINTR.
int RepeatInterruptedRequest(int fd, unsigned long request, void *record);

// The driver's answer: 0 (or the request's own non-negative result), or -1
// with errno set. Inline, with the repeat out of line: it runs twice for
// every frame, and a signal during a request is rare.
inline int DriverRequest(int fd, unsigned long request, void *record, Retry retry)
{
    const int result = ioctl(fd, request, record);
    if (__builtin_expect(result == -1, 0) && retry == Retry::WhileInterrupted && errno == EINTR)
        return RepeatInterruptedRequest(fd, request, record);
    return result;
}

// A device request reported the library's way when the driver refuses it:
// the node path followed by the failure text as one failure line, then the
// system-error line of label naming the driver's refusal (unless label is
// null), on the console as perror(label) would print it. 0, or -11 after the report. Video nodes only:
// repeated while interrupted.
int ReportedRequest(int fd, const char *dev_path, unsigned long request, void *record, const char *label,
                    const char *failure, ...) __attribute__((format(printf, 6, 7)));

} // namespace zelisp

#endif
