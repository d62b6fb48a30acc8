/*
 * zelisp-rtsp - serves the board's cameras over RTSP:
 *
 *     zelisp-rtsp [--cameras 0,1,2] [--group 0,1,2,3 --trigger external]
 *                 [--port 8554] [--codec h264|jpeg] [--encoder auto]
 *                 [--size [MOUNT=]WxH] [--clock system|ptp[:D]|ntp:HOST[:PORT]]
 *                 [--max-clients N]
 *
 * Every camera is a mount rtsp://HOST:PORT/camN, made of zelispsrc and a
 * stock encoder and payloader: no protocol of our own, any RTSP client
 * (rtspsrc, ffplay, VLC) plays it. A camera group is one mount,
 * rtsp://HOST:PORT/group, whose session carries one stream per member. A
 * mount is shared: all its clients watch one capture, and the camera is
 * opened while at least one client plays. Without --cameras it serves every
 * camera the platform reports valid; a camera asked for that the platform
 * does not list is skipped with a line.
 *
 * On a rig of several boards every server runs its pipelines on one network
 * clock (PTP or NTP) and says so in its SDP, so that a recorder places the
 * frames of all boards on one time line.
 *
 * The server runs in the main loop. SIGINT and SIGTERM end it: clients are
 * closed, their media stopped, and the process exits within two seconds even
 * if a media pipeline does not stop.
 */
#include <gst/gst.h>
#include <gst/rtsp-server/rtsp-server.h>
#include <glib-unix.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "camera_table.h"
#include "client_limits.h"
#include "clock_log.h"
#include "encoder_choice.h"
#include "mounts.h"
#include "network_clock.h"
#include "rig_options.h"
#include "zelisp.h"

