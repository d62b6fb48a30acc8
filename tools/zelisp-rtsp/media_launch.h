/*
 * media_launch.h - the media pipeline of each mount, as gst-rtsp-server's
 * launch syntax: the camera (zelispsrc) or the group (zelispgroupsrc), the
 * size the mount streams at, the chosen encoder and the RTP payloaders
 * pay0, pay1, ... one per stream of the session.
 */
#ifndef ZELISP_RTSP_MEDIA_LAUNCH_H
#define ZELISP_RTSP_MEDIA_LAUNCH_H

#include <string>
#include <vector>

#include "encoder_choice.h"

namespace zrtsp {

struct StreamSize {
    int width = 0; // 0: the camera's own size
    int height = 0;
};

// What the sources are set up with.
struct SourceSettings {
    StreamSize size;
    int buffers = 0; // capture buffers of each camera; 0: the element's default
};

// rtsp://HOST:PORT/camN: one stream. A size is asked of the ISP (the
// camera's view is set up at that size), so it costs no CPU.
std::string camera_launch(int camera, const SourceSettings &source, const EncoderChoice &encoder);

// rtsp://HOST:PORT/group: the members of one camera group as the streams of
// one session, in the order given, all buffers of one frame set with the
// same PTS. `trigger` is zelispgroupsrc's trigger ("none", "internal 0 0 0",
// "external 0 0 0"). A size is made by scaling each member's frames.
std::string group_launch(const std::vector<int> &cameras, const std::string &trigger, const SourceSettings &source,
                         const EncoderChoice &encoder);

} // namespace zrtsp

#endif
