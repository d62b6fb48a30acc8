// webrtc_viewers.cpp - WHEP sessions: start, answer, end, reap.
#include "webrtc_viewers.h"

#include "camera_hub.h"
#include "console_token.h"
#include "event_log.h"
#include "timers.h"

namespace zcam {

namespace {

// An offer must be answered within this (gathering host candidates takes
// milliseconds; this is for a pipeline that never gets going).
constexpr auto kAnswerWithin = std::chrono::seconds(15);
// A viewer that has not connected this long after its offer never will
// (its answer went nowhere): its slot is given back.
constexpr auto kConnectWithin = std::chrono::seconds(30);

std::string where(int camera, int view)
{
    return "camera " + std::to_string(camera) + " view " + std::to_string(view);
}

} // namespace

WebRtcViewers::WebRtcViewers(CameraHub &hub, Timers &timers, EventLog &events, StreamSlots &slots,
                             WebRtcSettings settings)
    : hub_(hub), timers_(timers), events_(events), slots_(slots), settings_(std::move(settings)),
      reaper_([this] { reap(); })
{
}

WebRtcViewers::~WebRtcViewers()
{
    stop();
}

void WebRtcViewers::offer(int camera, int view, const std::string &sdp, const std::shared_ptr<HttpExchange> &exchange)
{
    if (settings_.encoder.empty()) {
        exchange->reply(json_error_response(
            501, "no H.264 encoder on this machine (x264enc, openh264enc or v4l2h264enc): use the MJPEG stream"));
        return;
    }
    auto format = hub_.view_format(camera, view);
    if (!format) {
        exchange->reply(json_error_response(404, "camera " + std::to_string(camera) + " has no enabled view " +
                                                     std::to_string(view)));
        return;
    }
    std::string failure = hub_.stop_reason(camera);
    if (!failure.empty()) {
        exchange->reply(json_error_response(503, failure));
        return;
    }
    if (!slots_.take()) {
        exchange->reply(json_error_response(503, "at most " + std::to_string(slots_.max()) +
                                                     " streams at once: close one first"));
        return;
    }
    std::string id = generate_token();
    auto session = std::make_shared<WebRtcSession>(id, camera, view, *format, settings_);
    std::string location = "/whep/" + std::to_string(camera) + "/" + std::to_string(view) + "/" + id;
    std::string peer = exchange->request().peer;
    auto answered = [this, exchange, location, id, camera, view, peer](int status, const std::string &body) {
        if (status != 201) {
            exchange->reply(json_error_response(status, body));
            retire(id);
            return;
        }
        HttpResponse response;
        response.status = 201;
        response.type = "application/sdp";
        response.body = body;
        response.headers = {{"Location", location}, {"Cache-Control", "no-store"}};
        exchange->reply(std::move(response));
        events_.note("info", "WebRTC viewer " + peer + " on " + where(camera, view) + ": answered");
    };
    std::string error = session->start(sdp, answered, [this, id] { retire(id); });
    if (!error.empty()) {
        slots_.give_back();
        session->close();
        exchange->reply(json_error_response(400, error));
        return;
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        sessions_[id] = session;
        ++started_;
    }
    hub_.attach(camera, view, session);
    std::weak_ptr<WebRtcSession> weak = session;
    timers_.after(kAnswerWithin, [this, weak, id] {
        auto late = weak.lock();
        if (late && late->give_up("no answer could be made within 15 s"))
            retire(id);
    });
    timers_.after(kConnectWithin, [this, weak, id, camera, view, peer] {
        auto idle = weak.lock();
        if (!idle || idle->connected())
            return;
        events_.note("warning", "WebRTC viewer " + peer + " on " + where(camera, view) + " never connected");
        retire(id);
    });
}

bool WebRtcViewers::end(int camera, int view, const std::string &id)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = sessions_.find(id);
        if (it == sessions_.end() || it->second->camera() != camera || it->second->view() != view)
            return false;
    }
    retire(id);
    return true;
}

void WebRtcViewers::retire(const std::string &id)
{
    std::shared_ptr<WebRtcSession> session;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = sessions_.find(id);
        if (it == sessions_.end())
            return; // retired already
        session = it->second;
        sessions_.erase(it);
        to_close_.push_back(session);
        ++closing_;
    }
    retired_.notify_one();
}

void WebRtcViewers::reap()
{
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        retired_.wait(lock, [this] { return stopping_ || !to_close_.empty(); });
        if (to_close_.empty())
            return;
        std::shared_ptr<WebRtcSession> session = std::move(to_close_.front());
        to_close_.pop_front();
        lock.unlock();
        hub_.detach(session->camera(), session->view(), session.get());
        WebRtcSession::Figures figures = session->figures();
        session->close();
        slots_.give_back();
        std::string why = session->end_reason();
        events_.note(why.empty() ? "info" : "warning", "WebRTC viewer on " +
                                                           where(session->camera(), session->view()) + " ended after " +
                                                           std::to_string(figures.sent) + " frames" +
                                                           (why.empty() ? "" : ": " + why));
        lock.lock();
        sent_closed_ += figures.sent;
        skipped_closed_ += figures.skipped;
        --closing_;
    }
}

void WebRtcViewers::stop()
{
    std::vector<std::string> ids;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const auto &[id, session] : sessions_)
            ids.push_back(id);
    }
    for (const std::string &id : ids)
        retire(id);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    retired_.notify_one();
    if (reaper_.joinable())
        reaper_.join();
}

WebRtcViewers::Figures WebRtcViewers::figures() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    Figures figures;
    // A session ends for the page when its slot is free again: a viewer
    // reading 0 here can start another one at once.
    figures.sessions = sessions_.size() + closing_;
    figures.started = started_;
    figures.sent = sent_closed_;
    figures.skipped = skipped_closed_;
    for (const auto &[id, session] : sessions_) {
        WebRtcSession::Figures one = session->figures();
        figures.sent += one.sent;
        figures.skipped += one.skipped;
    }
    return figures;
}

} // namespace zcam
