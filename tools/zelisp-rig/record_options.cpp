/*
 * record_options.cpp - the command line of "zelisp-rig record".
 */
#include "record_options.h"

#include <gst/rtsp/gstrtspurl.h>

#include <cstdlib>
#include <cstring>

#include "url_recording.h"

namespace zrig {
namespace {

bool parse_number(const std::string &text, double low, double high, double *value)
{
    char *end = nullptr;
    double number = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !(number >= low && number <= high))
        return false;
    *value = number;
    return true;
}

struct Reader {
    int argc;
    char **argv;
    int at = 0;
    std::string *error;

    // The value of option `name`: "--name VALUE" or "--name=VALUE".
    bool value(const std::string &arg, const std::string &name, std::string *out, bool *matched)
    {
        *matched = false;
        if (arg == name) {
            *matched = true;
            if (at + 1 >= argc) {
                *error = name + " needs a value";
                return false;
            }
            *out = argv[++at];
            return true;
        }
        if (arg.compare(0, name.size() + 1, name + "=") == 0) {
            *matched = true;
            *out = arg.substr(name.size() + 1);
        }
        return true;
    }
};

struct NumberOption {
    const char *name;
    double low, high;
    const char *meaning;
    double *target;
};

} // namespace

bool valid_rtsp_url(const std::string &url)
{
    GstRTSPUrl *parsed = nullptr;
    if (gst_rtsp_url_parse(url.c_str(), &parsed) != GST_RTSP_OK)
        return false;
    bool good = parsed->host && *parsed->host && !(parsed->transports & GST_RTSP_LOWER_TRANS_TLS) &&
                url.find("://") != std::string::npos;
    gst_rtsp_url_free(parsed);
    return good;
}

bool parse_record_options(int argc, char **argv, RecordOptions *options, std::string *error)
{
    Reader reader{argc, argv, 0, error};
    std::string clock_text = "system", interface, transport = "tcp";
    double latency = options->latency_ms;
    const NumberOption numbers[] = {
        {"--seconds", 0, 1e7, "seconds to record, 0 for until interrupted", &options->seconds},
        {"--sync-timeout", 0.1, 3600, "seconds, more than 0 and up to 3600", &options->sync_timeout},
        {"--latency", 10, 60000, "milliseconds, 10..60000", &latency},
        {"--split-seconds", 0, 1e6, "seconds of video per file, 0 for one file", &options->split_seconds},
        {"--split-megabytes", 0, 1e6, "megabytes per file, 0 for one file", &options->split_megabytes},
        {"--stall-seconds", 0.5, 3600, "seconds, 0.5..3600", &options->stall_seconds},
        {"--connect-seconds", 0, 3600, "seconds, 0..3600", &options->connect_seconds},
    };
    const std::pair<const char *, std::string *> words[] = {
        {"--out", &options->out_dir}, {"--clock", &clock_text}, {"--interface", &interface}, {"--transport", &transport}};
    for (reader.at = 0; reader.at < argc; ++reader.at) {
        std::string arg = argv[reader.at], value;
        bool matched = false;
        for (const auto &word : words) {
            if (!reader.value(arg, word.first, word.second, &matched))
                return false;
            if (matched)
                break;
        }
        if (matched)
            continue;
        bool number_matched = false;
        for (const NumberOption &number : numbers) {
            if (!reader.value(arg, number.name, &value, &number_matched))
                return false;
            if (!number_matched)
                continue;
            if (!parse_number(value, number.low, number.high, number.target)) {
                *error = std::string(number.name) + " takes " + number.meaning + ", got '" + value + "'";
                return false;
            }
            break;
        }
        if (number_matched)
            continue;
        if (arg.compare(0, 2, "--") == 0 || (arg.size() > 1 && arg[0] == '-')) {
            *error = "unknown option '" + arg + "' (see zelisp-rig --help)";
            return false;
        }
        if (!valid_rtsp_url(arg)) {
            *error = "'" + arg + "' is not an RTSP URL: write rtsp://HOST[:PORT]/PATH, as zelisp-rtsp prints it";
            return false;
        }
        for (const std::string &earlier : options->urls) {
            if (url_file_name(earlier) == url_file_name(arg)) {
                *error = "'" + arg + "' names the same streams as '" + earlier + "': give each server once";
                return false;
            }
        }
        options->urls.push_back(arg);
    }
    if (options->urls.empty()) {
        *error = "no URL to record: give the servers' rtsp:// URLs (see zelisp-rig --help)";
        return false;
    }
    if (options->out_dir.empty()) {
        *error = "--out FOLDER is missing: the recording needs a folder";
        return false;
    }
    if (transport != "tcp" && transport != "udp") {
        *error = "--transport takes tcp or udp, got '" + transport + "'";
        return false;
    }
    options->tcp = transport == "tcp";
    options->latency_ms = int(latency);
    options->clock.interface = interface;
    if (!netclock::parse_clock_choice(clock_text, &options->clock, error)) {
        *error = "--clock: " + *error;
        return false;
    }
    if (!interface.empty() && options->clock.kind != netclock::ClockKind::Ptp) {
        *error = "--interface chooses the network interface of the PTP clock: it needs --clock ptp";
        return false;
    }
    return true;
}

std::string record_help()
{
    return R"(Usage: zelisp-rig record [OPTION...] --out FOLDER URL...
Records the streams of several boards' RTSP servers on one clock and lines
their frames up into frame sets.

Every stream of every URL is received with RFC 7273 synchronisation on the
rig's clock and written to its own Matroska file without re-encoding.
framesets.csv places every frame on the clock's time line and groups the
frames of one instant (within half a frame period) into frame sets, with
each set's skew and the streams missing from it; summary.json sums it up.
A status line on standard error shows streams, frame rate, lost frames and
the skew of the frame sets (median, 99th percentile, largest).

Options:
  --out FOLDER            where the recording goes (created; must not hold one)
  --clock CLOCK           system (default), ptp[:DOMAIN] or ntp:HOST[:PORT]:
                          the clock the servers run on (zelisp-rtsp --clock)
  --interface IFACE       network interface of the PTP clock (default: all)
  --seconds N             record N seconds from the first frame (default:
                          until Ctrl-C or SIGTERM)
  --sync-timeout N        seconds to wait for the clock to sync (default 30)
  --latency MS            receive buffer of each stream (default 2000): frames
                          a server delivers later than this are lost
  --transport tcp|udp     RTP over the RTSP connection (default tcp, which
                          loses nothing to a busy network) or over UDP
  --split-seconds N       start a new file every N seconds of video
  --split-megabytes N     start a new file every N megabytes
  --stall-seconds N       a stream without a frame for N seconds is lost
                          (default 5)
  --connect-seconds N     keep trying servers that refuse the connection for
                          N seconds at the start (default 10)
  -h, --help              this text
  --version               the version

Exit status:
  0   every stream recorded to the end
  1   a stream was lost or never came
  2   the command line is wrong
  3   the clock did not sync
  4   the output folder cannot be written, or already holds a recording

Examples:
  zelisp-rig record --clock ptp --seconds 60 --out take1 rtsp://b1:8554/group rtsp://b2:8554/group
      two boards' camera groups for a minute, on PTP domain 0
  zelisp-rig record --clock ptp --interface eth1 --split-seconds 600 --out day rtsp://b1:8554/group
      until Ctrl-C, a new file every ten minutes

See also: zelisp-rtsp(1); docs/multi-board.md in the project's sources.
)";
}

} // namespace zrig