namespace {

struct Options {
    std::vector<int> cameras; // empty: every valid camera
    int port = 8554;
    std::string codec = "h264";
    std::string address = "0.0.0.0";
    int max_clients = int(zrtsp::ClientLimits{}.max_clients);
    zrtsp::MountOptions rig; // group, sizes, encoder, clock
};

// How long the teardown after SIGINT or SIGTERM may take.
constexpr auto kMostTeardown = std::chrono::milliseconds(1800);

bool parse_cameras(const char *text, std::vector<int> *cameras)
{
    std::string list = text;
    size_t start = 0;
    while (start <= list.size()) {
        size_t end = list.find(',', start);
        std::string part = list.substr(start, end == std::string::npos ? std::string::npos : end - start);
        char *rest = nullptr;
        long camera = std::strtol(part.c_str(), &rest, 10);
        if (part.empty() || *rest != '\0' || camera < 0 || camera > 11)
            return false;
        cameras->push_back(int(camera));
        if (end == std::string::npos)
            break;
        start = end + 1;
    }
    return !cameras->empty();
}

std::string number_list(const std::vector<int> &numbers)
{
    std::string text;
    for (int number : numbers)
        text += (text.empty() ? "" : ",") + std::to_string(number);
    return text;
}

// Reads the options; 0 to go on, else the exit status (the line printed).
int parse_options(int *argc, char ***argv, Options *options)
{
    gchar *cameras_text = nullptr, *codec_text = nullptr, *address_text = nullptr;
    GOptionEntry entries[] = {
        {"cameras", 'c', 0, G_OPTION_ARG_STRING, &cameras_text,
         "Cameras to serve, numbers 0..11 separated by commas (default: every valid camera)", "LIST"},
        {"port", 'p', 0, G_OPTION_ARG_INT, &options->port,
         "TCP port of the RTSP server (default 8554; 0: any free port)", "PORT"},
        {"codec", 0, 0, G_OPTION_ARG_STRING, &codec_text, "h264 (default) or jpeg", "CODEC"},
        {"address", 0, 0, G_OPTION_ARG_STRING, &address_text, "Address to listen on (default 0.0.0.0)", "ADDRESS"},
        {"max-clients", 0, 0, G_OPTION_ARG_INT, &options->max_clients,
         "Clients connected at once, 1..512 (default 64); a client past them is closed at once", "N"},
        {nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr},
    };
    zrtsp::RigTexts rig;
    std::vector<GOptionEntry> rig_entries = zrtsp::rig_option_entries(&rig);
    GOptionContext *context = g_option_context_new("- serve the ISP cameras over RTSP");
    g_option_context_set_summary(context, "Each camera N is served at rtsp://HOST:PORT/camN, a camera group at "
                                          "rtsp://HOST:PORT/group.");
    g_option_context_set_description(
        context,
        "On a rig of several boards every server runs on one network clock: with --clock ptp each frame is\n"
        "stamped with its capture time on the PTP clock, and the SDP names the clock (RFC 7273 ts-refclk and\n"
        "mediaclk), so that a receiver such as zelisp-rig places the frames of all boards on one time line.\n"
        "The server serves once the clock has synced, and logs the clock's state on standard error.\n"
        "\n"
        "Examples:\n"
        "  zelisp-rtsp --cameras 0,1\n"
        "      cameras 0 and 1 at rtsp://HOST:8554/cam0 and /cam1, H.264\n"
        "  zelisp-rtsp --group 0,1,2,3 --trigger external --clock ptp --interface eth0\n"
        "      the four cameras as one group on the external trigger, on PTP domain 0\n"
        "\n"
        "See also: zelisp-rig(1), zelisp-cam(1); docs/gstreamer.md and docs/multi-board.md in the project's\n"
        "sources.");
    g_option_context_add_main_entries(context, entries, nullptr);
    g_option_context_add_main_entries(context, rig_entries.data(), nullptr);
    g_option_context_add_group(context, gst_init_get_option_group());
    GError *error = nullptr;
    bool parsed = g_option_context_parse(context, argc, argv, &error);
    g_option_context_free(context);
    int status = 0;
    if (!parsed) {
        std::fprintf(stderr, "zelisp-rtsp: %s\n", error->message);
        g_error_free(error);
        status = 2;
    }
    if (status == 0 && codec_text)
        options->codec = codec_text;
    if (status == 0 && address_text)
        options->address = address_text;
    if (status == 0 && options->codec != "h264" && options->codec != "jpeg") {
        std::fprintf(stderr, "zelisp-rtsp: --codec takes h264 or jpeg, got '%s'\n", options->codec.c_str());
        status = 2;
    }
    if (status == 0 && (options->port < 0 || options->port > 65535)) {
        std::fprintf(stderr, "zelisp-rtsp: --port takes 0..65535, got %d\n", options->port);
        status = 2;
    }
    if (status == 0 && (options->max_clients < 1 || options->max_clients > 512)) {
        std::fprintf(stderr, "zelisp-rtsp: --max-clients takes 1..512, got %d\n", options->max_clients);
        status = 2;
    }
    if (status == 0 && cameras_text && !parse_cameras(cameras_text, &options->cameras)) {
        std::fprintf(stderr, "zelisp-rtsp: --cameras takes numbers 0..11 separated by commas, got '%s'\n",
                     cameras_text);
        status = 2;
    }
    std::string problem;
    if (status == 0 && (!zrtsp::read_rig_options(rig, &options->rig, &problem) ||
                        !zrtsp::sizes_fit_codec(options->rig, options->codec, &problem))) {
        std::fprintf(stderr, "zelisp-rtsp: %s\n", problem.c_str());
        status = 2;
    }
    g_free(cameras_text);
    g_free(codec_text);
    g_free(address_text);
    return status;
}

// The cameras to mount: those asked for that exist (a line for each one
// skipped), or every valid one.
std::vector<int> cameras_to_serve(const std::vector<int> &asked)
{
    const CameraTable table = read_camera_table();
    if (!table.was_read()) {
        std::fprintf(stderr, "zelisp-rtsp: the ISP platform's camera table cannot be read (/dev/isp_misc)\n");
        return {};
    }
    if (asked.empty())
        return table.cameras;
    std::vector<int> served;
    for (int camera : asked) {
        if (table.lists(camera))
            served.push_back(camera);
        else
            std::fprintf(stderr, "zelisp-rtsp: camera %d skipped: the platform lists no such camera (it lists %s)\n",
                         camera, table.cameras.empty() ? "none" : number_list(table.cameras).c_str());
    }
    return served;
}

// The group's members must all be there: a group short of a camera is not
// the rig the user wired.
bool group_members_exist(const std::vector<int> &group)
{
    if (group.empty())
        return true;
    const CameraTable table = read_camera_table();
    if (!table.was_read()) {
        std::fprintf(stderr, "zelisp-rtsp: --group: the ISP platform's camera table cannot be read (/dev/isp_misc)\n");
        return false;
    }
    for (int camera : group) {
        if (!table.lists(camera)) {
            std::fprintf(stderr, "zelisp-rtsp: --group: the platform lists no camera %d (it lists %s)\n", camera,
                         table.cameras.empty() ? "none" : number_list(table.cameras).c_str());
            return false;
        }
    }
    return true;
}

// The network clock is synced before any frame is stamped on it: a board
// serving frames on a clock still looking for its grandmaster would hand out
// times a recorder cannot trust. Null, the reason printed, when it cannot.
std::unique_ptr<netclock::NetworkClock> start_clock(const zrtsp::MountOptions &rig,
                                                    std::unique_ptr<netclock::ClockLog> *log)
{
    std::string problem;
    auto clock = netclock::NetworkClock::create(rig.clock, &problem);
    if (clock) {
        log->reset(new netclock::ClockLog(*clock, "zelisp-rtsp", rig.clock_status));
        (*log)->start();
        if (!clock->wait_for_sync(rig.sync_timeout, &problem)) {
            log->reset();
            clock.reset();
        }
    }
    if (!clock)
        std::fprintf(stderr, "zelisp-rtsp: %s\n", problem.c_str());
    return clock;
}

gboolean quit(gpointer loop)
{
    g_main_loop_quit(static_cast<GMainLoop *>(loop));
    return G_SOURCE_REMOVE;
}

GstRTSPFilterResult close_client(GstRTSPServer *, GstRTSPClient *, gpointer)
{
    return GST_RTSP_FILTER_REMOVE;
}

GstRTSPFilterResult close_session(GstRTSPSessionPool *, GstRTSPSession *, gpointer)
{
    return GST_RTSP_FILTER_REMOVE;
}

// Closes every client and session, which stops their media. A pipeline
// that does not stop cannot keep the process: after kMostTeardown it exits.
void tear_down(GstRTSPServer *server, guint listening)
{
    std::mutex lock;
    std::condition_variable finished;
    bool done = false;
    std::thread watchdog([&] {
        std::unique_lock<std::mutex> guard(lock);
        if (!finished.wait_for(guard, kMostTeardown, [&] { return done; })) {
            std::fprintf(stderr, "zelisp-rtsp: the media did not stop in time; exiting\n");
            std::fflush(stderr);
            _exit(1);
        }
    });
    g_source_remove(listening);
    gst_rtsp_server_client_filter(server, close_client, nullptr);
    GstRTSPSessionPool *sessions = gst_rtsp_server_get_session_pool(server);
    g_list_free_full(gst_rtsp_session_pool_filter(sessions, close_session, nullptr), g_object_unref);
    g_object_unref(sessions);
    g_object_unref(server);
    {
        std::lock_guard<std::mutex> guard(lock);
        done = true;
    }
    finished.notify_all();
    watchdog.join();
}

} // namespace

