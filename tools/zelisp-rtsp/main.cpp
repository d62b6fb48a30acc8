/*
 * zelisp-rtsp - serves the board's cameras over RTSP:
 *
 *     zelisp-rtsp [--cameras 0,1,2] [--port 8554] [--codec h264|jpeg]
 *
 * Every camera is a mount rtsp://HOST:PORT/camN, made of zelispsrc and a
 * stock encoder and payloader: no protocol of our own, any RTSP client
 * (rtspsrc, ffplay, VLC) plays it. A mount is shared: all its clients watch
 * one capture, and the camera is opened while at least one client plays.
 * Without --cameras it serves every camera the platform reports valid.
 */
#include <gst/gst.h>
#include <gst/rtsp-server/rtsp-server.h>
#include <glib-unix.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

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

// The media pipeline of one mount: payloader pay0, as the server expects.
std::string launch_line(int camera, const std::string &codec)
{
    std::string source = "zelispsrc camera=" + std::to_string(camera) + " ! videoconvert ! ";
    if (codec == "jpeg")
        return "( " + source + "jpegenc quality=85 ! rtpjpegpay name=pay0 pt=26 )";
    return "( " + source +
           "video/x-raw,format=I420 ! x264enc tune=zerolatency speed-preset=ultrafast key-int-max=30 ! "
           "video/x-h264,profile=constrained-baseline ! "
           "rtph264pay name=pay0 pt=96 config-interval=-1 )";
}

gboolean quit(gpointer loop)
{
    g_main_loop_quit(static_cast<GMainLoop *>(loop));
    return G_SOURCE_REMOVE;
}

} // namespace

int main(int argc, char **argv)
{
    gchar *cameras_text = nullptr, *codec_text = nullptr, *address_text = nullptr;
    Options options;
    GOptionEntry entries[] = {
        {"cameras", 'c', 0, G_OPTION_ARG_STRING, &cameras_text,
         "Cameras to serve, numbers 0..11 separated by commas (default: every valid camera)", "LIST"},
        {"port", 'p', 0, G_OPTION_ARG_INT, &options.port, "TCP port of the RTSP server (default 8554; 0: any free port)",
         "PORT"},
        {"codec", 0, 0, G_OPTION_ARG_STRING, &codec_text, "h264 (default) or jpeg", "CODEC"},
        {"address", 0, 0, G_OPTION_ARG_STRING, &address_text, "Address to listen on (default 0.0.0.0)", "ADDRESS"},
        {nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr},
    };
    GOptionContext *context = g_option_context_new("- serve the ISP cameras over RTSP");
    g_option_context_set_summary(context, "Each camera N is served at rtsp://HOST:PORT/camN.");
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
    g_free(cameras_text);
    g_free(codec_text);
    g_free(address_text);
    if (options.cameras.empty())
        options.cameras = valid_cameras();
    if (options.cameras.empty()) {
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

    GstRTSPServer *server = gst_rtsp_server_new();
    gst_rtsp_server_set_address(server, options.address.c_str());
    gst_rtsp_server_set_service(server, std::to_string(options.port).c_str());
    GstRTSPMountPoints *mounts = gst_rtsp_server_get_mount_points(server);
    for (int camera : options.cameras) {
        GstRTSPMediaFactory *media = gst_rtsp_media_factory_new();
        gst_rtsp_media_factory_set_launch(media, launch_line(camera, options.codec).c_str());
        // One capture per camera, whatever the number of clients.
        gst_rtsp_media_factory_set_shared(media, TRUE);
        gst_rtsp_mount_points_add_factory(mounts, ("/cam" + std::to_string(camera)).c_str(), media);
    }
    g_object_unref(mounts);
    if (gst_rtsp_server_attach(server, nullptr) == 0) {
        std::fprintf(stderr, "zelisp-rtsp: cannot listen on %s:%d\n", options.address.c_str(), options.port);
        g_object_unref(server);
        return 1;
    }
    int port = gst_rtsp_server_get_bound_port(server);
    std::string host = options.address == "0.0.0.0" ? "127.0.0.1" : options.address;
    for (int camera : options.cameras)
        std::printf("zelisp-rtsp: serving rtsp://%s:%d/cam%d\n", host.c_str(), port, camera);
    std::fflush(stdout);

    GMainLoop *loop = g_main_loop_new(nullptr, FALSE);
    g_unix_signal_add(SIGINT, quit, loop);
    g_unix_signal_add(SIGTERM, quit, loop);
    g_main_loop_run(loop);
    g_main_loop_unref(loop);
    g_object_unref(server);
    return 0;
}
