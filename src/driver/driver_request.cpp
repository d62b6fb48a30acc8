/*
 * driver_request.cpp - the request-and-report procedure of the device
 * requests: every stream-setup, buffer, view and control request of a camera
 * that fails is told the same way.
 */
#include "driver/driver_request.h"

#include <cstdarg>

#include "driver/device_message.h"
#include "library/messages.h"
#include "zelisp.h"

namespace zelisp {

__attribute__((cold)) int RepeatInterruptedRequest(int fd, unsigned long request, void *record)
{
    int result;
    do {
        result = ioctl(fd, request, record);
    } while (result == -1 && errno == EINTR);
    return result;
}

int ReportedRequest(int fd, const char *dev_path, unsigned long request, void *record, const char *label,
                    const char *failure, ...)
{
    if (DriverRequest(fd, request, record, Retry::WhileInterrupted) >= 0)
        return ISP_OK;
    // Delivering a line keeps errno, so the system-error line names the
    // driver's refusal and the caller still finds it.
    va_list arguments;
    va_start(arguments, failure);
    VDeviceMessage(ISP_MESSAGE_FAILURE, dev_path, failure, arguments);
    va_end(arguments);
    if (label != nullptr)
        EmitSystemError(label, dev_path);
    return ISP_ERR_REQUEST;
}

} // namespace zelisp
