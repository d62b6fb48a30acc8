/*
 * state_rule.cpp - the camera's lifecycle gate and its device messages.
 *
 * Every camera operation first checks that the object is in a state that
 * allows it; a refusal names the operation and the state number, which is
 * what an application developer sees on the console of the board.
 */
#include <cstdarg>
#include <cstdio>

#include "isp_video.h"

namespace zelisp {

bool IspVideo::StateAllows(const char *operation, uint32_t accepted_mask) const
{
    if (state < 32 && (accepted_mask & StateBit(state)) != 0)
        return true;
    printf("%s: bad state %d\n", operation, int(state));
    return false;
}

void IspVideo::DeviceMessage(const char *format, ...) const
{
    // One line per event, flushed at once: the console of a board is often
    // a pipe, and a line that sits in the buffer is lost on a crash.
    fputs(dev_path, stdout);
    va_list arguments;
    va_start(arguments, format);
    vprintf(format, arguments);
    va_end(arguments);
    putchar('\n');
    fflush(stdout);
}

} // namespace zelisp
