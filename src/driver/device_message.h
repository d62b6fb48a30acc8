/*
 * device_message.h - a camera's lines: the node path directly followed by
 * the text, as one line on the C++ standard output stream, flushed at once,
 * or handed to the application's message handler with the node path.
 *
 * The console of a board is often a pipe, and a line that sits in a buffer
 * is lost on a crash. Writing through std::cout lets an application that
 * redirects the stream, or turns off its sync with stdio, find the lines
 * where it expects them.
 */
#ifndef ZELISP_DRIVER_DEVICE_MESSAGE_H
#define ZELISP_DRIVER_DEVICE_MESSAGE_H

#include <cstdarg>
#include <cstddef>
#include <cstdint>

#include "zelisp.h"

namespace zelisp {

// dev_path, then the formatted text.
void DeviceMessage(IspMessageKind kind, const char *dev_path, const char *format, ...)
    __attribute__((format(printf, 3, 4)));
void VDeviceMessage(IspMessageKind kind, const char *dev_path, const char *format, va_list arguments)
    __attribute__((format(printf, 3, 0)));

// A failure line of the camera at dev_path built from pieces without
// printf's format parsing, for the lines of the frame loop (a refused frame
// is reported while frames keep coming). Holds the same bytes "%s%u" would.
class MessageLine {
public:
    // A node path is at most this long, its end included.
    static constexpr size_t kMaxDevPath = 32;

    MessageLine &Text(const char *text);
    MessageLine &Number(uint64_t value);
    void Print(const char *dev_path) const;

private:
    // Only the first length_ bytes are ever read; clearing the rest for
    // every refused frame would be work for nothing.
    // cppcheck-suppress uninitMemberVarPrivate
    char text_[192];
    size_t length_ = 0;
};

} // namespace zelisp

#endif
