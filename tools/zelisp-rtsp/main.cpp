/*
 * zelisp-rtsp - serves the board's cameras over RTSP:
 *
 *     zelisp-rtsp [--cameras 0,1,2] [--group 0,1,2,3 --trigger external]
 *                 [--port 8554] [--codec h264|jpeg] [--encoder auto]
 *                 [--size [MOUNT=]WxH] [--clock system|ptp[:D]|ntp:HOST[:PORT]]
 *
 * Every camera is a mount rtsp://HOST:PORT/camN, made of zelispsrc and a
 * stock encoder and payloader: no protocol of our own, any RTSP client
 * (rtspsrc, ffplay, VLC) plays it. A camera group is one mount,
 * rtsp://HOST:PORT/group, whose session carries one stream per member. A
 * mount is shared: all its clients watch one capture, and the camera is
 * opened while at least one client plays. Without --cameras it serves every
 * camera the platform reports valid.
 *
 * On a rig of several boards every server runs its pipelines on one network
 * clock (PTP or NTP) and says so in its SDP, so that a recorder places the
 * frames of all boards on one time line.
 */
#include <gst/gst.h>
#include <gst/rtsp-server/rtsp-server.h>
#include <glib-unix.h>

#include <cstdio>
#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "clock_log.h"
#include "encoder_choice.h"
#include "library_lines.h"
#include "mount_options.h"
#include "mounts.h"
#include "network_clock.h"
#include "zelisp.h"

