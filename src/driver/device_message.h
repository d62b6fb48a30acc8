/*
 * device_message.h - how a camera's events reach the console: one line on
 * the C++ standard output stream, the node path directly followed by the
 * text, flushed at once.
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

namespace zelisp {

// dev_path, then the formatted text, then the line end; flushed.
void DeviceMessage(const char *dev_path, const char *format, ...) __attribute__((format(printf, 2, 3)));
void VDeviceMessage(const char *dev_path, const char *format, va_list arguments)
    __attribute__((format(printf, 2, 0)));

// A device line built from pieces without printf's format parsing, for the
// lines of the frame loop (a refused frame is printed while frames keep
// coming). Prints the same bytes "%s%u" would.
class MessageLine {
public:
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
