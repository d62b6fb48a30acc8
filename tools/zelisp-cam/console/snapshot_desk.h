/*
 * snapshot_desk.h - full-size PNG snapshots of one view. Requests that come
 * together share one frame: the capture thread copies the view of the next
 * frame once for all of them, and a picture worker converts and encodes it
 * once. While one batch is being encoded the next waits for a later frame,
 * so at most one copy per view is ever held, however many ask.
 */
#ifndef ZELISP_CAM_CONSOLE_SNAPSHOT_DESK_H
#define ZELISP_CAM_CONSOLE_SNAPSHOT_DESK_H

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "http_exchange.h"
#include "picture_workers.h"
#include "view_tap.h"

namespace zcam {

class Timers;

class SnapshotDesk : public ViewTap, public PictureJob, public std::enable_shared_from_this<SnapshotDesk> {
public:
    SnapshotDesk(int camera, int view, PictureWorkers &workers, Timers &timers);

    // Answers `exchange` with the PNG of the next frame, or 503 when no
    // frame comes within `wait` (while the snapshots before are encoded,
    // the wait goes on), or too many requests wait already.
    void request(const std::shared_ptr<HttpExchange> &exchange, std::chrono::milliseconds wait);
    void take(const ViewImage &image, const FrameMark &mark) override;
    void work() override; // encodes the batch's frame and answers it
    // The camera gives no more frames: the requests waiting for one, and
    // those that come later, are answered 503 with `why` at once.
    void ended(const std::string &why) override;

    static constexpr size_t kMaxWaiting = 64;

private:
    void expire(const std::shared_ptr<HttpExchange> &exchange, std::chrono::milliseconds wait, int rounds);
    static constexpr int kMaxWaitRounds = 12; // a minute in all, at 5 s a round

    const int camera_, view_;
    PictureWorkers &workers_;
    Timers &timers_;
    std::atomic<bool> wanted_{false}; // requests wait and no batch is being encoded
    std::mutex mutex_;
    std::vector<std::shared_ptr<HttpExchange>> waiting_;
    bool encoding_ = false;
    std::string ended_; // why the camera gives no more frames
    // The batch being encoded: written by the capture thread, then read by
    // a worker, never both at once (wanted_ stays false meanwhile).
    std::vector<std::shared_ptr<HttpExchange>> batch_;
    FrameCopy copy_;
};

} // namespace zcam

#endif
