/*
 * url_recording.cpp - one URL's pipeline: connecting (and trying again while
 * the server is not up yet), a recording chain per stream, and an ending
 * that leaves every file complete, also when the server went away.
 */
#include "url_recording.h"

#include <gst/rtsp/gstrtspurl.h>
#include <gst/sdp/gstsdpmessage.h>

#include <cstdio>
#include <fstream>

namespace zrig {
namespace {

constexpr guint kRetryMs = 500;

struct Depayloading {
    const char *encoding; // as the SDP names it
    const char *depayloader;
    const char *parser; // null: the depayloader's frames go to the muxer as they are
};

// The encodings Matroska takes without re-encoding.
const Depayloading kDepayloading[] = {
    {"H264", "rtph264depay", "h264parse"},
    {"H265", "rtph265depay", "h265parse"},
    {"JPEG", "rtpjpegdepay", nullptr},
};

const Depayloading *depayloading_for(const std::string &encoding)
{
    for (const Depayloading &known : kDepayloading)
        if (encoding == known.encoding)
            return &known;
    return nullptr;
}

std::string caps_string(const GstStructure *structure, const char *field)
{
    const gchar *value = gst_structure_get_string(structure, field);
    return value ? value : "";
}

// What went wrong, in words for the rig's operator, with GStreamer's own
// words (and the last line of its details, where rtspsrc says what
// happened: "Failed to connect. (Connection refused)") after them.
std::string error_sentence(const GError *error, const gchar *debug)
{
    std::string text = error->message;
    if (debug) {
        std::string details = debug;
        size_t line = details.find_last_of('\n');
        details = line == std::string::npos ? details : details.substr(line + 1);
        if (!details.empty() && details.find("gstrtspsrc.c") == std::string::npos)
            text += " " + details;
    }
    if (error->domain != GST_RESOURCE_ERROR)
        return text;
    switch (error->code) {
    case GST_RESOURCE_ERROR_READ:
        return "the connection to the server broke (" + text + ")";
    case GST_RESOURCE_ERROR_OPEN_READ:
    case GST_RESOURCE_ERROR_OPEN_READ_WRITE:
        return "the server cannot be reached (" + text + ")";
    case GST_RESOURCE_ERROR_NOT_FOUND:
        return "the server has no such stream (" + text + ")";
    default:
        return text;
    }
}

// A server that is not listening yet (a board still booting) refuses the
// connection: worth trying again. Anything else is final.
bool worth_retrying(const GError *error)
{
    return error->domain == GST_RESOURCE_ERROR &&
           (error->code == GST_RESOURCE_ERROR_OPEN_READ_WRITE || error->code == GST_RESOURCE_ERROR_OPEN_READ);
}

struct FrameProbe {
    RecordingEvents *events;
    int stream;
    GstClockTime base_time;
    GstClockTime last_pts = GST_CLOCK_TIME_NONE; // only the stream's streaming thread touches it
};

} // namespace

std::string url_file_name(const std::string &url)
{
    std::string name;
    GstRTSPUrl *parsed = nullptr;
    if (gst_rtsp_url_parse(url.c_str(), &parsed) == GST_RTSP_OK) {
        name = std::string(parsed->host ? parsed->host : "") + "-" + std::to_string(parsed->port) +
               (parsed->abspath ? parsed->abspath : "");
        gst_rtsp_url_free(parsed);
    } else {
        name = url;
    }
    for (char &c : name)
        if (!g_ascii_isalnum(c) && c != '.' && c != '-' && c != '_')
            c = '-';
    while (!name.empty() && name.back() == '-')
        name.pop_back();
    return name;
}

UrlRecording::UrlRecording(int index, std::string url, const RecordSettings &settings, GstClock *clock,
                           GstClockTime base_time, RecordingEvents *events)
    : index_(index), url_(std::move(url)), name_(url_file_name(url_)), settings_(settings), clock_(clock),
      base_time_(base_time), events_(events)
{
    g_mutex_init(&lock_);
}

UrlRecording::~UrlRecording()
{
    if (retry_timer_)
        g_source_remove(retry_timer_);
    if (pipeline_) {
        gst_element_set_state(pipeline_, GST_STATE_NULL);
        if (bus_watch_)
            g_source_remove(bus_watch_);
        gst_object_unref(pipeline_);
    }
    for (GstPad *pad : stream_outputs_)
        gst_object_unref(pad);
    g_mutex_clear(&lock_);
}

bool UrlRecording::make_pipeline(std::string *error)
{
    pipeline_ = gst_pipeline_new(name_.c_str());
    source_ = gst_element_factory_make("rtspsrc", nullptr);
    if (!source_) {
        *error = "GStreamer has no rtspsrc (install gstreamer1.0-plugins-good)";
        return false;
    }
    // Every pipeline on the rig's clock with one base time: running time
    // plus base time is then a time on the rig's time line.
    gst_pipeline_use_clock(GST_PIPELINE(pipeline_), clock_);
    gst_element_set_start_time(pipeline_, GST_CLOCK_TIME_NONE);
    gst_element_set_base_time(pipeline_, base_time_);
    g_object_set(source_, "location", url_.c_str(), "latency", guint(settings_.latency_ms), "rfc7273-sync",
                 gboolean(settings_.network_clock), "ntp-sync", gboolean(!settings_.network_clock), nullptr);
    // On a network clock the clock alone places every frame. rtpbin's
    // lip-sync of the streams of one server (RTCP sender reports) would
    // still shift some of them by a few milliseconds against it: it keeps
    // no offset larger than this nanosecond.
    if (settings_.network_clock)
        g_object_set(source_, "max-ts-offset", gint64(1), nullptr);
    // On the system clock the senders' reports move each stream onto its
    // sender's clock once they come, seconds in: a step of a hundred
    // milliseconds, back or forth. In steps of 2 ms a frame, frames keep
    // their order (up to 400 fps) and a muxer its rising time stamps.
    else
        g_object_set(source_, "max-ts-offset-adjustment", guint64(2 * GST_MSECOND), nullptr);
    if (!settings_.network_clock)
        gst_util_set_object_arg(G_OBJECT(source_), "buffer-mode", "synced");
    gst_util_set_object_arg(G_OBJECT(source_), "protocols", settings_.tcp ? "tcp" : "udp");
    g_signal_connect(source_, "pad-added", G_CALLBACK(on_pad_added), this);
    g_signal_connect(source_, "no-more-pads", G_CALLBACK(on_no_more_pads), this);
    g_signal_connect(source_, "on-sdp", G_CALLBACK(on_sdp), this);
    gst_bin_add(GST_BIN(pipeline_), source_);
    GstBus *bus = gst_element_get_bus(pipeline_);
    bus_watch_ = gst_bus_add_watch(bus, on_message, this);
    gst_object_unref(bus);
    return true;
}

bool UrlRecording::start(std::string *error)
{
    if (!make_pipeline(error))
        return false;
    connect_deadline_us_ = g_get_monotonic_time() + gint64(settings_.connect_seconds * G_USEC_PER_SEC);
    if (gst_element_set_state(pipeline_, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
        *error = "the pipeline of " + url_ + " did not start";
        return false;
    }
    return true;
}

void UrlRecording::on_sdp(GstElement *, GstSDPMessage *sdp, gpointer self)
{
    // The session description is part of the record: it names the clock
    // every frame time refers to.
    auto *recording = static_cast<UrlRecording *>(self);
    gchar *text = gst_sdp_message_as_text(sdp);
    std::ofstream(recording->settings_.out_dir + "/" + recording->name_ + ".sdp") << text;
    g_free(text);
}

void UrlRecording::on_pad_added(GstElement *, GstPad *pad, gpointer self)
{
    static_cast<UrlRecording *>(self)->record_stream(pad);
}

void UrlRecording::on_no_more_pads(GstElement *, gpointer self)
{
    auto *recording = static_cast<UrlRecording *>(self);
    recording->events_->url_described(recording->index_);
}

// depayloader ! [parser !] splitmuxsink, the frames counted where they
// leave the parser: one buffer is one frame there.
void UrlRecording::record_stream(GstPad *pad)
{
    GstCaps *caps = gst_pad_get_current_caps(pad);
    if (!caps)
        caps = gst_pad_query_caps(pad, nullptr);
    const GstStructure *structure = gst_caps_get_structure(caps, 0);
    StreamInfo info;
    info.url = index_;
    std::string pad_name = GST_PAD_NAME(pad);
    std::sscanf(pad_name.c_str(), "recv_rtp_src_%d_", &info.index);
    info.encoding = caps_string(structure, "encoding-name");
    info.ts_refclk = caps_string(structure, "a-ts-refclk");
    info.mediaclk = caps_string(structure, "a-mediaclk");
    std::string media = caps_string(structure, "media");
    gst_caps_unref(caps);
    const Depayloading *chain = media == "video" ? depayloading_for(info.encoding) : nullptr;
    if (!chain) {
        std::fprintf(stderr, "zelisp-rig: %s stream %d (%s %s) is not recorded: only H.264, H.265 and JPEG video "
                             "are\n",
                     url_.c_str(), info.index, media.c_str(), info.encoding.c_str());
        GstElement *sink = gst_element_factory_make("fakesink", nullptr);
        gst_bin_add(GST_BIN(pipeline_), sink);
        gst_element_sync_state_with_parent(sink);
        GstPad *sink_pad = gst_element_get_static_pad(sink, "sink");
        gst_pad_link(pad, sink_pad);
        gst_object_unref(sink_pad);
        g_mutex_lock(&lock_);
        stream_outputs_.push_back(GST_PAD(gst_object_ref(pad)));
        g_mutex_unlock(&lock_);
        return;
    }
    info.name = name_ + "-" + std::to_string(info.index);
    info.files = info.name + "-%05d.mkv";
    int number = events_->stream_added(info);

    GstElement *depayloader = gst_element_factory_make(chain->depayloader, nullptr);
    GstElement *parser = chain->parser ? gst_element_factory_make(chain->parser, nullptr) : nullptr;
    GstElement *sink = gst_element_factory_make("splitmuxsink", nullptr);
    g_object_set(sink, "location", (settings_.out_dir + "/" + info.files).c_str(), "muxer-factory", "matroskamux",
                 "max-size-time", settings_.split_ns, "max-size-bytes", settings_.split_bytes, nullptr);
    gst_bin_add_many(GST_BIN(pipeline_), depayloader, sink, nullptr);
    if (parser)
        gst_bin_add(GST_BIN(pipeline_), parser);
    GstElement *last = parser ? parser : depayloader;
    if (parser)
        gst_element_link(depayloader, parser);
    gst_element_link(last, sink);
    gst_element_sync_state_with_parent(sink);
    if (parser)
        gst_element_sync_state_with_parent(parser);
    gst_element_sync_state_with_parent(depayloader);

    GstPad *frames = gst_element_get_static_pad(last, "src");
    gst_pad_add_probe(frames, GST_PAD_PROBE_TYPE_BUFFER, on_frame, new FrameProbe{events_, number, base_time_},
                      [](gpointer probe) { delete static_cast<FrameProbe *>(probe); });
    gst_object_unref(frames);
    GstPad *input = gst_element_get_static_pad(depayloader, "sink");
    gst_pad_link(pad, input);
    gst_object_unref(input);
    g_mutex_lock(&lock_);
    any_stream_ = true;
    stream_outputs_.push_back(GST_PAD(gst_object_ref(pad)));
    g_mutex_unlock(&lock_);
}

// Each frame lasts until the next one: the stream's own rhythm, as the
// interval before it. Without durations a file would end at its last
// frame's start, and players that follow the file's length (splitmuxsrc
// over split files) would leave that frame out.
GstPadProbeReturn UrlRecording::on_frame(GstPad *pad, GstPadProbeInfo *info, gpointer data)
{
    auto *probe = static_cast<FrameProbe *>(data);
    GstBuffer *buffer = GST_PAD_PROBE_INFO_BUFFER(info);
    if (!GST_BUFFER_PTS_IS_VALID(buffer))
        return GST_PAD_PROBE_OK;
    GstClockTime pts = GST_BUFFER_PTS(buffer);
    if (GST_CLOCK_TIME_IS_VALID(probe->last_pts)) {
        buffer = gst_buffer_make_writable(buffer);
        // A time going back (a clock stepped) would stop the muxer: the
        // frame is placed just after the one before instead.
        if (pts <= probe->last_pts)
            pts = GST_BUFFER_PTS(buffer) = probe->last_pts + 1;
        if (!GST_BUFFER_DURATION_IS_VALID(buffer))
            GST_BUFFER_DURATION(buffer) = pts - probe->last_pts;
        GST_PAD_PROBE_INFO_DATA(info) = buffer;
    }
    probe->last_pts = pts;
    GstClockTime running = pts;
    if (GstEvent *event = gst_pad_get_sticky_event(pad, GST_EVENT_SEGMENT, 0)) {
        const GstSegment *segment = nullptr;
        gst_event_parse_segment(event, &segment);
        running = gst_segment_to_running_time(segment, GST_FORMAT_TIME, pts);
        gst_event_unref(event);
    }
    if (GST_CLOCK_TIME_IS_VALID(running))
        probe->events->frame(probe->stream, running + probe->base_time);
    return GST_PAD_PROBE_OK;
}

gboolean UrlRecording::on_message(GstBus *, GstMessage *message, gpointer self)
{
    auto *recording = static_cast<UrlRecording *>(self);
    switch (GST_MESSAGE_TYPE(message)) {
    case GST_MESSAGE_ERROR:
        recording->handle_error(message);
        break;
    case GST_MESSAGE_WARNING: {
        // rtspsrc warns when the server closes the connection, then ends
        // the streams: the warning says why they ended.
        GError *error = nullptr;
        gchar *debug = nullptr;
        gst_message_parse_warning(message, &error, &debug);
        recording->last_warning_ = error_sentence(error, debug);
        g_error_free(error);
        g_free(debug);
        break;
    }
    case GST_MESSAGE_EOS:
        recording->ended_ = true;
        if (!recording->ending_ && !recording->failed_) {
            recording->failed_ = true;
            std::string why = recording->last_warning_.empty() ? "the server ended its streams" : recording->last_warning_;
            recording->events_->url_failed(recording->index_, why);
        }
        break;
    default:
        break;
    }
    return G_SOURCE_CONTINUE;
}

void UrlRecording::handle_error(GstMessage *message)
{
    if (ending_ || failed_)
        return;
    GError *error = nullptr;
    gchar *debug = nullptr;
    gst_message_parse_error(message, &error, &debug);
    std::string sentence = error_sentence(error, debug);
    bool retry = !any_stream_ && worth_retrying(error) && g_get_monotonic_time() < connect_deadline_us_;
    g_error_free(error);
    g_free(debug);
    if (retry) {
        // Not from within the bus watch: the state change joins rtspsrc's
        // threads, one of which may be posting right now.
        if (!retry_timer_)
            retry_timer_ = g_timeout_add(kRetryMs, on_retry, this);
        return;
    }
    failed_ = true;
    events_->url_failed(index_, sentence);
    end_streams();
}

gboolean UrlRecording::on_retry(gpointer self)
{
    auto *recording = static_cast<UrlRecording *>(self);
    recording->retry_timer_ = 0;
    gst_element_set_state(recording->pipeline_, GST_STATE_NULL);
    gst_element_set_base_time(recording->pipeline_, recording->base_time_);
    gst_element_set_state(recording->pipeline_, GST_STATE_PLAYING);
    return G_SOURCE_REMOVE;
}

// An end of stream into every stream's chain, so that each muxer writes its
// file's index and closes it, whatever became of the server. It is sent
// once rtspsrc's pad is idle, from the thread that finds it so, and the pad
// is unlinked then: sent beside a streaming thread it would wait for that
// thread, which may be waiting downstream itself. A chain whose thread never
// comes back is left to the bounded wait in finish().
void UrlRecording::end_streams()
{
    g_mutex_lock(&lock_);
    std::vector<GstPad *> outputs;
    for (GstPad *pad : stream_outputs_)
        outputs.push_back(GST_PAD(gst_object_ref(pad)));
    g_mutex_unlock(&lock_);
    for (GstPad *pad : outputs) {
        gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_IDLE, end_when_idle, nullptr, nullptr);
        gst_object_unref(pad);
    }
}

GstPadProbeReturn UrlRecording::end_when_idle(GstPad *pad, GstPadProbeInfo *, gpointer)
{
    if (GstPad *chain = gst_pad_get_peer(pad)) {
        gst_pad_unlink(pad, chain);
        gst_pad_send_event(chain, gst_event_new_eos());
        gst_object_unref(chain);
    }
    return GST_PAD_PROBE_REMOVE;
}

void UrlRecording::finish(double seconds)
{
    if (!pipeline_)
        return;
    ending_ = true;
    if (retry_timer_) {
        g_source_remove(retry_timer_);
        retry_timer_ = 0;
    }
    if (!failed_)
        end_streams();
    // The pipeline tells its end once every file is closed.
    gint64 deadline = g_get_monotonic_time() + gint64(seconds * G_USEC_PER_SEC);
    while (!ended_ && any_stream_ && g_get_monotonic_time() < deadline) {
        if (!g_main_context_iteration(nullptr, FALSE))
            g_usleep(10 * 1000);
    }
    gst_element_set_state(pipeline_, GST_STATE_NULL);
}

} // namespace zrig
