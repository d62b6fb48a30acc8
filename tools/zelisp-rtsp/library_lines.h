/*
 * library_lines.h - where the camera library's lines go in zelisp-rtsp: to
 * standard error, as the console would show them, so that standard output
 * keeps only the server's own "serving" lines for the scripts that read it.
 * The GStreamer elements, once loaded, send the lines to GStreamer's debug
 * log instead.
 */
#ifndef ZELISP_RTSP_LIBRARY_LINES_H
#define ZELISP_RTSP_LIBRARY_LINES_H

namespace zrtsp {

void send_library_lines_to_stderr();

} // namespace zrtsp

#endif
