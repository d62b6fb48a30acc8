/*
 * client_limits.h - how much of the server its RTSP clients may hold.
 *
 * gst-rtsp-server keeps every accepted connection until its client leaves,
 * however many there are. Connections that never ask for anything would use
 * up the process's descriptors, and at that limit the listening socket stays
 * readable while every accept fails: the main loop spins and no client gets
 * in. So a client must start a session soon after connecting, and past a
 * number of clients a new one is closed at once.
 */
#ifndef ZELISP_RTSP_CLIENT_LIMITS_H
#define ZELISP_RTSP_CLIENT_LIMITS_H

#include <gst/rtsp-server/rtsp-server.h>

namespace zrtsp {

struct ClientLimits {
    unsigned max_clients = 64;      // connected at once
    unsigned session_within_s = 10; // from connecting to a SETUP
};

// Watches the server's clients from now on (the server's main context).
void limit_clients(GstRTSPServer *server, const ClientLimits &limits);

} // namespace zrtsp

#endif
