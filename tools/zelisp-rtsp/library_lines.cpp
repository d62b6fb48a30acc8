/*
 * library_lines.cpp - the library's message handler of zelisp-rtsp.
 */
#include "library_lines.h"

#include <cstdio>

#include "zelisp.h"

namespace zrtsp {
namespace {

void to_stderr(const zelvideo::_isp_message_t *message, void *)
{
    std::fprintf(stderr, "%s\n", message->text);
}

} // namespace

void send_library_lines_to_stderr()
{
    isp_set_message_handler(to_stderr, nullptr);
}

} // namespace zrtsp
