/*
 * state_rule.cpp - the lifecycle gate of cameras and groups, and the
 * camera's device messages.
 *
 * Every camera and group operation first checks that the object is in a
 * state that allows it; a refusal names the operation and the state number,
 * which is what an application developer sees on the console of the board.
 */
#include <cstdarg>

#include "driver/device_message.h"
#include "isp_video.h"
#include "library/messages.h"

namespace zelisp {

bool StateAllows(const char *operation, uint32_t state, uint32_t accepted_mask, const char *dev_path)
{
    if (state < 32 && (accepted_mask & StateBit(state)) != 0)
        return true;
    PrintLine(ISP_MESSAGE_FAILURE, dev_path, "%s: bad state %d", operation, int(state));
    return false;
}

void IspVideo::DeviceMessage(IspMessageKind kind, const char *format, ...) const
{
    va_list arguments;
    va_start(arguments, format);
    VDeviceMessage(kind, dev_path, format, arguments);
    va_end(arguments);
}

} // namespace zelisp
