// preview_feed.cpp - one view's pictures, made on demand.
#include "preview_feed.h"

#include <algorithm>

#include "picture_convert.h"
#include "picture_workers.h"
#include "timers.h"

namespace zcam {

using Clock = std::chrono::steady_clock;

namespace {

// A picture this recent is handed to a new poll at once; an older one (the
// feed was idle) is not: the poll waits for a picture of a frame to come.
constexpr auto kFreshFor = std::chrono::milliseconds(200);
// After a poll the feed keeps making pictures this long, for the next poll.
constexpr auto kPollKeepsFeedFor = std::chrono::seconds(2);

HttpResponse picture_response(const Picture &picture)
{
    HttpResponse response;
    response.type = "image/jpeg";
    response.shared_body = picture.jpeg;
    response.headers = {{"Cache-Control", "no-store"},
                        {"X-Preview-Generation", std::to_string(picture.generation)},
                        {"X-Frame-Sequence", std::to_string(picture.mark.sequence)}};
    return response;
}

} // namespace

PreviewFeed::PreviewFeed(int camera, int view, uint32_t max_width, int quality, PictureWorkers &workers,
                         Timers &timers)
    : camera_(camera), view_(view), max_width_(max_width), quality_(quality), workers_(workers), timers_(timers)
{
}

void PreviewFeed::ask()
{
    int idle = kIdle;
    state_.compare_exchange_strong(idle, kAsked); // busy: the worker asks again when done
}

void PreviewFeed::take(const ViewImage &image, const FrameMark &mark)
{
    int asked = kAsked;
    if (!state_.compare_exchange_strong(asked, kBusy))
        return;
    copy_.assign(image, mark);
    workers_.wake(*this);
}

void PreviewFeed::work()
{
    auto started = Clock::now();
    PreviewImage image;
    preview_size(copy_.format, max_width_, &image.width, &image.height);
    auto jpeg = std::make_shared<std::string>();
    std::string error = make_preview(copy_.image(), &image);
    if (error.empty())
        error = encode_jpeg(image, quality_, jpeg.get());
    double took = std::chrono::duration<double, std::milli>(Clock::now() - started).count();
    if (!error.empty()) {
        std::lock_guard<std::mutex> lock(mutex_);
        error_ = error;
        state_ = kIdle; // a view that cannot be shown is not asked for again until someone polls
        return;
    }
    auto picture = std::make_shared<Picture>();
    picture->jpeg = std::move(jpeg);
    picture->mark = copy_.mark;
    picture->width = image.width;
    picture->height = image.height;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        encode_ms_total_ += took;
        error_.clear();
    }
    publish(std::move(picture));
}

bool PreviewFeed::wanted_locked(Clock::time_point now) const
{
    return viewers_.load() > 0 || !pollers_.empty() || now < polled_until_;
}

void PreviewFeed::publish(std::shared_ptr<const Picture> shared)
{
    std::vector<Poller> answered;
    std::vector<std::weak_ptr<HttpExchange>> sleepers;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto picture = std::make_shared<Picture>(*shared);
        picture->generation = (latest_ ? latest_->generation : 0) + 1;
        latest_ = picture;
        rate_.note(Clock::now());
        for (auto it = pollers_.begin(); it != pollers_.end();)
            if (it->after < picture->generation) {
                answered.push_back(std::move(*it));
                it = pollers_.erase(it);
            } else {
                ++it;
            }
        sleepers.swap(sleepers_);
        state_ = wanted_locked(Clock::now()) ? kAsked : kIdle;
    }
    // Answers and wake-ups go out without the feed's lock held: a stream
    // reads the feed under its exchange's lock.
    for (const Poller &poller : answered)
        poller.exchange->reply(picture_response(*latest_));
    for (const auto &sleeper : sleepers)
        if (auto exchange = sleeper.lock())
            exchange->wake();
}

void PreviewFeed::ended(const std::string &why)
{
    std::vector<Poller> answered;
    std::vector<std::weak_ptr<HttpExchange>> sleepers;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ended_ = why;
        answered.swap(pollers_);
        sleepers.swap(sleepers_);
    }
    for (const Poller &poller : answered)
        poller.exchange->reply(json_error_response(503, why));
    for (const auto &sleeper : sleepers)
        if (auto exchange = sleeper.lock())
            exchange->wake();
}

bool PreviewFeed::has_ended() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return !ended_.empty();
}

void PreviewFeed::poll(uint64_t after, const std::shared_ptr<HttpExchange> &exchange, std::chrono::milliseconds wait)
{
    std::shared_ptr<const Picture> now_ready;
    std::string ended;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ended = ended_;
        auto now = Clock::now();
        polled_until_ = now + kPollKeepsFeedFor;
        if (latest_ && latest_->generation > after && now - latest_->mark.taken_at < kFreshFor) {
            now_ready = latest_;
        } else if (ended.empty()) {
            pollers_.push_back({after, exchange});
            ask();
        }
    }
    if (!ended.empty() && !now_ready) {
        exchange->reply(json_error_response(503, ended));
        return;
    }
    if (now_ready) {
        exchange->reply(picture_response(*now_ready));
        return;
    }
    std::weak_ptr<PreviewFeed> feed = shared_from_this();
    timers_.after(wait, [feed, exchange] {
        if (auto self = feed.lock())
            self->expire(exchange);
    });
}

void PreviewFeed::expire(const std::shared_ptr<HttpExchange> &exchange)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = std::find_if(pollers_.begin(), pollers_.end(),
                               [&](const Poller &poller) { return poller.exchange == exchange; });
        if (it == pollers_.end())
            return; // answered with a picture
        pollers_.erase(it);
    }
    HttpResponse nothing_newer;
    nothing_newer.status = 204; // ask again
    nothing_newer.headers = {{"Cache-Control", "no-store"}};
    exchange->reply(std::move(nothing_newer));
}

std::shared_ptr<const Picture> PreviewFeed::next(uint64_t after, int64_t later_than,
                                                 const std::weak_ptr<HttpExchange> &exchange)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (latest_ && latest_->generation > after && int64_t(latest_->mark.sequence) > later_than)
        return latest_;
    if (!ended_.empty())
        return nullptr; // nothing more will come: the caller looks at has_ended()
    sleepers_.push_back(exchange);
    ask();
    return nullptr;
}

void PreviewFeed::viewer_joined()
{
    ++viewers_;
}

void PreviewFeed::viewer_left()
{
    --viewers_;
}

PreviewFeed::Figures PreviewFeed::figures() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    Figures figures;
    figures.pictures = latest_ ? latest_->generation : 0;
    figures.encode_ms_total = encode_ms_total_;
    figures.fps = rate_.rate(Clock::now());
    figures.error = error_;
    return figures;
}

} // namespace zcam
