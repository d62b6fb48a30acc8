/*
 * preview_feed.h - the JPEG pictures of one view at one size (the page's
 * tile size, or the view's own), made only while someone watches.
 *
 * The feed pulls: while anyone wants pictures it asks its tap for the next
 * frame; the capture thread copies that one view and the picture workers
 * scale and encode it; once the picture is out, the feed asks for the next
 * frame again. So pictures follow the camera as fast as the workers allow,
 * a slow worker skips frames instead of queueing them, and each picture
 * shows a frame taken after the previous picture was done: never an old
 * one. Polls and streams share each JPEG.
 */
#ifndef ZELISP_CAM_CONSOLE_PREVIEW_FEED_H
#define ZELISP_CAM_CONSOLE_PREVIEW_FEED_H

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "camera_hub.h"
#include "http_exchange.h"
#include "picture_workers.h"
#include "view_tap.h"

namespace zcam {

class Timers;

struct Picture {
    std::shared_ptr<const std::string> jpeg;
    uint64_t generation = 0; // counts the feed's pictures from 1
    FrameMark mark;          // the frame it shows
    uint32_t width = 0, height = 0;
};

class PreviewFeed : public ViewTap, public PictureJob, public std::enable_shared_from_this<PreviewFeed> {
public:
    PreviewFeed(int camera, int view, uint32_t max_width, int quality, PictureWorkers &workers, Timers &timers);

    int camera() const { return camera_; }
    int view() const { return view_; }

    void take(const ViewImage &image, const FrameMark &mark) override;
    void work() override; // makes the picture of the copied frame
    // The camera gives no more frames: polls are answered 503 with `why`,
    // and streams end once they have sent the pictures made before.
    void ended(const std::string &why) override;
    bool has_ended() const;

    // A picture newer than `after` for `exchange`: at once when the latest
    // is newer and fresh, else the next one, or 204 after `wait`.
    void poll(uint64_t after, const std::shared_ptr<HttpExchange> &exchange, std::chrono::milliseconds wait);

    // For endless streams: the latest picture if it is newer than `after`
    // and shows a frame later than `later_than`; otherwise null, and
    // `exchange` is woken when the next picture is out or the feed ends.
    std::shared_ptr<const Picture> next(uint64_t after, int64_t later_than, const std::weak_ptr<HttpExchange> &exchange);
    void viewer_joined();
    void viewer_left();
    int viewers() const { return viewers_.load(); }

    struct Figures {
        uint64_t pictures = 0;
        double encode_ms_total = 0;
        double fps = 0;
        std::string error;
    };
    Figures figures() const;

private:
    struct Poller {
        uint64_t after;
        std::shared_ptr<HttpExchange> exchange;
    };
    void publish(std::shared_ptr<const Picture> picture);
    void expire(const std::shared_ptr<HttpExchange> &exchange);
    bool wanted_locked(std::chrono::steady_clock::time_point now) const;

    const int camera_, view_;
    const uint32_t max_width_;
    const int quality_;
    PictureWorkers &workers_;
    Timers &timers_;

    void ask();
    // kAsked: the next frame is wanted; kBusy: the capture thread copied one
    // and a worker makes its picture (copy_ belongs to the worker then).
    enum { kIdle, kAsked, kBusy };
    std::atomic<int> state_{kIdle};
    FrameCopy copy_;

    mutable std::mutex mutex_;
    std::shared_ptr<const Picture> latest_;
    std::vector<Poller> pollers_;
    std::vector<std::weak_ptr<HttpExchange>> sleepers_;
    std::chrono::steady_clock::time_point polled_until_{};
    std::atomic<int> viewers_{0};
    RateMeter rate_;
    double encode_ms_total_ = 0;
    std::string error_;
    std::string ended_; // why the camera gives no more frames
};

} // namespace zcam

#endif
