/*
 * recorder.h - "zelisp-rig record": the rig's clock, one URL recording per
 * server, frame sets as the frames come, the watch on every stream, and the
 * record left in the output folder (the files, framesets.csv, the servers'
 * SDP, summary.json).
 */
#ifndef ZELISP_RIG_RECORDER_H
#define ZELISP_RIG_RECORDER_H

#include <glib.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "frame_sets.h"
#include "framesets_csv.h"
#include "network_clock.h"
#include "record_options.h"
#include "status_line.h"
#include "url_recording.h"

namespace zrig {

class Recorder : public RecordingEvents {
public:
    explicit Recorder(const RecordOptions &options);
    ~Recorder() override;

    // Records until the time is up, every stream is gone, or SIGINT/SIGTERM;
    // returns the exit status.
    int run();

    int stream_added(const StreamInfo &info) override;
    void frame(int stream, GstClockTime time_ns) override;
    void url_described(int url) override;
    void url_failed(int url, const std::string &sentence) override;

private:
    enum class StreamState { Recording, Ended, Lost };
    struct StreamRecord {
        StreamInfo info;
        StreamState state = StreamState::Recording;
        gint64 last_frame_us = 0; // when its latest frame came (monotonic)
        double lost_at = -1;      // seconds after the first frame
        std::string reason;
        uint64_t frames_at_last_tick = 0;
    };
    struct UrlRecord {
        bool described = false;
        bool failed = false;
        std::string reason;
    };

    bool check_output(std::string *error);
    bool check_folder_can_be_made(std::string *error);
    bool make_output(std::string *error);
    bool start_clock(std::string *error);
    static gboolean on_tick(gpointer self);
    static gboolean on_stop_signal(gpointer self);
    void tick();
    void watch_streams(gint64 now);
    void lose_stream(size_t stream, const std::string &reason);
    void write_final_sets(std::vector<FrameSet> sets);
    void show_status(gint64 now);
    double seconds_since_first_frame(gint64 now) const;
    int finish();
    void write_summary(int status, const std::vector<std::string> &problems);
    uint64_t recorded_bytes(const std::string &name) const;

    RecordOptions options_;
    std::unique_ptr<netclock::NetworkClock> clock_;
    GstClockTime base_time_ = 0;
    std::vector<std::unique_ptr<UrlRecording>> urls_;
    GMainLoop *loop_ = nullptr;
    FramesetsCsv csv_;
    StatusLine status_line_;
    SkewTally skews_;
    bool announced_ = false;
    bool clock_synced_ = false;
    bool interrupted_ = false;
    gint64 started_us_ = 0;
    gint64 last_status_us_ = 0;

    // Streaming threads add streams and frames; the main loop reads them.
    std::mutex mutex_;
    FrameSetBuilder builder_;
    std::vector<StreamRecord> streams_;
    std::vector<UrlRecord> url_records_;
    gint64 first_frame_us_ = 0;
    std::vector<std::string> problems_;
};

} // namespace zrig

#endif