namespace {

struct Options {
    std::vector<int> cameras;
    int port = 8554;
    std::string codec = "h264";
    std::string address = "0.0.0.0";
};

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

// The cameras the ISP platform lists as valid, in its order.
std::vector<int> valid_cameras()
{
    uint32_t count = 0;
    std::vector<int> cameras;
    if (isp_get_valid_camera_count(&count) != ISP_OK || count == 0)
        return cameras;
    std::vector<zelvideo::_camera_info_t> records(count > 12 ? 12 : count);
    uint32_t filled = 0;
    if (isp_get_valid_camera_info(records.data(), uint32_t(records.size()), &filled) != ISP_OK)
        return cameras;
    for (uint32_t i = 0; i < filled && i < records.size(); ++i)
        cameras.push_back(records[i].camera_index);
    return cameras;
}

gboolean quit(gpointer loop)
{
    g_main_loop_quit(static_cast<GMainLoop *>(loop));
    return G_SOURCE_REMOVE;
}

// The options of a rig: group, trigger, sizes, encoder and clock.
struct RigTexts {
    gchar *group = nullptr, *trigger = nullptr, *encoder = nullptr, *clock = nullptr, *interface = nullptr,
          *clock_status = nullptr;
    gchar **sizes = nullptr;
    double sync_timeout = 60;
    int buffers = 0;
    ~RigTexts()
    {
        for (gchar *text : {group, trigger, encoder, clock, interface, clock_status})
            g_free(text);
        g_strfreev(sizes);
    }
};

bool read_rig_options(const RigTexts &texts, zrtsp::MountOptions *options, std::string *error)
{
    if (texts.group && !parse_cameras(texts.group, &options->group)) {
        *error = std::string("--group takes up to 8 different cameras 0..11 separated by commas, got '") +
                 texts.group + "'";
        return false;
    }
    std::vector<int> members = options->group;
    std::sort(members.begin(), members.end());
    if (options->group.size() > 8 || std::adjacent_find(members.begin(), members.end()) != members.end()) {
        *error = std::string("--group takes up to 8 different cameras 0..11 separated by commas, got '") +
                 texts.group + "'";
        return false;
    }
    if (texts.trigger && !zrtsp::parse_trigger_option(texts.trigger, &options->trigger, error))
        return false;
    if (texts.trigger && options->group.empty()) {
        *error = "--trigger sets the group's trigger mode: it needs --group";
        return false;
    }
    for (gchar **size = texts.sizes; size && *size; ++size)
        if (!zrtsp::parse_size_option(*size, &options->sizes, error))
            return false;
    if (texts.encoder)
        options->encoder = texts.encoder;
    options->clock.interface = texts.interface ? texts.interface : "";
    if (texts.clock && !netclock::parse_clock_spec(texts.clock, &options->clock, error)) {
        *error = "--clock: " + *error;
        return false;
    }
    if (texts.interface && options->clock.kind != netclock::ClockKind::Ptp) {
        *error = "--interface chooses the network interface of the PTP clock: it needs --clock ptp";
        return false;
    }
    if (texts.sync_timeout <= 0 || texts.sync_timeout > 3600) {
        *error = "--sync-timeout takes seconds, more than 0 and up to 3600";
        return false;
    }
    options->sync_timeout = texts.sync_timeout;
    if (texts.buffers != 0 && (texts.buffers < 3 || texts.buffers > 8)) {
        *error = "--buffers takes 3..8 capture buffers per camera, got " + std::to_string(texts.buffers);
        return false;
    }
    options->buffers = texts.buffers;
    options->clock_status = texts.clock_status ? texts.clock_status : "";
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    gchar *cameras_text = nullptr, *codec_text = nullptr, *address_text = nullptr;
    Options options;
    RigTexts rig;
    GOptionEntry entries[] = {
        {"cameras", 'c', 0, G_OPTION_ARG_STRING, &cameras_text,
         "Cameras to serve, numbers 0..11 separated by commas (default: every valid camera)", "LIST"},
        {"port", 'p', 0, G_OPTION_ARG_INT, &options.port, "TCP port of the RTSP server (default 8554; 0: any free port)",
         "PORT"},
        {"codec", 0, 0, G_OPTION_ARG_STRING, &codec_text, "h264 (default) or jpeg", "CODEC"},
        {"encoder", 0, 0, G_OPTION_ARG_STRING, &rig.encoder,
         "auto (default: the board's V4L2 memory-to-memory encoder if it has one, else software), v4l2, or a "
         "software encoder: x264 or openh264 (H.264), jpegenc (JPEG)",
         "ENCODER"},
        {"address", 0, 0, G_OPTION_ARG_STRING, &address_text, "Address to listen on (default 0.0.0.0)", "ADDRESS"},
        {"group", 'g', 0, G_OPTION_ARG_STRING, &rig.group,
         "Serve these cameras (up to 8, separated by commas) as one camera group at rtsp://HOST:PORT/group, one "
         "stream per member in this order, every frame set with one time stamp",
         "LIST"},
        {"trigger", 0, 0, G_OPTION_ARG_STRING, &rig.trigger,
         "The group's MIPI trigger mode: none (default), internal or external, optionally with its three "
         "parameters ('external 0 0 0'); external takes the frames on the board's trigger line",
         "MODE"},
        {"size", 0, 0, G_OPTION_ARG_STRING_ARRAY, &rig.sizes,
         "Stream size WIDTHxHEIGHT of every mount, or of one (cam2=640x360, group=320x180); may be repeated",
         "[MOUNT=]WxH"},
        {"buffers", 0, 0, G_OPTION_ARG_INT, &rig.buffers,
         "Capture buffers per camera, 3..8 (default 4): more ride out longer stalls of the encoders (a busy "
         "board) without losing a frame, at the cost of memory",
         "N"},
        {"clock", 0, 0, G_OPTION_ARG_STRING, &rig.clock,
         "Clock the pipelines run on and the SDP names (RFC 7273): system (default), ptp[:DOMAIN] (IEEE 1588, "
         "domain 0 by default) or ntp:HOST[:PORT]",
         "CLOCK"},
        {"interface", 0, 0, G_OPTION_ARG_STRING, &rig.interface,
         "Network interface of the PTP clock (default: every interface)", "IFACE"},
        {"sync-timeout", 0, 0, G_OPTION_ARG_DOUBLE, &rig.sync_timeout,
         "Seconds to wait for the network clock to sync before serving (default 60); the server exits if it "
         "does not",
         "SECONDS"},
        {"clock-status", 0, 0, G_OPTION_ARG_FILENAME, &rig.clock_status,
         "Keep the clock's state (synced, grandmaster, offset, path delay) in this JSON file, rewritten every "
         "second",
         "FILE"},
        {nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr},
    };
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
    g_option_context_add_group(context, gst_init_get_option_group());
    GError *error = nullptr;
    if (!g_option_context_parse(context, &argc, &argv, &error)) {
        std::fprintf(stderr, "zelisp-rtsp: %s\n", error->message);
        g_error_free(error);
        g_option_context_free(context);
        return 2;
    }
    g_option_context_free(context);
    zrtsp::send_library_lines_to_stderr();
    if (codec_text)
        options.codec = codec_text;
    if (address_text)
        options.address = address_text;
    if (options.codec != "h264" && options.codec != "jpeg") {
        std::fprintf(stderr, "zelisp-rtsp: --codec takes h264 or jpeg, got '%s'\n", options.codec.c_str());
        return 2;
    }
    if (options.port < 0 || options.port > 65535) {
        std::fprintf(stderr, "zelisp-rtsp: --port takes 0..65535, got %d\n", options.port);
        return 2;
    }
    if (cameras_text && !parse_cameras(cameras_text, &options.cameras)) {
        std::fprintf(stderr, "zelisp-rtsp: --cameras takes numbers 0..11 separated by commas, got '%s'\n",
                     cameras_text);
        return 2;
    }
    bool cameras_given = cameras_text != nullptr;
    g_free(cameras_text);
    g_free(codec_text);
    g_free(address_text);
    zrtsp::MountOptions mount_options;
    std::string problem;
    if (!read_rig_options(rig, &mount_options, &problem)) {
        std::fprintf(stderr, "zelisp-rtsp: %s\n", problem.c_str());
        return 2;
    }
    if (!cameras_given)
        options.cameras = valid_cameras();
    if (options.cameras.empty() && mount_options.group.empty()) {
        std::fprintf(stderr, "zelisp-rtsp: no camera to serve (the platform reports none valid)\n");
        return 1;
    }
    GstElementFactory *factory = gst_element_factory_find("zelispsrc");
    if (!factory) {
        std::fprintf(stderr, "zelisp-rtsp: GStreamer has no zelispsrc: install the zelisp plugin, or point "
                             "GST_PLUGIN_PATH at the build's gst/ folder\n");
        return 1;
    }
    gst_object_unref(factory);
    zrtsp::EncoderChoice encoder;
    if (!zrtsp::choose_encoder(options.codec, mount_options.encoder, &encoder, &problem)) {
        std::fprintf(stderr, "zelisp-rtsp: %s\n", problem.c_str());
        return 2;
    }
    std::vector<zrtsp::Mount> mounts = zrtsp::plan_mounts(options.cameras, mount_options, encoder);
    std::vector<std::string> names;
    for (const zrtsp::Mount &mount : mounts)
        names.push_back(mount.name);
    if (!zrtsp::sizes_name_served_mounts(mount_options, names, &problem)) {
        std::fprintf(stderr, "zelisp-rtsp: %s\n", problem.c_str());
        return 2;
    }
    std::fprintf(stderr, "zelisp-rtsp: %s\n",
                 zrtsp::encoder_sentence(options.codec, mount_options.encoder, encoder).c_str());

    // The network clock is synced before any frame is stamped on it: a
    // board serving frames on a clock still looking for its grandmaster would
    // hand out times a recorder cannot trust.
    std::unique_ptr<netclock::NetworkClock> clock;
    std::unique_ptr<netclock::ClockLog> clock_log;
    if (mount_options.clock.kind != netclock::ClockKind::System || !mount_options.clock_status.empty()) {
        clock = netclock::NetworkClock::create(mount_options.clock, &problem);
        if (clock) {
            clock_log.reset(new netclock::ClockLog(*clock, "zelisp-rtsp", mount_options.clock_status));
            clock_log->start();
        }
        if (clock && !clock->wait_for_sync(mount_options.sync_timeout, &problem))
            clock.reset();
        if (!clock) {
            clock_log.reset();
            std::fprintf(stderr, "zelisp-rtsp: %s\n", problem.c_str());
            return 1;
        }
    }

    GstRTSPServer *server = gst_rtsp_server_new();
    gst_rtsp_server_set_address(server, options.address.c_str());
    gst_rtsp_server_set_service(server, std::to_string(options.port).c_str());
    zrtsp::add_mounts(server, mounts, clock && clock->is_network() ? clock->clock() : nullptr);
    if (gst_rtsp_server_attach(server, nullptr) == 0) {
        std::fprintf(stderr, "zelisp-rtsp: cannot listen on %s:%d\n", options.address.c_str(), options.port);
        g_object_unref(server);
        return 1;
    }
    int port = gst_rtsp_server_get_bound_port(server);
    std::string host = options.address == "0.0.0.0" ? "127.0.0.1" : options.address;
    for (const zrtsp::Mount &mount : mounts)
        std::printf("zelisp-rtsp: serving rtsp://%s:%d/%s\n", host.c_str(), port, mount.name.c_str());
    std::fflush(stdout);

    GMainLoop *loop = g_main_loop_new(nullptr, FALSE);
    g_unix_signal_add(SIGINT, quit, loop);
    g_unix_signal_add(SIGTERM, quit, loop);
    g_main_loop_run(loop);
    g_main_loop_unref(loop);
    g_object_unref(server);
    return 0;
}
