/*
 * webrtc_session.h - one WebRTC viewer of one camera view, on GStreamer's
 * webrtcbin: the view's frames reach a bounded, leaky appsrc through the
 * video feeder (video_feeder.h), so the capture thread never waits, are
 * encoded to H.264 (the board's V4L2 memory-to-memory encoder where there
 * is one, else a software encoder) and sent as RTP.
 *
 * The offer is answered once ICE gathering is complete, so the answer
 * carries every candidate and the viewer needs no trickle: host candidates
 * only (on the addresses chosen, in the UDP port range chosen), no STUN.
 */
#ifndef ZELISP_CAM_CONSOLE_WEBRTC_SESSION_H
#define ZELISP_CAM_CONSOLE_WEBRTC_SESSION_H

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "video_feeder.h"
#include "view_tap.h"

typedef struct _GstElement GstElement;

namespace zcam {

struct WebRtcSettings {
    std::string encoder;   // the H.264 encoder's factory name; empty: none on this machine
    bool hardware = false; // a V4L2 memory-to-memory encoder
    unsigned bitrate_kbps = 4000;
    std::vector<std::string> addresses; // for the host candidates; empty: every interface
    unsigned min_port = 0, max_port = 0;
    // Of the video threads (the encoder's among them): below the capture
    // thread, whatever priority that one could get.
    int niceness = 10;
};

// The H.264 encoder to use: v4l2h264enc where the board has one, else
// x264enc, else openh264enc.
WebRtcSettings choose_encoder(WebRtcSettings settings);

class WebRtcSession : public ViewTap, public std::enable_shared_from_this<WebRtcSession> {
public:
    // Called once: 201 and the SDP answer, or an error status and why.
    using Answered = std::function<void(int status, const std::string &body)>;

    WebRtcSession(std::string id, int camera, int view, const zelvideo::_view_format_t &format,
                  const WebRtcSettings &settings);
    ~WebRtcSession() override;

    const std::string &id() const { return id_; }
    int camera() const { return camera_; }
    int view() const { return view_; }

    // Builds the pipeline and starts answering `offer`. "" or why not (the
    // offer is malformed or has no H.264 this console can send);
    // `answered` is then not called.
    std::string start(const std::string &offer, Answered answered, std::function<void()> ended);
    // Ends the session: the pipeline stops and no frame is taken any more.
    void close();
    bool connected() const;
    // Gives up on an answer that is late: false if it was given already.
    bool give_up(const std::string &why);

    // Capture thread: hands the frame to the feeder once the viewer is connected.
    void take(const ViewImage &image, const FrameMark &mark) override;
    // The camera gives no more frames: an offer not answered yet gets 503
    // with `why`, and the session ends.
    void ended(const std::string &why) override;
    // Why the session ended, when its camera ended it; else "".
    std::string end_reason() const;

    struct Figures {
        uint64_t sent = 0;    // frames handed to the encoder
        uint64_t skipped = 0; // frames the encoder was still busy for
        std::string state;    // new, connecting, connected, ended
    };
    Figures figures() const;

private:
    struct Callbacks; // GStreamer's calls into the session (webrtc_session.cpp)
    friend struct Callbacks;
    void answer(int status, const std::string &body);
    void end();

    const std::string id_;
    const int camera_, view_;
    const zelvideo::_view_format_t format_;
    const WebRtcSettings settings_;
    GstElement *pipeline_ = nullptr;
    GstElement *webrtc_ = nullptr;
    GstElement *source_ = nullptr;
    VideoFeeder feeder_;
    std::atomic<bool> connected_{false};
    std::atomic<bool> ended_{false};
    std::atomic<uint64_t> sent_{0}, skipped_{0};
    mutable std::mutex mutex_; // guards the callbacks and the reason below
    Answered answered_;
    std::function<void()> on_ended_;
    std::string end_reason_;
};

} // namespace zcam

#endif
