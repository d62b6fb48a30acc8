// webrtc_session.cpp - one WebRTC viewer on webrtcbin.
#include "webrtc_session.h"

#define GST_USE_UNSTABLE_API // webrtcbin's library is marked unstable in 1.22
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>
#include <gst/sdp/sdp.h>
#include <gst/webrtc/nice/nice.h>
#include <gst/webrtc/webrtc.h>
#include <nice/agent.h>

#include <algorithm>
#include <cstring>

#include "picture_workers.h"

namespace zcam {

namespace {

// The view's format in GStreamer's words; "" for one it has no name for.
const char *raw_format(uint32_t fourcc)
{
    switch (fourcc) {
    case kFourccNV12: return "NV12";
    case kFourccNV21: return "NV21";
    case kFourccYUYV: return "YUY2";
    case kFourccRGB24: return "RGB";
    case kFourccGREY: return "GRAY8";
    default: return "";
    }
}

// The encoder and its settings for a live view: no B-frames, a key frame
// every second, the lowest latency the encoder offers.
std::string encoder_description(const WebRtcSettings &settings)
{
    unsigned kbps = settings.bitrate_kbps;
    if (settings.encoder == "x264enc")
        return "x264enc tune=zerolatency speed-preset=ultrafast bframes=0 key-int-max=30 threads=2 bitrate=" +
               std::to_string(kbps);
    if (settings.encoder == "openh264enc")
        return "openh264enc complexity=low rate-control=bitrate gop-size=30 bitrate=" + std::to_string(kbps * 1000);
    // The V4L2 memory-to-memory encoder of the board.
    return "v4l2h264enc extra-controls=\"controls,video_bitrate=" + std::to_string(kbps * 1000) +
           ",h264_i_frame_period=30\"";
}

// Six hex digits: the id goes into the sending pipeline's description, so
// nothing else an offer writes there may reach the parser.
bool is_profile_level_id(const std::string &id)
{
    return id.size() == 6 && std::all_of(id.begin(), id.end(), [](char c) { return g_ascii_isxdigit(c); });
}

// The profile-level-id the offer gives payload type `pt` in its fmtp line;
// empty when it has none or it is malformed.
std::string offered_profile(const GstSDPMedia *media, int pt)
{
    std::string prefix = std::to_string(pt) + " ";
    for (guint i = 0;; ++i) {
        const gchar *fmtp = gst_sdp_media_get_attribute_val_n(media, "fmtp", i);
        if (fmtp == nullptr)
            return "";
        std::string line = fmtp;
        size_t at = line.find("profile-level-id=");
        if (line.rfind(prefix, 0) == 0 && at != std::string::npos) {
            std::string id = line.substr(at + 17, 6);
            return is_profile_level_id(id) ? id : "";
        }
    }
}

// The payload type of the offer's H.264 that a browser decodes from a
// constrained baseline stream in non-interleaved packets (a baseline one
// will do); -1 when the offer has none. GStreamer reads the profile out of
// profile-level-id; the id itself is taken from the fmtp line.
int choose_payload(const GstSDPMessage *offer, std::string *profile_level_id)
{
    int fallback = -1;
    for (guint m = 0; m < gst_sdp_message_medias_len(offer); ++m) {
        const GstSDPMedia *media = gst_sdp_message_get_media(offer, m);
        if (g_strcmp0(gst_sdp_media_get_media(media), "video") != 0)
            continue;
        for (guint f = 0; f < gst_sdp_media_formats_len(media); ++f) {
            int pt = atoi(gst_sdp_media_get_format(media, f));
            GstCaps *caps = gst_sdp_media_get_caps_from_media(media, pt);
            if (caps == nullptr)
                continue;
            const GstStructure *s = gst_caps_get_structure(caps, 0);
            bool h264 = g_strcmp0(gst_structure_get_string(s, "encoding-name"), "H264") == 0 &&
                        g_strcmp0(gst_structure_get_string(s, "packetization-mode"), "1") == 0;
            std::string profile = h264 && gst_structure_get_string(s, "profile") ? gst_structure_get_string(s, "profile") : "";
            gst_caps_unref(caps);
            if (profile == "constrained-baseline") {
                *profile_level_id = offered_profile(media, pt);
                return pt;
            }
            if (profile == "baseline" && fallback < 0) {
                fallback = pt;
                *profile_level_id = offered_profile(media, pt);
            }
        }
        break; // the first video section is the one answered
    }
    return fallback;
}

// The RTP the browser asked for. The payloader names the profile as the
// encoder's stream declares it (x264 marks constrained baseline as 42c0..,
// browsers offer 42e0..: the same profile); the caps setter after it puts
// the offer's words in, so webrtcbin finds the stream to be what it answered.
std::string rtp_caps(int payload, const std::string &profile_level_id)
{
    std::string caps = "application/x-rtp,media=video,encoding-name=H264,clock-rate=90000,payload=" +
                       std::to_string(payload) + ",packetization-mode=(string)1";
    if (!profile_level_id.empty())
        caps += ",profile-level-id=(string)" + profile_level_id;
    return caps;
}

} // namespace

WebRtcSettings choose_encoder(WebRtcSettings settings)
{
    for (const char *name : {"v4l2h264enc", "x264enc", "openh264enc"}) {
        GstElementFactory *factory = gst_element_factory_find(name);
        if (factory == nullptr)
            continue;
        gst_object_unref(factory);
        settings.encoder = name;
        settings.hardware = std::strcmp(name, "v4l2h264enc") == 0;
        return settings;
    }
    settings.encoder.clear();
    return settings;
}

// GStreamer calls back on its own threads; each call holds a weak reference,
// so a session that is gone is simply not called.
struct WebRtcSession::Callbacks {
    using Weak = std::weak_ptr<WebRtcSession>;