int main(int argc, char **argv)
{
    Options options;
    if (int status = parse_options(&argc, &argv, &options))
        return status;
    GstElementFactory *factory = gst_element_factory_find("zelispsrc");
    if (!factory) {
        std::fprintf(stderr, "zelisp-rtsp: GStreamer has no zelispsrc: install the zelisp plugin, or point "
                             "GST_PLUGIN_PATH at the build's gst/ folder\n");
        return 1;
    }
    // Loaded now: the plugin sends the library's lines to GStreamer's log,
    // also those of the camera list below.
    GstPluginFeature *loaded = gst_plugin_feature_load(GST_PLUGIN_FEATURE(factory));
    gst_object_unref(factory);
    if (loaded)
        gst_object_unref(loaded);
    // A group's cameras are served through the group only.
    std::vector<int> cameras;
    if (!options.cameras.empty() || options.rig.group.empty())
        cameras = cameras_to_serve(options.cameras);
    if (!group_members_exist(options.rig.group))
        return 1;
    zrtsp::EncoderChoice encoder;
    std::string problem;
    if (!zrtsp::choose_encoder(options.codec, options.rig.encoder, &encoder, &problem)) {
        std::fprintf(stderr, "zelisp-rtsp: %s\n", problem.c_str());
        return 2;
    }
    std::vector<zrtsp::Mount> mounts = zrtsp::plan_mounts(cameras, options.rig, encoder);
    if (mounts.empty()) {
        std::fprintf(stderr, "zelisp-rtsp: no camera to serve\n");
        return 1;
    }
    std::vector<std::string> names;
    for (const zrtsp::Mount &mount : mounts)
        names.push_back(mount.name);
    if (!zrtsp::sizes_name_served_mounts(options.rig, names, &problem)) {
        std::fprintf(stderr, "zelisp-rtsp: %s\n", problem.c_str());
        return 2;
    }
    std::fprintf(stderr, "zelisp-rtsp: %s\n",
                 zrtsp::encoder_sentence(options.codec, options.rig.encoder, encoder).c_str());

    std::unique_ptr<netclock::ClockLog> clock_log;
    std::unique_ptr<netclock::NetworkClock> clock;
    if (options.rig.clock.kind != netclock::ClockKind::System || !options.rig.clock_status.empty()) {
        clock = start_clock(options.rig, &clock_log);
        if (!clock)
            return 1;
    }

    GstRTSPServer *server = gst_rtsp_server_new();
    gst_rtsp_server_set_address(server, options.address.c_str());
    gst_rtsp_server_set_service(server, std::to_string(options.port).c_str());
    zrtsp::add_mounts(server, mounts, clock && clock->is_network() ? clock->clock() : nullptr);
    zrtsp::ClientLimits limits;
    limits.max_clients = unsigned(options.max_clients);
    zrtsp::limit_clients(server, limits);
    // The server's listening source made here rather than by
    // gst_rtsp_server_attach(), which keeps the reason a bind failed to
    // itself.
    GError *error = nullptr;
    GSource *listener = gst_rtsp_server_create_source(server, nullptr, &error);
    if (!listener) {
        std::fprintf(stderr, "zelisp-rtsp: cannot listen on %s:%d: %s\n", options.address.c_str(), options.port,
                     error ? error->message : "no reason given");
        g_clear_error(&error);
        g_object_unref(server);
        return 1;
    }
    guint listening = g_source_attach(listener, nullptr);
    g_source_unref(listener);
    int port = gst_rtsp_server_get_bound_port(server);
    std::string host = options.address == "0.0.0.0" ? "127.0.0.1" : options.address;
    for (const zrtsp::Mount &mount : mounts)
        std::printf("zelisp-rtsp: serving rtsp://%s:%d/%s\n", host.c_str(), port, mount.name.c_str());
    std::fflush(stdout);

    GMainLoop *loop = g_main_loop_new(nullptr, FALSE);
    g_unix_signal_add(SIGINT, quit, loop);
    g_unix_signal_add(SIGTERM, quit, loop);
    g_main_loop_run(loop);
    tear_down(server, listening);
    g_main_loop_unref(loop);
    return 0;
}
