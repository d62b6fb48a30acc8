/*
 * rig_summary.cpp - writing summary.json.
 */
#include "rig_summary.h"

#include <nlohmann/json.hpp>

#include <algorithm>

#include "clock_log.h"

namespace zrig {
namespace {

nlohmann::json clock_json(const SummaryInput &input)
{
    nlohmann::json clock = {{"clock", netclock::clock_name(input.options->clock)}, {"synced", input.clock_synced}};
    if (input.clock) {
        netclock::ClockState state = input.clock->state();
        clock["state"] = netclock::state_sentence(input.options->clock, state);
        clock["seconds_to_sync"] = state.seconds_to_sync < 0 ? nullptr : nlohmann::json(state.seconds_to_sync);
        clock["settled"] = state.settled;
        clock["seconds_to_settle"] = state.seconds_to_settle < 0 ? nullptr : nlohmann::json(state.seconds_to_settle);
        clock["grandmaster"] = state.grandmaster.empty() ? nullptr : nlohmann::json(state.grandmaster);
        clock["offset_ns"] = state.offset_ns;
        clock["path_delay_ns"] = state.path_delay_ns;
    }
    // A file's timestamps plus this are times on the clock.
    clock["base_time_ns"] = input.base_time_ns;
    return clock;
}

nlohmann::json stream_json(const SummaryStream &stream, double seconds)
{
    nlohmann::json json = {
        {"name", stream.info.name},
        {"stream", stream.info.index},
        {"encoding", stream.info.encoding},
        {"ts_refclk", stream.info.ts_refclk},
        {"mediaclk", stream.info.mediaclk},
        {"files", stream.info.files},
        {"frames", stream.frames},
        {"lost_frames", stream.lost_frames},
        {"state", stream.state},
    };
    json["fps"] = seconds > 0 ? double(stream.frames) / seconds : 0.0;
    // What a stream costs the network and the disk.
    json["bytes"] = stream.bytes;
    json["megabits_per_second"] = seconds > 0 ? double(stream.bytes) * 8 / seconds / 1e6 : 0.0;
    if (stream.state == "lost") {
        json["lost_at_seconds"] = stream.lost_at;
        json["reason"] = stream.reason;
    }
    return json;
}

} // namespace

std::string summary_json(const SummaryInput &input)
{
    nlohmann::json urls = nlohmann::json::array();
    for (size_t i = 0; i < input.options->urls.size(); ++i) {
        // In the session's order, whatever order the streams came in.
        std::vector<const SummaryStream *> of_url;
        for (const SummaryStream &stream : input.streams)
            if (stream.info.url == int(i))
                of_url.push_back(&stream);
        std::sort(of_url.begin(), of_url.end(),
                  [](const SummaryStream *a, const SummaryStream *b) { return a->info.index < b->info.index; });
        nlohmann::json streams = nlohmann::json::array();
        for (const SummaryStream *stream : of_url)
            streams.push_back(stream_json(*stream, input.seconds));
        urls.push_back({{"url", input.options->urls[i]}, {"streams", streams}});
    }
    const SkewTally &skews = *input.skews;
    nlohmann::json sets = {
        {"count", skews.sets()},
        {"complete", skews.complete_sets()},
        {"frame_period_ns", input.period_ns},
        {"skew_ns", {{"p50", skews.percentile_ns(50)}, {"p99", skews.percentile_ns(99)}, {"max", skews.max_ns()}}},
    };
    nlohmann::json summary = {
        {"clock", clock_json(input)},
        {"seconds", input.seconds},
        {"interrupted", input.interrupted},
        {"servers", urls},
        {"frame_sets", sets},
        {"problems", input.problems},
        {"exit_status", input.exit_status},
    };
    return summary.dump(2) + "\n";
}

} // namespace zrig
