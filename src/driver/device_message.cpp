/*
 * device_message.cpp - a camera's lines, put together behind its node path.
 */
#include "driver/device_message.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>

#include "library/messages.h"

namespace zelisp {

void VDeviceMessage(IspMessageKind kind, const char *dev_path, const char *format, va_list arguments)
{
    char text[256];
    const int written = vsnprintf(text, sizeof(text), format, arguments);
    if (written < 0)
        text[0] = '\0';
    char line[MessageLine::kMaxDevPath + sizeof(text)];
    const size_t path_length = strnlen(dev_path, MessageLine::kMaxDevPath);
    std::memcpy(line, dev_path, path_length);
    std::memcpy(line + path_length, text, strnlen(text, sizeof(text) - 1) + 1);
    EmitLine(kind, Console::CppStream, dev_path, line);
}

void DeviceMessage(IspMessageKind kind, const char *dev_path, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    VDeviceMessage(kind, dev_path, format, arguments);
    va_end(arguments);
}

MessageLine &MessageLine::Text(const char *text)
{
    const size_t length = std::min(std::strlen(text), sizeof(text_) - length_);
    std::memcpy(text_ + length_, text, length);
    length_ += length;
    return *this;
}

MessageLine &MessageLine::Number(uint64_t value)
{
    const std::to_chars_result written = std::to_chars(text_ + length_, text_ + sizeof(text_), value);
    if (written.ec == std::errc())
        length_ = size_t(written.ptr - text_);
    return *this;
}

void MessageLine::Print(const char *dev_path) const
{
    char line[kMaxDevPath + sizeof(text_) + 1];
    const size_t path_length = strnlen(dev_path, kMaxDevPath);
    std::memcpy(line, dev_path, path_length);
    std::memcpy(line + path_length, text_, length_);
    line[path_length + length_] = '\0';
    EmitLine(ISP_MESSAGE_FAILURE, Console::CppStream, dev_path, line);
}

} // namespace zelisp
