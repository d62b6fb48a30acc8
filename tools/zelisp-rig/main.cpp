/*
 * zelisp-rig - records a rig of several boards on one clock:
 *
 *     zelisp-rig record --clock ptp:0 --out take1 --seconds 60 URL...
 *
 * Every URL is a zelisp-rtsp server (or any RTSP server with RFC 7273 clock
 * signalling); see record_options.cpp for the whole command line.
 */
#include <gst/gst.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "record_options.h"
#include "recorder.h"

namespace {

const char *kVersion = "zelisp-rig " ZELISP_VERSION;

} // namespace

int main(int argc, char **argv)
{
    if (argc >= 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
        std::fputs(zrig::record_help().c_str(), stdout);
        return zrig::kExitOk;
    }
    if (argc >= 2 && std::strcmp(argv[1], "--version") == 0) {
        std::printf("%s\n", kVersion);
        return zrig::kExitOk;
    }
    if (argc < 2 || std::strcmp(argv[1], "record") != 0) {
        std::fprintf(stderr, "zelisp-rig: the command is 'record' (zelisp-rig record --out FOLDER URL...; see "
                             "zelisp-rig --help)\n");
        return zrig::kExitUsage;
    }
    for (int i = 2; i < argc; ++i) {
        if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
            std::fputs(zrig::record_help().c_str(), stdout);
            return zrig::kExitOk;
        }
    }
    gst_init(nullptr, nullptr);
    zrig::RecordOptions options;
    std::string error;
    if (!zrig::parse_record_options(argc - 2, argv + 2, &options, &error)) {
        std::fprintf(stderr, "zelisp-rig: %s\n", error.c_str());
        return zrig::kExitUsage;
    }
    int status;
    {
        zrig::Recorder recorder(options);
        status = recorder.run();
    }
    gst_deinit();
    return status;
}
