/*
 * serve_hub.h - the cameras of the web console. One capture thread owns
 * every camera: it waits for frames (the multi-camera wait, or the group's
 * frame sets), turns the views someone is watching into previews, fills
 * snapshot requests, and gives each frame straight back. Everything else
 * (controls, snapshots) reaches a camera through that thread's command
 * queue, so no camera is ever used from two threads, and the thread never
 * waits for a browser: a preview is published by swapping pointers under a
 * short lock, and each stream takes the latest one when it is ready.
 */
#ifndef ZELISP_CAM_SERVE_HUB_H
#define ZELISP_CAM_SERVE_HUB_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "capture_options.h"
#include "frame_stats.h"
#include "serve_images.h"

namespace zcam {

struct ServeOptions {
    std::string listen = "127.0.0.1:8080";
    std::vector<int> cameras; // empty: the cameras the platform lists
    bool group = false;
    std::optional<TriggerSetting> trigger;
    std::vector<int> views{0, 1, 2};
    std::string token;
    int buffers = 4;
    int max_streams = 8;
    int preview_width = 640;
    int quality = 75;

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

// One picture of a view that streams wait for: the capture thread publishes
// a new one per frame while anyone watches; the first stream that wants it
// encodes it, and the others reuse that JPEG.
class PreviewSlot {
public:
    PreviewSlot(uint32_t width, uint32_t height) : width_(width), height_(height) {}

    uint32_t width() const { return width_; }
    uint32_t height() const { return height_; }
    std::atomic<int> viewers{0}; // endless streams open on this picture
    // Someone polls for single pictures: previews are made for two more seconds.
    void polled();
    // Capture thread: whether anyone wants this picture now.
    bool wanted() const;

    // Capture thread: the image to draw the next preview into.
    PreviewImage &back();
    // Capture thread: makes back() the latest preview.
    void publish();

    // Streams: waits until a preview newer than `after` is out (or `stop`
    // is set, or the wait times out), and hands over its JPEG; the number
    // of the preview in *generation. Null when there is none.
    std::shared_ptr<const std::string> wait_jpeg(uint64_t after, uint64_t *generation, uint32_t *sequence,
                                                 const std::atomic<bool> &stop, int quality,
                                                 std::chrono::milliseconds wait);
    void wake_all();

    struct Figures {
        uint64_t published = 0;
        uint64_t encoded = 0;
        double encode_ms_total = 0;
        double fps = 0;
    };
    Figures figures() const;

private:
    const uint32_t width_, height_;
    std::atomic<int64_t> polled_until_{0}; // steady clock, nanoseconds
    std::shared_ptr<PreviewImage> back_ = std::make_shared<PreviewImage>();
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::shared_ptr<PreviewImage> front_;
    uint64_t generation_ = 0;
    RateMeter rate_;
    std::mutex encode_mutex_;
    uint64_t encoded_generation_ = 0;
    std::shared_ptr<const std::string> jpeg_;
    uint32_t jpeg_sequence_ = 0;
    uint64_t encoded_ = 0;
    double encode_ms_total_ = 0;
};

struct Tile {
    int camera;
    int view;
    zelvideo::_view_format_t format;
    std::unique_ptr<PreviewSlot> preview; // scaled for the page's grid
    std::unique_ptr<PreviewSlot> full;    // the view's own size
};

// The result of a command run on the capture thread: an HTTP status and a
// JSON text, or a PNG.
struct Reply {
    int status = 200;
    std::string body;
    std::string type = "application/json";
};

class CameraHub {
public:
    explicit CameraHub(const ServeOptions &options);
    ~CameraHub();

    // Opens and starts the cameras; prints why and returns an exit status
    // on failure (nothing is left open then).
    int start();
    // Stops the capture thread and closes every camera.
    void stop();

    const ServeOptions &options() const { return options_; }
    const std::vector<int> &cameras() const { return cameras_; }
    bool has_camera(int camera) const;
    Tile *tile(int camera, int view);
    const std::vector<std::unique_ptr<Tile>> &tiles() const { return tiles_; }
    std::string node(int camera) const;
    std::string trigger_text() const;

    // Runs `command` on the capture thread with the camera's handle, between
    // two frames. A reply with status 503 if the thread does not get to it
    // within `limit`.
    Reply run_on_camera(int camera, std::function<Reply(unsigned long handle)> command,
                        std::chrono::milliseconds limit);
    // The view of the camera's next frame at full resolution, as PNG.
    Reply snapshot(int camera, int view, std::chrono::milliseconds limit);

    struct CameraFigures {
        int camera;
        uint64_t frames, refused, dropped;
        uint32_t last_sequence;
        double fps;
        std::string error;
    };
    std::vector<CameraFigures> camera_figures() const;
    struct GroupFigures {
        uint64_t sets, incomplete, max_skew_us;
        double mean_skew_us;
        std::vector<std::pair<double, uint64_t>> recent; // seconds since start, skew in microseconds
    };
    GroupFigures group_figures() const;
    double uptime() const;
    const std::atomic<bool> &stopping() const { return stopping_; }

private:
    struct Camera;
    struct Snapshot;
    int open_single();
    int open_group();
    void capture_loop();
    void stream_loop();
    void group_loop();
    void run_commands();
    void take_frame(Camera &camera, int timeout_ms);
    void handle_frame(Camera &camera, const zelvideo::_isp_buf_t &frame);
    void close_all();

    ServeOptions options_;
    std::vector<int> cameras_;
    std::vector<std::unique_ptr<Camera>> state_;
    std::vector<std::unique_ptr<Tile>> tiles_;
    unsigned long group_ = 0;
    std::vector<zelvideo::_isp_buf_t> set_frames_;
    std::thread thread_;
    std::atomic<bool> stopping_{false};
    std::chrono::steady_clock::time_point started_;

    std::mutex commands_mutex_;
    std::deque<std::function<void()>> commands_;

    mutable std::mutex stats_mutex_;
    SetStats sets_;
    std::deque<std::pair<double, uint64_t>> recent_skews_;
};

} // namespace zcam

#endif
