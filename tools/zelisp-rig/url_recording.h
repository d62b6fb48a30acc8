/*
 * url_recording.h - recording every stream of one RTSP URL, in a pipeline
 * of its own: rtspsrc, and per stream its depayloader, parser and a
 * splitmuxsink writing Matroska files, without re-encoding.
 *
 * Each URL has its own pipeline so that one server failing (a board
 * switched off mid-run) stops only its streams. All pipelines run on the
 * rig's clock with one base time, so that a buffer's running time plus
 * that base time is its time on the rig's time line, and the files of all
 * streams share one time axis. On a network clock rtspsrc places every
 * frame by the clock the SDP names (RFC 7273) instead of by its arrival;
 * on the system clock it has only the senders' RTCP reports to go by.
 */
#ifndef ZELISP_RIG_URL_RECORDING_H
#define ZELISP_RIG_URL_RECORDING_H

#include <gst/gst.h>
#include <gst/sdp/gstsdpmessage.h>

#include <atomic>
#include <string>
#include <vector>

namespace zrig {

struct RecordSettings {
    std::string out_dir;
    int latency_ms = 2000;
    bool tcp = true;
    guint64 split_ns = 0;     // a new file after this much time; 0: never
    guint64 split_bytes = 0;  // a new file after this size; 0: never
    bool network_clock = true;
    double connect_seconds = 10; // how long to keep trying a server that refuses the connection
};

// What a stream is, as its SDP and caps tell.
struct StreamInfo {
    int url = 0;
    int index = 0;       // the stream's number in its session
    std::string name;    // "10.0.0.2-8554-group-1": files and CSV
    std::string encoding;
    std::string ts_refclk; // RFC 7273 signalling, as the server sent it
    std::string mediaclk;
    std::string files;   // the file name pattern of its recording
};

// Where a URL recording reports. stream_added and frame come from
// GStreamer's streaming threads, the others from the main loop.
class RecordingEvents {
public:
    virtual ~RecordingEvents() = default;
    // Returns the stream's number in the rig.
    virtual int stream_added(const StreamInfo &info) = 0;
    virtual void frame(int stream, GstClockTime time_ns) = 0;
    // Every stream of the URL is known.
    virtual void url_described(int url) = 0;
    // The URL's streams stopped for good; `sentence` says why.
    virtual void url_failed(int url, const std::string &sentence) = 0;
};

class UrlRecording {
public:
    UrlRecording(int index, std::string url, const RecordSettings &settings, GstClock *clock,
                 GstClockTime base_time, RecordingEvents *events);
    ~UrlRecording();
    UrlRecording(const UrlRecording &) = delete;
    UrlRecording &operator=(const UrlRecording &) = delete;

    const std::string &url() const { return url_; }
    bool start(std::string *error);
    // Ends the recording: every stream's file is closed properly. Waits for
    // the files at most `seconds`.
    void finish(double seconds);
    bool failed() const { return failed_; }

private:
    static void on_pad_added(GstElement *source, GstPad *pad, gpointer self);
    static void on_no_more_pads(GstElement *source, gpointer self);
    static void on_sdp(GstElement *source, GstSDPMessage *sdp, gpointer self);
    static GstPadProbeReturn on_frame(GstPad *pad, GstPadProbeInfo *info, gpointer self);
    static gboolean on_message(GstBus *bus, GstMessage *message, gpointer self);
    static gboolean on_retry(gpointer self);
    static GstPadProbeReturn end_when_idle(GstPad *pad, GstPadProbeInfo *info, gpointer self);
    void record_stream(GstPad *pad);
    void handle_error(GstMessage *message);
    void end_streams();
    bool make_pipeline(std::string *error);

    int index_;
    std::string url_;
    std::string name_;
    RecordSettings settings_;
    GstClock *clock_;
    GstClockTime base_time_;
    RecordingEvents *events_;
    GstElement *pipeline_ = nullptr;
    GstElement *source_ = nullptr;
    guint bus_watch_ = 0;
    guint retry_timer_ = 0;
    gint64 connect_deadline_us_ = 0;
    std::atomic<bool> any_stream_{false}; // a stream was set up: no more reconnecting
    bool failed_ = false;
    std::string last_warning_;
    bool ending_ = false;
    bool ended_ = false;
    // Streaming threads add streams; the main loop reads them.
    GMutex lock_;
    std::vector<GstPad *> stream_outputs_; // rtspsrc's pad of each stream, linked to its chain
};

// The URL's part of file and stream names: "10.0.0.2-8554-group".
std::string url_file_name(const std::string &url);

} // namespace zrig

#endif
