/*
 * messages.cpp - where the library's lines go: the application's message
 * handler, or the console.
 *
 * The handler is the one piece of process-wide state the library keeps. A
 * reader-writer lock guards it: every line holds it shared while it is
 * delivered (lines on several threads never wait for each other), and a new
 * handler is set under it exclusively, so that once the setter returns the
 * old handler has finished and is never called again, and its user data
 * may be freed. Lines are rare (progress at set-up, failures), so the lock
 * costs nothing on the frame path.
 */
#include "library/messages.h"

#include <pthread.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <iostream>

namespace zelisp {

namespace {

// Statically initialised: no constructor runs before main, and a handler
// may be set from any thread at any time.
pthread_rwlock_t route_lock = PTHREAD_RWLOCK_INITIALIZER;
isp_message_handler_t route_handler = nullptr;
void *route_user = nullptr;

void PrintOnConsole(Console console, const char *text)
{
    switch (console) {
    case Console::CppStream:
        std::cout << text << '\n';
        std::cout.flush();
        break;
    case Console::Stdio:
        fputs(text, stdout);
        fputc('\n', stdout);
        fflush(stdout);
        break;
    case Console::StdioWithoutEnd:
        fputs(text, stdout);
        break;
    }
}

// Hands the line to the handler, or lets print_on_console print it; the
// choice and the printing happen under the lock, so a line never goes to a
// handler that has already been replaced. errno is kept for the caller,
// which may still report it.
template <typename ConsolePrint>
void Deliver(const zelvideo::_isp_message_t &message, ConsolePrint print_on_console)
{
    const int saved_errno = errno;
    pthread_rwlock_rdlock(&route_lock);
    if (route_handler != nullptr)
        route_handler(&message, route_user);
    else
        print_on_console();
    pthread_rwlock_unlock(&route_lock);
    errno = saved_errno;
}

} // namespace

void SetMessageRoute(isp_message_handler_t handler, void *user)
{
    pthread_rwlock_wrlock(&route_lock);
    route_handler = handler;
    route_user = user;
    pthread_rwlock_unlock(&route_lock);
}

void EmitLine(IspMessageKind kind, Console console, const char *dev_path, const char *text)
{
    const zelvideo::_isp_message_t message{kind, 0, text, nullptr, dev_path};
    Deliver(message, [&] { PrintOnConsole(console, text); });
}

void PrintLine(IspMessageKind kind, const char *dev_path, const char *format, ...)
{
    char text[320];
    va_list arguments;
    va_start(arguments, format);
    const int written = vsnprintf(text, sizeof(text), format, arguments);
    if (written < 0)
        text[0] = '\0';
    va_end(arguments);
    EmitLine(kind, Console::Stdio, dev_path, text);
}

// perror's own rule: the label and ": " only when there is a label.
void EmitSystemError(const char *label, const char *dev_path)
{
    const int error_number = errno;
    char error_text[128];
    const char *reason = strerror_r(error_number, error_text, sizeof(error_text));
    char text[384];
    if (label != nullptr && label[0] != '\0')
        snprintf(text, sizeof(text), "%s: %s", label, reason);
    else
        snprintf(text, sizeof(text), "%s", reason);
    const zelvideo::_isp_message_t message{ISP_MESSAGE_SYSTEM_ERROR, error_number, text, label, dev_path};
    Deliver(message, [&] {
        errno = error_number;
        perror(label);
    });
}

} // namespace zelisp
