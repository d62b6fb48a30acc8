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

// Sets the trigger mode through a camera handle, whose call answers with the
// driver's verdict. A refusal is a problem of the run: the cameras then run
// free, not in step.
void set_trigger(CaptureRun &run, unsigned long handle);

// The number of frames a camera may refuse in a row before the tool gives
// up: a driver whose dequeue keeps failing is also reported as -11.
constexpr int kMaxRefusalsInARow = 100;

} // namespace zcam

#endif
