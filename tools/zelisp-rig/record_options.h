/*
 * record_options.h - "zelisp-rig record": what to record, where, on which
 * clock and for how long.
 */
#ifndef ZELISP_RIG_RECORD_OPTIONS_H
#define ZELISP_RIG_RECORD_OPTIONS_H

#include <string>
#include <vector>

#include "clock_choice.h"

namespace zrig {

// Exit statuses of zelisp-rig.
constexpr int kExitOk = 0;
constexpr int kExitStreamLost = 1;    // a stream was lost or never came
constexpr int kExitUsage = 2;         // the command line is wrong
constexpr int kExitClockNotSynced = 3; // the network clock never synced
constexpr int kExitOutput = 4;        // the output folder cannot be written

struct RecordOptions {
    std::vector<std::string> urls;
    std::string out_dir;
    double seconds = 0;          // 0: until interrupted
    netclock::ClockChoice clock;
    double sync_timeout = 30;
    int latency_ms = 2000;
    bool tcp = true;
    double split_seconds = 0;    // 0: one file per stream
    double split_megabytes = 0;
    double stall_seconds = 5;    // a stream without a frame this long is lost
    double connect_seconds = 10; // how long a server may refuse the connection at start
};

// Parses the arguments after "record". False with a sentence for the user.
bool parse_record_options(int argc, char **argv, RecordOptions *options, std::string *error);

// The help text of "zelisp-rig --help" (also the manual page's source).
std::string record_help();

// An RTSP URL zelisp-rig can record: rtsp://, rtspt:// or rtspu:// with a host.
bool valid_rtsp_url(const std::string &url);

} // namespace zrig

#endif
