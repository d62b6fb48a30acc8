/*
 * camera_hub.h - the cameras of the web console. One capture thread owns
 * every camera: it sleeps in poll() on the cameras' descriptors and on a
 * wake-up descriptor, takes each frame, offers its views to the taps
 * (view_tap.h) and gives it straight back. Everything else that touches a
 * camera (controls, start and stop, a new view format) is a command on the
 * thread's bounded queue (command_queue.h), run between two frames, so no
 * camera is ever used from two threads and the thread never waits for a
 * browser.
 */
#ifndef ZELISP_CAM_CONSOLE_CAMERA_HUB_H
#define ZELISP_CAM_CONSOLE_CAMERA_HUB_H

#include <array>
#include <atomic>
#include <chrono>
#include <deque>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "camera_handle.h"
#include "capture_options.h"
#include "command_queue.h"
#include "event_log.h"
#include "frame_stats.h"
#include "view_tap.h"

namespace zcam {

struct HubOptions {
    std::vector<int> cameras; // empty: the cameras the platform lists
    bool group = false;
    std::optional<TriggerSetting> trigger;
    std::vector<int> views{0, 1, 2};
    int buffers = 4;
    size_t queue_capacity = 32;

    uint32_t combination() const;
};

// Frames per second over the last events noted (at most 64 of them).
class RateMeter {
public:
    void note(std::chrono::steady_clock::time_point when);
    double rate(std::chrono::steady_clock::time_point now) const;

private:
    std::deque<std::chrono::steady_clock::time_point> times_;
};

class CameraHub {
public:
    // `events` logs what the library says while frames are taken.
    CameraHub(HubOptions options, EventLog &events);
    ~CameraHub();
    CameraHub(const CameraHub &) = delete;
    CameraHub &operator=(const CameraHub &) = delete;

    // Opens and starts the cameras and the capture thread; prints why and
    // returns an exit status on failure (nothing is left open then).
    int start();
    // Stops the capture thread and closes every camera.
    void stop();

    const HubOptions &options() const { return options_; }
    // Whether the capture thread runs ahead of the console's other threads.
    bool priority_raised() const { return priority_raised_; }
    const std::vector<int> &cameras() const { return numbers_; }
    bool has_camera(int camera) const;
    std::string trigger_text() const;
    double uptime() const;

    struct ViewLayout {
        int view;
        zelvideo::_view_format_t format;
    };
    struct CameraLayout {
        int camera;
        bool running;
        std::vector<ViewLayout> views;
    };
    std::vector<CameraLayout> layout() const;
    std::optional<zelvideo::_view_format_t> view_format(int camera, int view) const;

    // Taps see every frame of their camera's view from the next one on; a
    // tap attached to a camera that has ended is told so at once.
    void attach(int camera, int view, std::shared_ptr<ViewTap> tap);
    void detach(int camera, int view, const ViewTap *tap);

    // Queues a command for the capture thread; false when the queue is full.
    bool submit(std::shared_ptr<Command> command);

    // ---- On the capture thread only (inside a command) ----
    unsigned long handle(int camera) const;
    // Starts or stops one camera (not in a group). "" or why not.
    std::string set_running(int camera, bool running);
    // Reopens the camera with a new format for one view, the others kept.
    // "" or why not (the camera then runs with its former formats).
    std::string set_view_format(int camera, int view, const zelvideo::_view_format_t &format);

    struct CameraFigures {
        int camera;
        bool running;
        uint64_t frames, refused, dropped;
        uint32_t last_sequence;
        int64_t last_capture_unix_us; // capture time of that frame on the system clock
        double fps;
        std::string error;
    };
    std::vector<CameraFigures> camera_figures() const;
    // Why the camera gives no more frames ("camera 1 stopped: taking a
    // frame: ..."), or "" while it can.
    std::string stop_reason(int camera) const;
    // The sequence number of the camera's latest frame, and whether it had one.
    bool last_sequence(int camera, uint32_t *sequence) const;
    struct GroupFigures {
        uint64_t sets, incomplete, max_skew_us;
        double mean_skew_us;
        std::vector<std::pair<double, uint64_t>> recent; // seconds since start, skew in microseconds
    };
    GroupFigures group_figures() const;

private:
    struct Camera;
    struct Totals {
        uint64_t frames = 0, refused = 0, dropped = 0;
    };
    // Setting up and closing (camera_setup.cpp).
    int list_cameras();
    int open_single();
    int open_group();
    int open_camera(Camera &camera);
    int read_views(Camera &camera);
    void close_all();
    void restart_counts(Camera &camera);
    void run(std::promise<int> &opened); // the capture thread, from setup to close
    // The capture thread (camera_hub.cpp).
    void capture_loop();
    void stream_loop();
    void group_loop();
    void run_commands();
    bool wait_for_frames(std::vector<Camera *> &cameras, std::vector<bool> *ready);
    void take_frame(Camera &camera);
    void handle_frame(Camera &camera, const zelvideo::_isp_buf_t &frame);
    void fail(Camera &camera, const std::string &error);
    void fail_group(Camera &member, const std::string &error);
    bool group_failed() const;
    bool count_refusal(Camera &camera, const LineWatch &watch);
    void log_lines(const LineWatch &watch);
    Camera *find(int camera) const;

    HubOptions options_;
    EventLog &events_;
    std::vector<int> numbers_;
    std::vector<std::unique_ptr<Camera>> cameras_;
    unsigned long group_ = 0;
    std::vector<zelvideo::_isp_buf_t> set_frames_;
    std::thread thread_;
    std::atomic<bool> stopping_{false};
    std::atomic<bool> priority_raised_{false};
    int wake_fd_ = -1;
    std::chrono::steady_clock::time_point started_;
    CommandQueue commands_;

    mutable std::mutex layout_mutex_; // the views' formats and the running flags, for readers
    mutable std::mutex taps_mutex_;
    mutable std::mutex stats_mutex_;
    SetStats sets_;
    std::deque<std::pair<double, uint64_t>> recent_skews_;
};

} // namespace zcam

#endif
