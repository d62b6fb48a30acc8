/*
 * rig_summary.h - summary.json: what was recorded, on which clock, how the
 * frame sets came out, and what went wrong, in sentences.
 */
#ifndef ZELISP_RIG_RIG_SUMMARY_H
#define ZELISP_RIG_RIG_SUMMARY_H

#include <gst/gst.h>

#include <string>
#include <vector>

#include "frame_sets.h"
#include "network_clock.h"
#include "record_options.h"
#include "url_recording.h"

namespace zrig {

struct SummaryStream {
    StreamInfo info;
    uint64_t frames = 0;
    uint64_t lost_frames = 0;
    uint64_t bytes = 0; // of its recording's files
    std::string state; // "recorded" or "lost"
    double lost_at = -1;
    std::string reason;
};

struct SummaryInput {
    const RecordOptions *options = nullptr;
    const netclock::NetworkClock *clock = nullptr; // null when it could not be made
    bool clock_synced = false;
    GstClockTime base_time_ns = 0;
    double seconds = 0;
    bool interrupted = false;
    const SkewTally *skews = nullptr;
    int64_t period_ns = 0;
    std::vector<SummaryStream> streams;
    std::vector<std::string> problems;
    int exit_status = 0;
};

std::string summary_json(const SummaryInput &input);

} // namespace zrig

#endif
