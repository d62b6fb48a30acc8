/*
 * webrtc_viewers.h - the console's WebRTC viewers, one session each
 * (webrtc_session.h), reached the WHEP way: POST an SDP offer to
 * /whep/CAMERA/VIEW, get 201 with the answer and the session's address in
 * Location (an unguessable name), DELETE that address to end it. A session
 * also ends when its ICE connection fails or closes, or when no answer
 * could be made in time. Pipelines are stopped on a thread of their own:
 * never on a GStreamer thread, and never on the server's or the capture
 * thread.
 */
#ifndef ZELISP_CAM_CONSOLE_WEBRTC_VIEWERS_H
#define ZELISP_CAM_CONSOLE_WEBRTC_VIEWERS_H

#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "http_exchange.h"
#include "stream_slots.h"
#include "webrtc_session.h"

namespace zcam {

class CameraHub;
class EventLog;
class Timers;

class WebRtcViewers {
public:
    WebRtcViewers(CameraHub &hub, Timers &timers, EventLog &events, StreamSlots &slots, WebRtcSettings settings);
    ~WebRtcViewers();
    WebRtcViewers(const WebRtcViewers &) = delete;
    WebRtcViewers &operator=(const WebRtcViewers &) = delete;

    const WebRtcSettings &settings() const { return settings_; }
    // Answers `exchange` with 201 and the SDP answer, or an error.
    void offer(int camera, int view, const std::string &sdp, const std::shared_ptr<HttpExchange> &exchange);
    // Ends the session named in a DELETE: false when there is none by that name.
    bool end(int camera, int view, const std::string &id);
    // Ends every session and the reaper thread.
    void stop();

    struct Figures {
        size_t sessions = 0;
        uint64_t started = 0, sent = 0, skipped = 0;
    };
    Figures figures() const;

private:
    void retire(const std::string &id); // any thread: the reaper closes it
    void reap();

    CameraHub &hub_;
    Timers &timers_;
    EventLog &events_;
    StreamSlots &slots_;
    const WebRtcSettings settings_;
    mutable std::mutex mutex_;
    std::condition_variable retired_;
    std::map<std::string, std::shared_ptr<WebRtcSession>> sessions_;
    std::deque<std::shared_ptr<WebRtcSession>> to_close_;
    // Retired sessions the reaper has not closed yet: they still hold their
    // stream slot, so they still count as sessions.
    size_t closing_ = 0;
    uint64_t started_ = 0, sent_closed_ = 0, skipped_closed_ = 0;
    bool stopping_ = false;
    std::thread reaper_;
};

} // namespace zcam

#endif
