/*
 * mounts.h - the server's mounts: one per camera served alone, and the
 * group mount, each a shared media (one capture, whatever the number of
 * clients) on the rig's clock.
 */
#ifndef ZELISP_RTSP_MOUNTS_H
#define ZELISP_RTSP_MOUNTS_H

#include <gst/rtsp-server/rtsp-server.h>

#include <string>
#include <vector>

#include "encoder_choice.h"
#include "mount_options.h"

namespace zrtsp {

struct Mount {
    std::string name; // "cam0", "group": served at rtsp://HOST:PORT/<name>
    std::string launch;
};

// Cameras served alone get /camN (a camera in the group is served only
// through the group, since it can stream to one pipeline only), then the
// group /group.
std::vector<Mount> plan_mounts(const std::vector<int> &cameras, const MountOptions &options,
                               const EncoderChoice &encoder);

// Adds the mounts to the server. With a network clock every media pipeline
// runs on it and the SDP says so (RFC 7273: "a=ts-refclk" names the clock,
// "a=mediaclk:direct=" ties the RTP timestamps to it), so that a receiver
// places each frame on the clock's time line; null keeps the system clock
// ("a=ts-refclk:local").
void add_mounts(GstRTSPServer *server, const std::vector<Mount> &mounts, GstClock *network_clock);

} // namespace zrtsp

#endif
