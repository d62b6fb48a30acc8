/*
 * capture_run.h - the state one capture shares between its frame loop (one
 * camera, several cameras with the multi-camera wait, or a group) and its
 * outputs: files, progress line and summary.
 */
#ifndef ZELISP_CAM_CAPTURE_RUN_H
#define ZELISP_CAM_CAPTURE_RUN_H

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "capture_options.h"
#include "frame_files.h"
#include "library_lines.h"
#include "frame_stats.h"
#include "progress_line.h"
#include "zelisp.h"

namespace zcam {

struct CapturedCamera {
    int camera;
    std::string node;
    std::vector<ViewSlot> views; // the enabled views with the formats the driver reported
    CameraStats stats;
};

// The sequence number and capture time of a frame: the same in every
// enabled view's entry, so read from the first one.
inline uint32_t frame_sequence(const CapturedCamera &camera, const zelvideo::_isp_buf_t &frame)
{
    return frame.views[camera.views.front().view].sequence;
}
inline uint64_t frame_timestamp(const CapturedCamera &camera, const zelvideo::_isp_buf_t &frame)
{
    return frame.views[camera.views.front().view].timestamp;
}

class CaptureRun {
public:
    explicit CaptureRun(const CaptureOptions &options);

    const CaptureOptions &options;
    std::vector<CapturedCamera> cameras;
    std::optional<SetStats> sets; // group captures only
    FrameFiles files;
    ProgressLine progress;
    double seconds = 0;       // length of the frame loop
    bool interrupted = false; // stopped early by Ctrl-C
    // What the run did not get as asked (a refused trigger, a view format
    // or resize the driver did not keep): warned about as it happened,
    // listed in the summary, and the exit status (the first one's).
    std::vector<std::string> problems;
    int problem_status = 0;
    void problem(int status, const std::string &sentence);

    // Called once streaming is on.
    void start_clock();
    // Seconds since start_clock().
    double elapsed() const;
    // False once the time is up (--seconds) or Ctrl-C was pressed.
    bool time_left();
    // True when this camera has all the frames --frames asked for.
    bool camera_done(const CapturedCamera &camera) const;
    // Counts an accepted frame, writes it if --every selects it, and updates
    // the progress line. Returns "" or a file error.
    std::string accept(CapturedCamera &camera, const zelvideo::_isp_buf_t &frame);
    void stop_clock();

private:
    std::chrono::steady_clock::time_point start_;
};

// Installs the Ctrl-C handler that ends a capture early but cleanly.
void catch_interrupt();

// Reads the enabled views' formats of an initialised camera.
int read_view_formats(unsigned long handle, const CaptureOptions &options, std::vector<ViewSlot> *views);

// After a camera's set-up: whether the driver kept the view formats and
// the resize asked for. What it did not keep becomes a problem of the run;
// the resize is also described on standard output, asked for and got.
// Returns 0 or a failed read's status.
int check_setup(CaptureRun &run, unsigned long handle, int camera);

// The trigger calls of a camera or of a group, and the handle they take.
struct TriggerCall {
    const char *prefix; // "isp_set_" or "isp_group_set_", for the sentences
    int (*internal)(unsigned long, uint32_t, uint32_t, uint32_t);
    int (*external)(unsigned long, uint32_t, uint32_t, uint32_t);
    unsigned long handle;
};
inline TriggerCall camera_trigger(unsigned long camera)
{
    return {"isp_set_", isp_set_internal_trigger, isp_set_external_trigger, camera};
}
inline TriggerCall group_trigger(unsigned long group)
{
    return {"isp_group_set_", isp_group_set_internal_trigger, isp_group_set_external_trigger, group};
}

// Sets --trigger's mode. The library tells a refusal by the platform driver
// only in a line (the calls answer 0), so the call's lines are watched. A
// refusal is a problem of the run: the cameras then run free, not in step.
void set_trigger(CaptureRun &run, const TriggerCall &call);

// A frame getter of `camera` answered -11; `watch` kept the call's lines.
// A refusal (too soon, or out of sequence) is counted, and the library's
// line is shown for the camera's first refusal only: above the library's
// rate nearly every frame is refused, and the summary counts them all.
// Returns false when the lines hold no refusal: the dequeue itself failed
// (its lines are shown).
bool count_refusal(CapturedCamera &camera, const LineWatch &watch);

// After the frame loop: refused frames are a problem of the run, explained
// with what to do about them (--drop for a sensor faster than the library's
// 12 ms rule allows).
void judge_refusals(CaptureRun &run);

// The number of frames a camera may refuse in a row before the tool gives
// up: a driver that restarted its sequence numbers far below the last
// accepted one would otherwise keep the loop busy with refusals.
constexpr int kMaxRefusalsInARow = 100;

} // namespace zcam

#endif
