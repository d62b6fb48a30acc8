/*
 * encoder_choice.cpp - the encoders zelisp-rtsp knows, and the pick among
 * them.
 */
#include "encoder_choice.h"

#include <gst/gst.h>

namespace zrtsp {
namespace {

struct KnownEncoder {
    const char *codec;
    const char *name; // as --encoder takes it
    const char *element;
    bool hardware;
    const char *launch;
};

// Every H.264 stream is constrained baseline with a key frame every 30
// frames, whatever encoder makes it: any client decodes it, and a recorder
// that splits its files finds a key frame each second at 30 fps.
// Memory-to-memory encoders want a level in their caps; 4 covers 1080p30.
const KnownEncoder kEncoders[] = {
    {"h264", "v4l2", "v4l2h264enc", true,
     "v4l2h264enc extra-controls=\"controls,h264_i_frame_period=30\" ! "
     "video/x-h264,profile=constrained-baseline,level=(string)4"},
    {"h264", "x264", "x264enc", false,
     "x264enc tune=zerolatency speed-preset=ultrafast key-int-max=30 ! video/x-h264,profile=constrained-baseline"},
    {"h264", "openh264", "openh264enc", false,
     "openh264enc complexity=low gop-size=30 usage-type=camera ! video/x-h264,profile=constrained-baseline"},
    {"jpeg", "v4l2", "v4l2jpegenc", true, "v4l2jpegenc extra-controls=\"controls,compression_quality=85\""},
    {"jpeg", "jpegenc", "jpegenc", false, "jpegenc quality=85"},
};

bool element_exists(const char *element)
{
    GstElementFactory *factory = gst_element_factory_find(element);
    if (!factory)
        return false;
    gst_object_unref(factory);
    return true;
}

std::string codec_title(const std::string &codec)
{
    return codec == "jpeg" ? "JPEG" : "H.264";
}

std::string names_for(const std::string &codec)
{
    std::string names = "auto";
    for (const KnownEncoder &known : kEncoders)
        if (codec == known.codec)
            names += std::string(", ") + known.name;
    return names;
}

void fill(const KnownEncoder &known, EncoderChoice *choice)
{
    choice->element = known.element;
    choice->hardware = known.hardware;
    choice->launch = known.launch;
    bool jpeg = std::string(known.codec) == "jpeg";
    choice->payloader = jpeg ? "rtpjpegpay" : "rtph264pay config-interval=-1";
    choice->payload_type = jpeg ? 26 : 96;
}

} // namespace

bool choose_encoder(const std::string &codec, const std::string &wanted, EncoderChoice *choice, std::string *error)
{
    bool known_name = wanted == "auto";
    for (const KnownEncoder &known : kEncoders) {
        if (codec != known.codec || (wanted != "auto" && wanted != known.name))
            continue;
        known_name = true;
        if (element_exists(known.element)) {
            fill(known, choice);
            return true;
        }
        if (wanted == "v4l2") {
            *error = std::string("--encoder v4l2: this board has no V4L2 memory-to-memory ") + codec_title(codec) +
                     " encoder (GStreamer lists no " + known.element + ")";
            return false;
        }
        if (wanted != "auto") {
            *error = std::string("--encoder ") + wanted + ": GStreamer has no " + known.element +
                     " (install the plugin that brings it)";
            return false;
        }
    }
    if (!known_name)
        *error = "--encoder takes " + names_for(codec) + " with --codec " + codec + ", got '" + wanted + "'";
    else
        *error = "GStreamer has no " + codec_title(codec) + " encoder: install gstreamer1.0-plugins-ugly (x264enc) "
                 "or gstreamer1.0-plugins-bad (openh264enc), or gstreamer1.0-plugins-good for JPEG";
    return false;
}

std::string encoder_sentence(const std::string &codec, const std::string &wanted, const EncoderChoice &choice)
{
    std::string text = codec_title(codec) + " encoder: " + choice.element;
    if (choice.hardware)
        return text + " (the board's V4L2 memory-to-memory encoder)";
    if (wanted == "auto")
        return text + " (software: this board has no V4L2 memory-to-memory " + codec_title(codec) + " encoder)";
    return text + " (software)";
}

} // namespace zrtsp