    static gpointer hold(const std::shared_ptr<WebRtcSession> &session) { return new Weak(session); }
    static void release(gpointer weak) { delete static_cast<Weak *>(weak); }
    static std::shared_ptr<WebRtcSession> get(gpointer weak) { return static_cast<Weak *>(weak)->lock(); }

    static void remote_set(GstPromise *promise, gpointer weak)
    {
        gst_promise_unref(promise);
        auto session = get(weak);
        if (!session || session->ended_)
            return;
        GstPromise *made = gst_promise_new_with_change_func(answer_made, hold(session), release);
        g_signal_emit_by_name(session->webrtc_, "create-answer", nullptr, made);
    }

    static void answer_made(GstPromise *promise, gpointer weak)
    {
        auto session = get(weak);
        GstWebRTCSessionDescription *answer = nullptr;
        const GstStructure *reply = gst_promise_get_reply(promise);
        if (reply != nullptr)
            gst_structure_get(reply, "answer", GST_TYPE_WEBRTC_SESSION_DESCRIPTION, &answer, nullptr);
        gst_promise_unref(promise);
        if (!session || session->ended_) {
            if (answer)
                gst_webrtc_session_description_free(answer);
            return;
        }
        if (answer == nullptr) {
            session->answer(400, "the offer cannot be answered (webrtcbin made no answer from it)");
            return;
        }
        // Gathering starts now; the answer goes out when it is complete.
        g_signal_emit_by_name(session->webrtc_, "set-local-description", answer, nullptr);
        gst_webrtc_session_description_free(answer);
    }

    static void gathering(GObject *webrtc, GParamSpec *, gpointer weak)
    {
        GstWebRTCICEGatheringState state = GST_WEBRTC_ICE_GATHERING_STATE_NEW;
        g_object_get(webrtc, "ice-gathering-state", &state, nullptr);
        auto session = get(weak);
        if (!session || state != GST_WEBRTC_ICE_GATHERING_STATE_COMPLETE)
            return;
        GstWebRTCSessionDescription *local = nullptr;
        g_object_get(webrtc, "local-description", &local, nullptr);
        if (local == nullptr) {
            session->answer(500, "webrtcbin has no local description");
            return;
        }
        gchar *text = gst_sdp_message_as_text(local->sdp);
        session->answer(201, text);
        g_free(text);
        gst_webrtc_session_description_free(local);
    }

    static void connection(GObject *webrtc, GParamSpec *, gpointer weak)
    {
        GstWebRTCICEConnectionState state = GST_WEBRTC_ICE_CONNECTION_STATE_NEW;
        g_object_get(webrtc, "ice-connection-state", &state, nullptr);
        auto session = get(weak);
        if (!session)
            return;
        if (state == GST_WEBRTC_ICE_CONNECTION_STATE_CONNECTED || state == GST_WEBRTC_ICE_CONNECTION_STATE_COMPLETED)
            session->connected_ = true;
        else if (state == GST_WEBRTC_ICE_CONNECTION_STATE_FAILED || state == GST_WEBRTC_ICE_CONNECTION_STATE_CLOSED)
            session->end();
    }

