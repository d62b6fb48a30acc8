/*
 * client_limits.cpp - closing the RTSP clients past the most at once, and
 * those that hold a connection without starting a session.
 */
#include "client_limits.h"

#include <cstdio>
#include <memory>

namespace zrtsp {

namespace {

// The line about closed clients is printed at most this often: a flood of
// connections must not flood standard error too.
constexpr gint64 kRefusalLineEvery = 60 * G_USEC_PER_SEC;
// Set on a client once it has left, so that a late timer leaves it alone.
constexpr const char *kLeftKey = "zelisp-rtsp-left";

struct Guard {
    ClientLimits limits;
    unsigned clients = 0;
    gint64 last_refusal_line = -kRefusalLineEvery;
};
using SharedGuard = std::shared_ptr<Guard>;

bool has_left(GstRTSPClient *client)
{
    return g_object_get_data(G_OBJECT(client), kLeftKey) != nullptr;
}

gboolean close_client(gpointer client)
{
    if (!has_left(GST_RTSP_CLIENT(client)))
        gst_rtsp_client_close(GST_RTSP_CLIENT(client));
    return G_SOURCE_REMOVE;
}

gboolean close_if_sessionless(gpointer client)
{
    GList *sessions = gst_rtsp_client_session_filter(GST_RTSP_CLIENT(client), nullptr, nullptr);
    if (sessions == nullptr)
        close_client(client);
    g_list_free_full(sessions, g_object_unref);
    return G_SOURCE_REMOVE;
}

void say_closed(Guard &guard)
{
    gint64 now = g_get_monotonic_time();
    if (now - guard.last_refusal_line < kRefusalLineEvery)
        return;
    guard.last_refusal_line = now;
    std::fprintf(stderr, "zelisp-rtsp: a new client was closed: %u clients are connected already (--max-clients)\n",
                 guard.limits.max_clients);
}

void client_closed(GstRTSPClient *client, gpointer guard)
{
    g_object_set_data(G_OBJECT(client), kLeftKey, GINT_TO_POINTER(1));
    --(*static_cast<SharedGuard *>(guard))->clients;
}

void release_guard(gpointer guard, GClosure *)
{
    delete static_cast<SharedGuard *>(guard);
}

void client_connected(GstRTSPServer *, GstRTSPClient *client, gpointer data)
{
    const SharedGuard &guard = *static_cast<SharedGuard *>(data);
    ++guard->clients;
    g_signal_connect_data(client, "closed", G_CALLBACK(client_closed), new SharedGuard(guard), release_guard,
                          GConnectFlags(0));
    // Closed from the main loop rather than inside the signal that
    // announces the client, once the server has finished taking it in.
    if (guard->clients > guard->limits.max_clients) {
        say_closed(*guard);
        g_idle_add_full(G_PRIORITY_DEFAULT, close_client, g_object_ref(client), g_object_unref);
        return;
    }
    g_timeout_add_seconds_full(G_PRIORITY_DEFAULT, guard->limits.session_within_s, close_if_sessionless,
                               g_object_ref(client), g_object_unref);
}

} // namespace

void limit_clients(GstRTSPServer *server, const ClientLimits &limits)
{
    auto guard = std::make_shared<Guard>();
    guard->limits = limits;
    g_signal_connect_data(server, "client-connected", G_CALLBACK(client_connected), new SharedGuard(guard),
                          release_guard, GConnectFlags(0));
}

} // namespace zrtsp
