/*
 * rig_options.h - zelisp-rtsp's options for a rig of several boards and
 * what a rig's board needs: the group mount and its trigger, sizes,
 * encoder, capture buffers, and the network clock.
 */
#ifndef ZELISP_RTSP_RIG_OPTIONS_H
#define ZELISP_RTSP_RIG_OPTIONS_H

#include <glib.h>

#include <string>
#include <vector>

#include "mount_options.h"

namespace zrtsp {

// The options' texts, as GOption fills them in.
struct RigTexts {
    gchar *group = nullptr, *trigger = nullptr, *encoder = nullptr, *clock = nullptr, *interface = nullptr,
          *clock_status = nullptr;
    gchar **sizes = nullptr;
    double sync_timeout = 60;
    int buffers = 0;
    RigTexts() = default;
    RigTexts(const RigTexts &) = delete;
    RigTexts &operator=(const RigTexts &) = delete;
    ~RigTexts();
};

// The option entries filling `texts`, ending in the null entry.
std::vector<GOptionEntry> rig_option_entries(RigTexts *texts);

// Checks and reads the texts; false with a sentence for the user.
bool read_rig_options(const RigTexts &texts, MountOptions *options, std::string *error);

// "0,1,2": up to 8 cameras 0..11, none twice.
bool parse_group(const char *text, std::vector<int> *cameras);

} // namespace zrtsp

#endif