    // Runs on the thread that posts: a streaming thread that starts sets
    // its own priority (the encoder's threads, made by it, inherit it).
    static GstBusSyncReply bus_message(GstBus *, GstMessage *message, gpointer weak)
    {
        if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_STREAM_STATUS) {
            GstStreamStatusType type;
            gst_message_parse_stream_status(message, &type, nullptr);
            auto session = get(weak);
            if (type == GST_STREAM_STATUS_TYPE_ENTER && session)
                set_thread_niceness(session->settings_.niceness);
        } else if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
            if (auto session = get(weak)) {
                GError *error = nullptr;
                gst_message_parse_error(message, &error, nullptr);
                session->answer(500, std::string("the video pipeline failed: ") + (error ? error->message : "?"));
                g_clear_error(&error);
                session->end();
            }
        }
        // A sync handler that drops a message owns it: each message holds
        // its element, and one left behind keeps the whole pipeline (its
        // ICE sockets and threads) alive after the session has ended.
        gst_message_unref(message);
        return GST_BUS_DROP;
    }
};

WebRtcSession::WebRtcSession(std::string id, int camera, int view, const zelvideo::_view_format_t &format,
                             const WebRtcSettings &settings)
    : id_(std::move(id)), camera_(camera), view_(view), format_(format), settings_(settings),
      feeder_(image_bytes(format))
{
}

WebRtcSession::~WebRtcSession()
{
    close();
}

std::string WebRtcSession::start(const std::string &offer, Answered answered, std::function<void()> ended)
{
    GstSDPMessage *sdp = nullptr;
    gst_sdp_message_new_from_text(offer.c_str(), &sdp);
    if (sdp == nullptr || gst_sdp_message_medias_len(sdp) == 0) {
        if (sdp)
            gst_sdp_message_free(sdp);
        return "the body is not an SDP offer with a media section";
    }
    std::string profile;
    int payload = choose_payload(sdp, &profile);
    if (payload < 0) {
        gst_sdp_message_free(sdp);
        return "the offer has no H.264 video with packetization-mode=1 in a baseline profile";
    }
    const char *format = raw_format(format_.format);
    std::string description =
        "appsrc name=source is-live=true format=time do-timestamp=true block=false max-buffers=2 "
        "leaky-type=downstream ! videoconvert ! video/x-raw,format=I420 ! " +
        encoder_description(settings_) +
        " ! video/x-h264,profile=(string){constrained-baseline,baseline},stream-format=byte-stream ! h264parse "
        "! rtph264pay config-interval=-1 aggregate-mode=zero-latency mtu=1200 pt=" +
        std::to_string(payload) + " ! capssetter caps=\"" + rtp_caps(payload, profile) +
        "\" ! webrtcbin name=webrtc bundle-policy=max-bundle";
    GError *error = nullptr;
    pipeline_ = gst_parse_launch(description.c_str(), &error);
    if (pipeline_ == nullptr || error != nullptr) {
        std::string why = error ? error->message : "?";
        g_clear_error(&error);
        if (pipeline_) {
            gst_object_unref(pipeline_);
            pipeline_ = nullptr;
        }
        gst_sdp_message_free(sdp);
        return "the video pipeline could not be made: " + why;
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        answered_ = std::move(answered);
        on_ended_ = std::move(ended);
    }
    auto self = shared_from_this();
    source_ = gst_bin_get_by_name(GST_BIN(pipeline_), "source");
    webrtc_ = gst_bin_get_by_name(GST_BIN(pipeline_), "webrtc");
    GstCaps *caps = gst_caps_new_simple("video/x-raw", "format", G_TYPE_STRING, format, "width", G_TYPE_INT,
                                        int(format_.width), "height", G_TYPE_INT, int(format_.height), "framerate",
                                        GST_TYPE_FRACTION, 0, 1, nullptr);
    g_object_set(source_, "caps", caps, nullptr);
    gst_caps_unref(caps);

    GstWebRTCICE *ice = nullptr;
    g_object_get(webrtc_, "ice-agent", &ice, nullptr);
    if (ice != nullptr) {
        if (settings_.min_port != 0)
            g_object_set(ice, "min-rtp-port", settings_.min_port, "max-rtp-port", settings_.max_port, nullptr);
        NiceAgent *agent = nullptr;
        g_object_get(ice, "agent", &agent, nullptr);
        if (agent != nullptr) {
            // Connectivity checks go on while connected, so a viewer that
            // vanished (a closed laptop, a tab killed) fails ICE and ends.
            g_object_set(agent, "keepalive-conncheck", TRUE, nullptr);
            for (const std::string &address : settings_.addresses) {
                NiceAddress nice_address;
                if (nice_address_set_from_string(&nice_address, address.c_str()))
                    nice_agent_add_local_address(agent, &nice_address);
            }
            g_object_unref(agent);
        }
        gst_object_unref(ice);
    }

    GstBus *bus = gst_element_get_bus(pipeline_);
    gst_bus_set_sync_handler(bus, Callbacks::bus_message, Callbacks::hold(self), Callbacks::release);
    gst_object_unref(bus);
    g_signal_connect_data(webrtc_, "notify::ice-gathering-state", G_CALLBACK(Callbacks::gathering),
                          Callbacks::hold(self), [](gpointer weak, GClosure *) { Callbacks::release(weak); },
                          GConnectFlags(0));
    g_signal_connect_data(webrtc_, "notify::ice-connection-state", G_CALLBACK(Callbacks::connection),
                          Callbacks::hold(self), [](gpointer weak, GClosure *) { Callbacks::release(weak); },
                          GConnectFlags(0));
    gst_element_set_state(pipeline_, GST_STATE_PLAYING);
    feeder_.start(source_, settings_.niceness);

    // The browser only receives, the console only sends, in the offer's
    // payload type and profile.
    GstWebRTCRTPTransceiver *transceiver = nullptr;
    g_signal_emit_by_name(webrtc_, "get-transceiver", 0, &transceiver);
    if (transceiver != nullptr) {
        GstCaps *preferences = gst_caps_from_string(rtp_caps(payload, profile).c_str());
        g_object_set(transceiver, "direction", GST_WEBRTC_RTP_TRANSCEIVER_DIRECTION_SENDONLY, "codec-preferences",
                     preferences, nullptr);
        gst_caps_unref(preferences);
        gst_object_unref(transceiver);
    }
    GstWebRTCSessionDescription *remote = gst_webrtc_session_description_new(GST_WEBRTC_SDP_TYPE_OFFER, sdp);
    GstPromise *set = gst_promise_new_with_change_func(Callbacks::remote_set, Callbacks::hold(self),
                                                       Callbacks::release);
    g_signal_emit_by_name(webrtc_, "set-remote-description", remote, set);
    gst_webrtc_session_description_free(remote);
    return "";
}

