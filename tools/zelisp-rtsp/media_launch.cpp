/*
 * media_launch.cpp - launch lines of the camera and group mounts.
 */
#include "media_launch.h"

namespace zrtsp {
namespace {

std::string size_caps(const StreamSize &size)
{
    return "video/x-raw,width=" + std::to_string(size.width) + ",height=" + std::to_string(size.height);
}

// From raw frames to RTP: the encoder converts what it must (videoconvert
// passes the ISP's NV12 through to encoders that take it). The payloader
// makes RTP time from running time alone: its "perfect" time stamps (made
// for audio) report the running time in RTP clock units, and the server
// takes that report for nanoseconds when it states in the SDP how RTP time
// maps onto the clock (mediaclk), a few tens of milliseconds off.
std::string encode_and_pay(const EncoderChoice &encoder, int stream)
{
    return "videoconvert ! " + encoder.launch + " ! " + encoder.payloader + " name=pay" + std::to_string(stream) +
           " pt=" + std::to_string(encoder.payload_type) + " perfect-rtptime=false";
}

std::string buffers_property(const SourceSettings &source)
{
    return source.buffers > 0 ? " buffers=" + std::to_string(source.buffers) : "";
}

} // namespace

std::string camera_launch(int camera, const SourceSettings &source, const EncoderChoice &encoder)
{
    std::string line = "zelispsrc camera=" + std::to_string(camera) + buffers_property(source) + " ! ";
    if (source.size.width > 0)
        line += size_caps(source.size) + " ! ";
    return "( " + line + encode_and_pay(encoder, 0) + " )";
}

std::string group_launch(const std::vector<int> &cameras, const std::string &trigger, const SourceSettings &source,
                         const EncoderChoice &encoder)
{
    std::string list;
    for (int camera : cameras)
        list += (list.empty() ? "" : ",") + std::to_string(camera);
    std::string line =
        "( zelispgroupsrc name=group cameras=" + list + buffers_property(source) + " trigger=\"" + trigger + "\"";
    // One streaming thread feeds every member pad: a queue after each lets
    // the members' encoders run side by side.
    for (size_t i = 0; i < cameras.size(); ++i) {
        line += " group.src_" + std::to_string(cameras[i]) + " ! queue ! ";
        if (source.size.width > 0)
            line += "videoscale ! " + size_caps(source.size) + " ! ";
        line += encode_and_pay(encoder, int(i));
    }
    return line + " )";
}

} // namespace zrtsp
