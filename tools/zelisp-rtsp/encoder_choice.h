/*
 * encoder_choice.h - which encoder a mount's pipeline uses.
 *
 * A board with a video codec block exposes it as a V4L2 memory-to-memory
 * device, which GStreamer's v4l2 plugin registers as v4l2h264enc and
 * v4l2jpegenc: it encodes without loading the CPU, and is what "auto" takes
 * when it is there. Otherwise a software encoder does the work.
 */
#ifndef ZELISP_RTSP_ENCODER_CHOICE_H
#define ZELISP_RTSP_ENCODER_CHOICE_H

#include <string>

namespace zrtsp {

struct EncoderChoice {
    std::string element;  // the GStreamer element, "x264enc"
    bool hardware = false;
    std::string launch;   // the encoder's part of a launch line, ending in fixed encoded caps
    std::string payloader; // the RTP payloader that follows, without name and pt
    int payload_type = 96;
};

// The encoder for `codec` ("h264" or "jpeg") that `wanted` names: "auto",
// "v4l2", or a software encoder ("x264", "openh264" for H.264, "jpegenc"
// for JPEG). False with a sentence when the name is unknown or GStreamer
// lacks the element.
bool choose_encoder(const std::string &codec, const std::string &wanted, EncoderChoice *choice, std::string *error);

// "H.264 encoder: x264enc (software: this board has no V4L2 memory-to-memory H.264 encoder)"
std::string encoder_sentence(const std::string &codec, const std::string &wanted, const EncoderChoice &choice);

} // namespace zrtsp

#endif