void WebRtcSession::answer(int status, const std::string &body)
{
    Answered answered;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        answered.swap(answered_);
    }
    if (answered)
        answered(status, body);
}

bool WebRtcSession::connected() const
{
    return connected_;
}

bool WebRtcSession::give_up(const std::string &why)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (!answered_)
        return false;
    Answered answered;
    answered.swap(answered_);
    answered(504, why);
    return true;
}

void WebRtcSession::end()
{
    if (ended_.exchange(true))
        return;
    std::function<void()> ended;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ended.swap(on_ended_);
    }
    if (ended)
        ended();
}

void WebRtcSession::ended(const std::string &why)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        end_reason_ = why;
    }
    answer(503, why);
    end();
}

std::string WebRtcSession::end_reason() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return end_reason_;
}

void WebRtcSession::close()
{
    ended_ = true;
    feeder_.stop();
    if (pipeline_ == nullptr)
        return;
    gst_element_set_state(pipeline_, GST_STATE_NULL);
    gst_object_unref(source_);
    gst_object_unref(webrtc_);
    gst_object_unref(pipeline_);
    pipeline_ = source_ = webrtc_ = nullptr;
}

void WebRtcSession::take(const ViewImage &image, const FrameMark &)
{
    if (!connected_ || ended_)
        return;
    if (image.format.format != format_.format || image.format.width != format_.width ||
        image.format.height != format_.height || !image.complete) {
        end(); // the view was set to another format: the viewer asks again
        return;
    }
    if (feeder_.offer(image.data, image.bytes))
        ++sent_;
    else
        ++skipped_;
}

WebRtcSession::Figures WebRtcSession::figures() const
{
    Figures figures;
    figures.sent = sent_;
    figures.skipped = skipped_;
    figures.state = ended_ ? "ended" : connected_ ? "connected" : "connecting";
    return figures;
}

} // namespace zcam
