/*
 * rig_options.cpp - reading zelisp-rtsp's rig options.
 */
#include "rig_options.h"

#include <algorithm>

#include "clock_choice.h"
#include "numbers.h"

namespace zrtsp {

RigTexts::~RigTexts()
{
    for (gchar *text : {group, trigger, encoder, clock, interface, clock_status})
        g_free(text);
    g_strfreev(sizes);
}

std::vector<GOptionEntry> rig_option_entries(RigTexts *rig)
{
    return {
        {"encoder", 0, 0, G_OPTION_ARG_STRING, &rig->encoder,
         "auto (default: the board's V4L2 memory-to-memory encoder if it has one, else software), v4l2, or a "
         "software encoder: x264 or openh264 (H.264), jpegenc (JPEG)",
         "ENCODER"},
        {"group", 'g', 0, G_OPTION_ARG_STRING, &rig->group,
         "Serve these cameras (up to 8, separated by commas) as one camera group at rtsp://HOST:PORT/group, one "
         "stream per member in this order, every frame set with one time stamp",
         "LIST"},
        {"trigger", 0, 0, G_OPTION_ARG_STRING, &rig->trigger,
         "The group's MIPI trigger mode: none (default), internal or external, optionally with its three "
         "parameters ('external 0 0 0'); external takes the frames on the board's trigger line",
         "MODE"},
        {"size", 0, 0, G_OPTION_ARG_STRING_ARRAY, &rig->sizes,
         "Stream size WIDTHxHEIGHT of every mount, or of one (cam2=640x360, group=320x180); may be repeated",
         "[MOUNT=]WxH"},
        {"buffers", 0, 0, G_OPTION_ARG_INT, &rig->buffers,
         "Capture buffers per camera, 3..8 (default 4): more ride out longer stalls of the encoders (a busy "
         "board) without losing a frame, at the cost of memory",
         "N"},
        {"clock", 0, 0, G_OPTION_ARG_STRING, &rig->clock,
         "Clock the pipelines run on and the SDP names (RFC 7273): system (default), ptp[:DOMAIN] (IEEE 1588, "
         "domain 0 by default) or ntp:HOST[:PORT]",
         "CLOCK"},
        {"interface", 0, 0, G_OPTION_ARG_STRING, &rig->interface,
         "Network interface of the PTP clock (default: every interface)", "IFACE"},
        {"sync-timeout", 0, 0, G_OPTION_ARG_DOUBLE, &rig->sync_timeout,
         "Seconds to wait for the network clock to sync before serving (default 60); the server exits if it "
         "does not",
         "SECONDS"},
        {"clock-status", 0, 0, G_OPTION_ARG_FILENAME, &rig->clock_status,
         "Keep the clock's state (synced, settled, grandmaster, offset, path delay) in this JSON file, rewritten "
         "every second",
         "FILE"},
        {nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr},
    };
}

bool parse_group(const char *text, std::vector<int> *cameras)
{
    for (const std::string &part : capture_syntax::split(text, ",")) {
        unsigned long long camera = 0;
        if (!capture_syntax::parse_unsigned(part, 11, &camera) ||
            std::find(cameras->begin(), cameras->end(), int(camera)) != cameras->end())
            return false;
        cameras->push_back(int(camera));
    }
    return !cameras->empty() && cameras->size() <= 8;
}

bool read_rig_options(const RigTexts &texts, MountOptions *options, std::string *error)
{
    if (texts.group && !parse_group(texts.group, &options->group)) {
        *error = std::string("--group takes up to 8 different cameras 0..11 separated by commas, got '") +
                 texts.group + "'";
        return false;
    }
    if (texts.trigger && !parse_trigger_option(texts.trigger, &options->trigger, error))
        return false;
    if (texts.trigger && options->group.empty()) {
        *error = "--trigger sets the group's trigger mode: it needs --group";
        return false;
    }
    for (gchar **size = texts.sizes; size && *size; ++size)
        if (!parse_size_option(*size, &options->sizes, error))
            return false;
    if (texts.encoder)
        options->encoder = texts.encoder;
    options->clock.interface = texts.interface ? texts.interface : "";
    if (texts.clock && !netclock::parse_clock_choice(texts.clock, &options->clock, error)) {
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

} // namespace zrtsp
