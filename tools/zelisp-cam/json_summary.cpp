// json_summary.cpp - the capture summary as JSON.
#include "json_summary.h"

#include <cmath>

#include "formats.h"

namespace zcam {

namespace {

// Figures to the precision they mean: frame rates to 0.01 fps, times to the
// millisecond, the mean skew to 0.1 µs.
double rounded(double value, double scale)
{
    return std::round(value * scale) / scale;
}

} // namespace

nlohmann::json summary_json(const CaptureRun &run)
{
    using nlohmann::json;
    json cameras = json::array();
    for (const CapturedCamera &camera : run.cameras) {
        json views = json::array();
        for (const ViewSlot &view : camera.views)
            views.push_back({{"view", view.view},
                             {"format", fourcc_name(view.format.format)},
                             {"width", view.format.width},
                             {"height", view.format.height}});
        const CameraStats &s = camera.stats;
        cameras.push_back({{"camera", camera.camera},
                           {"node", camera.node},
                           {"views", views},
                           {"frames", s.frames()},
                           {"fps", rounded(s.fps(), 100)},
                           {"refused", s.refused()},
                           {"refused_too_soon", s.refused_too_soon()},
                           {"refused_out_of_sequence", s.refused_out_of_sequence()},
                           {"dropped", s.dropped()},
                           {"decimated", s.decimated()},
                           {"first_sequence", s.first_sequence()},
                           {"last_sequence", s.last_sequence()}});
    }

    json summary = {{"library", isp_get_sdk_version()},
                    {"how", run.sets ? "group" : (run.cameras.size() > 1 ? "wait" : "single")},
                    {"seconds", rounded(run.seconds, 1000)},
                    {"interrupted", run.interrupted},
                    {"cameras", cameras}};
    if (run.sets)
        summary["group"] = {{"frame_sets", run.sets->sets()},
                            {"incomplete_sets", run.sets->incomplete_sets()},
                            {"skew_max_us", run.sets->max_skew_us()},
                            {"skew_mean_us", rounded(run.sets->mean_skew_us(), 10)}};
    summary["problems"] = run.problems;
    if (run.options.writes_files()) {
        summary["files"] = run.files.written();
        summary["contact_sheet"] = run.files.contact_sheet().empty() ? json(nullptr) : json(run.files.contact_sheet());
    }
    return summary;
}

} // namespace zcam
