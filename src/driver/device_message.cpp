/*
 * device_message.cpp - the camera's console lines on std::cout.
 */
#include "driver/device_message.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <iostream>

namespace zelisp {

namespace {

void WriteLine(const char *dev_path, const char *text, size_t length)
{
    std::cout.write(dev_path, std::streamsize(std::strlen(dev_path)));
    std::cout.write(text, std::streamsize(length));
    std::cout.put('\n');
    std::cout.flush();
}

} // namespace

void VDeviceMessage(const char *dev_path, const char *format, va_list arguments)
{
    char text[256];
    int length = vsnprintf(text, sizeof(text), format, arguments);
    if (length < 0)
        length = 0;
    WriteLine(dev_path, text, std::min(size_t(length), sizeof(text) - 1));
}

void DeviceMessage(const char *dev_path, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    VDeviceMessage(dev_path, format, arguments);
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

void MessageLine::Print(const char *dev_path) const { WriteLine(dev_path, text_, length_); }

} // namespace zelisp
