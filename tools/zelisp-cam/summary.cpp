// summary.cpp - the capture summary as text.
#include "summary.h"

namespace zcam {
namespace {

const char *how(const CaptureRun &run)
{
    if (run.sets)
        return " as a group";
    return run.cameras.size() > 1 ? " with the multi-camera wait" : "";
}

unsigned long long ull(uint64_t value)
{
    return static_cast<unsigned long long>(value);
}

} // namespace

void print_summary(FILE *out, const CaptureRun &run)
{
    bool decimating = run.options.drop.has_value();
    fprintf(out, "\nzelisp-cam capture: %zu camera%s%s, %.2f s%s\n", run.cameras.size(),
            run.cameras.size() == 1 ? "" : "s", how(run), run.seconds, run.interrupted ? " (interrupted)" : "");
    fprintf(out, "%-7s %-13s %8s %8s %8s %8s%s\n", "CAMERA", "NODE", "FRAMES", "FPS", "REFUSED", "DROPPED",
            decimating ? " DECIMATED" : "");
    for (const CapturedCamera &camera : run.cameras) {
        const CameraStats &s = camera.stats;
        fprintf(out, "%-7d %-13s %8llu %8.2f %8llu %8llu", camera.camera, camera.node.c_str(), ull(s.frames()),
                s.fps(), ull(s.refused()), ull(s.dropped()));
        if (decimating)
            fprintf(out, " %9llu", ull(s.decimated()));
        fputc('\n', out);
    }
    if (run.sets) {
        fprintf(out, "frame sets: %llu complete, %llu incomplete; skew between members max %llu us, mean %.1f us\n",
                ull(run.sets->sets()), ull(run.sets->incomplete_sets()), ull(run.sets->max_skew_us()),
                run.sets->mean_skew_us());
    }
    if (run.options.writes_files()) {
        fprintf(out, "files: %zu written to %s\n", run.files.written().size(), run.options.out_dir.c_str());
        if (!run.files.contact_sheet().empty())
            fprintf(out, "contact sheet: %s\n", run.files.contact_sheet().c_str());
    }
    for (const std::string &problem : run.problems)
        fprintf(out, "not as asked: %s\n", problem.c_str());
}

} // namespace zcam
