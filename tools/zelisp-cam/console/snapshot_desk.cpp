// snapshot_desk.cpp - PNG snapshots of one view.
#include "snapshot_desk.h"

#include <algorithm>

#include "picture_workers.h"
#include "png_writer.h"
#include "timers.h"

namespace zcam {

namespace {

HttpResponse json_error(int status, const std::string &message)
{
    HttpResponse response = json_error_response(status, message);
    response.headers = {{"Cache-Control", "no-store"}};
    return response;
}

} // namespace

SnapshotDesk::SnapshotDesk(int camera, int view, PictureWorkers &workers, Timers &timers)
    : camera_(camera), view_(view), workers_(workers), timers_(timers)
{
}

void SnapshotDesk::request(const std::shared_ptr<HttpExchange> &exchange, std::chrono::milliseconds wait)
{
    bool queued = false;
    std::string ended;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ended = ended_;
        if (ended.empty() && waiting_.size() < kMaxWaiting) {
            waiting_.push_back(exchange);
            wanted_ = !encoding_;
            queued = true;
        }
    }
    if (!ended.empty()) {
        exchange->reply(json_error(503, ended));
        return;
    }
    if (!queued) {
        exchange->reply(json_error(503, std::to_string(kMaxWaiting) + " snapshots of camera " +
                                            std::to_string(camera_) + " view " + std::to_string(view_) +
                                            " are waiting already: try again"));
        return;
    }
    std::weak_ptr<SnapshotDesk> desk = shared_from_this();
    timers_.after(wait, [desk, exchange, wait] {
        if (auto self = desk.lock())
            self->expire(exchange, wait, 1);
    });
}

// A request that is still waiting when its time is up: if a batch is
// being encoded, its frame is taken as soon as that is done, so it waits on
// (the encoders are slow on a busy board, not the camera); otherwise the
// camera gave no frame.
void SnapshotDesk::expire(const std::shared_ptr<HttpExchange> &exchange, std::chrono::milliseconds wait, int rounds)
{
    bool busy = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = std::find(waiting_.begin(), waiting_.end(), exchange);
        if (it == waiting_.end())
            return; // its frame came: the answer is on its way
        busy = encoding_;
        if (busy && rounds < kMaxWaitRounds) {
            std::weak_ptr<SnapshotDesk> desk = shared_from_this();
            timers_.after(wait, [desk, exchange, wait, rounds] {
                if (auto self = desk.lock())
                    self->expire(exchange, wait, rounds + 1);
            });
            return;
        }
        waiting_.erase(it);
    }
    exchange->reply(json_error(503, busy ? "the snapshot could not be made in time: the board is too busy"
                                              : "no frame from camera " + std::to_string(camera_) + " within " +
                                                    std::to_string(wait.count() / 1000) + " s"));
}

void SnapshotDesk::ended(const std::string &why)
{
    std::vector<std::shared_ptr<HttpExchange>> waiting;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ended_ = why;
        waiting.swap(waiting_);
        wanted_ = false;
    }
    for (const auto &exchange : waiting)
        exchange->reply(json_error(503, why));
}

// On the capture thread: it only tries the lock (a worker may hold it), and
// takes a later frame if it is busy.
void SnapshotDesk::take(const ViewImage &image, const FrameMark &mark)
{
    if (!wanted_.load())
        return;
    {
        std::unique_lock<std::mutex> lock(mutex_, std::try_to_lock);
        if (!lock.owns_lock())
            return;
        batch_.swap(waiting_);
        wanted_ = false;
        encoding_ = !batch_.empty();
    }
    if (batch_.empty())
        return;
    copy_.assign(image, mark);
    workers_.wake(*this);
}

void SnapshotDesk::work()
{
    RgbImage rgb;
    std::string png;
    std::string error = to_rgb(copy_.image(), &rgb);
    if (error.empty())
        error = encode_png(rgb, &png);
    HttpResponse response = json_error(500, error);
    if (error.empty()) {
        response.status = 200;
        response.type = "image/png";
        response.shared_body = std::make_shared<const std::string>(std::move(png));
        response.headers.emplace_back("X-Frame-Sequence", std::to_string(copy_.mark.sequence));
        response.headers.emplace_back("Content-Disposition", "inline; filename=\"camera" + std::to_string(camera_) +
                                                                 "-view" + std::to_string(view_) + "-" +
                                                                 std::to_string(copy_.mark.sequence) + ".png\"");
    }
    for (const auto &exchange : batch_)
        exchange->reply(response);
    batch_.clear();
    std::lock_guard<std::mutex> lock(mutex_);
    encoding_ = false;
    wanted_ = !waiting_.empty();
}

} // namespace zcam
