/*
 * messages.h - the one place every line of the library passes through, and
 * the one place that decides where it goes: to the message handler the
 * application set, or to the console as the library has always printed it.
 *
 * On a board the console is where a developer reads what the cameras did;
 * in an application with a user interface, a pipeline writing video to
 * standard output or a script piping its output, the same lines would be
 * noise in the data, so the application may take them over.
 */
#ifndef ZELISP_LIBRARY_MESSAGES_H
#define ZELISP_LIBRARY_MESSAGES_H

#include "zelisp.h"

namespace zelisp {

// How the console prints a line when no handler is set. A camera's lines go
// through the C++ standard output stream (an application that redirects the
// stream finds them there), the platform's and the groups' through C's
// stdout, which is where the board's vendors have always printed them.
enum class Console {
    CppStream,       // text, line end, flush of std::cout
    Stdio,           // text, line end, flush of stdout
    StdioWithoutEnd, // text only: one group refusal leaves its line open
};

// Sets the handler lines go to; null for the console.
void SetMessageRoute(isp_message_handler_t handler, void *user);

// One line of text (without its line end). dev_path names the camera the
// line is about, or is null.
void EmitLine(IspMessageKind kind, Console console, const char *dev_path, const char *text);

// A printf-formatted line on stdio, about the camera at dev_path or none.
void PrintLine(IspMessageKind kind, const char *dev_path, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

// What perror(label) prints for the current errno, for the camera at
// dev_path or for none.
void EmitSystemError(const char *label, const char *dev_path = nullptr);

} // namespace zelisp

#endif
