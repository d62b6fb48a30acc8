/*
 * mount_options.h - what zelisp-rtsp serves beyond one mount per camera:
 * the group mount and its trigger, the size of each mount's streams, the
 * encoder, and the clock the pipelines run on.
 */
#ifndef ZELISP_RTSP_MOUNT_OPTIONS_H
#define ZELISP_RTSP_MOUNT_OPTIONS_H

#include <map>
#include <string>
#include <vector>

#include "clock_choice.h"
#include "media_launch.h"

namespace zrtsp {

struct MountOptions {
    std::vector<int> group;         // members of the group mount, in stream order
    std::string trigger = "none";   // the group's trigger mode
    std::map<std::string, StreamSize> sizes; // by mount ("cam0", "group"); "" for every mount
    std::string encoder = "auto";
    int buffers = 0;                // capture buffers per camera; 0: the elements' default
    netclock::ClockChoice clock;
    double sync_timeout = 60;       // seconds to wait for the network clock at start
    std::string clock_status;       // file the clock state is written to; empty: none
};

// "--size [MOUNT=]WxH": MOUNT is camN or group; without it the size is every
// mount's. Sizes are even, 16..8192.
bool parse_size_option(const std::string &text, std::map<std::string, StreamSize> *sizes, std::string *error);

// "none", or "internal"/"external" with optionally their three numbers, as
// zelispgroupsrc's trigger takes it; commas count as blanks.
bool parse_trigger_option(const std::string &text, std::string *trigger, std::string *error);

// RTP carries a JPEG picture's size in steps of 8 pixels (RFC 2435): with
// --codec jpeg every size must be a multiple of 8.
bool sizes_fit_codec(const MountOptions &options, const std::string &codec, std::string *error);

// The size a mount streams at.
StreamSize size_of(const MountOptions &options, const std::string &mount);

// A --size names a mount that is not served.
bool sizes_name_served_mounts(const MountOptions &options, const std::vector<std::string> &mounts,
                              std::string *error);

} // namespace zrtsp

#endif
