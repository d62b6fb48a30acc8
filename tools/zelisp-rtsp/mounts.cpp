/*
 * mounts.cpp - planning the mounts and handing them to gst-rtsp-server.
 */
#include "mounts.h"

#include <algorithm>

namespace zrtsp {
namespace {

// The SDP ties the streams' RTP time to the clock through the pipeline's
// base time, stated once when a client asks for the description. The
// server then holds the prepared media paused until the client plays, and
// a pipeline takes a new base time at every PAUSED to PLAYING: every frame
// would land that pause earlier on the clock than it was taken. So the base
// time is fixed when the media is made, and running time runs on with the
// clock through any pause.
void hold_base_time(GstRTSPMediaFactory *, GstRTSPMedia *media, gpointer clock)
{
    GstElement *element = gst_rtsp_media_get_element(media);
    GstObject *pipeline = gst_object_get_parent(GST_OBJECT(element));
    if (pipeline) {
        gst_element_set_start_time(GST_ELEMENT(pipeline), GST_CLOCK_TIME_NONE);
        gst_element_set_base_time(GST_ELEMENT(pipeline), gst_clock_get_time(GST_CLOCK(clock)));
        gst_object_unref(pipeline);
    }
    gst_object_unref(element);
}

} // namespace

std::vector<Mount> plan_mounts(const std::vector<int> &cameras, const MountOptions &options,
                               const EncoderChoice &encoder)
{
    std::vector<Mount> mounts;
    for (int camera : cameras) {
        if (std::find(options.group.begin(), options.group.end(), camera) != options.group.end())
            continue;
        std::string name = "cam" + std::to_string(camera);
        mounts.push_back({name, camera_launch(camera, {size_of(options, name), options.buffers}, encoder)});
    }
    if (!options.group.empty())
        mounts.push_back(
            {"group", group_launch(options.group, options.trigger, {size_of(options, "group"), options.buffers}, encoder)});
    return mounts;
}

void add_mounts(GstRTSPServer *server, const std::vector<Mount> &mounts, GstClock *network_clock)
{
    GstRTSPMountPoints *points = gst_rtsp_server_get_mount_points(server);
    for (const Mount &mount : mounts) {
        GstRTSPMediaFactory *media = gst_rtsp_media_factory_new();
        gst_rtsp_media_factory_set_launch(media, mount.launch.c_str());
        // One capture per camera, whatever the number of clients.
        gst_rtsp_media_factory_set_shared(media, TRUE);
        if (network_clock) {
            gst_rtsp_media_factory_set_clock(media, network_clock);
            gst_rtsp_media_factory_set_publish_clock_mode(media, GST_RTSP_PUBLISH_CLOCK_MODE_CLOCK_AND_OFFSET);
            g_signal_connect(media, "media-configure", G_CALLBACK(hold_base_time), network_clock);
        }
        gst_rtsp_mount_points_add_factory(points, ("/" + mount.name).c_str(), media);
    }
    g_object_unref(points);
}

} // namespace zrtsp
