/*
 * recorder.cpp - running a recording.
 */
#include "recorder.h"

#include <glib-unix.h>
#include <glib/gstdio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "clock_log.h"
#include "rig_summary.h"

namespace zrig {
namespace {

constexpr guint kTickMs = 200;
constexpr double kFinishSeconds = 10; // for every file to be closed at the end

std::string seconds_text(double seconds)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.1f s", seconds);
    return text;
}

} // namespace

// The size of a stream's files: <name>-NNNNN.mkv in the output folder.
uint64_t Recorder::recorded_bytes(const std::string &name) const
{
    uint64_t bytes = 0;
    GDir *folder = g_dir_open(options_.out_dir.c_str(), 0, nullptr);
    if (!folder)
        return 0;
    std::string prefix = name + "-";
    while (const gchar *file = g_dir_read_name(folder)) {
        std::string entry = file;
        if (entry.size() == prefix.size() + 9 && entry.compare(0, prefix.size(), prefix) == 0 &&
            entry.compare(entry.size() - 4, 4, ".mkv") == 0) {
            GStatBuf info;
            if (g_stat((options_.out_dir + "/" + entry).c_str(), &info) == 0)
                bytes += uint64_t(info.st_size);
        }
    }
    g_dir_close(folder);
    return bytes;
}

Recorder::Recorder(const RecordOptions &options) : options_(options) {}

Recorder::~Recorder()
{
    urls_.clear();
    if (loop_)
        g_main_loop_unref(loop_);
}

// A folder of its own: a recording never writes over another one. Checked
// before the clock is started, made only once the clock has answered (synced,
// or to hold the summary of why not): a recording stopped while it waits for
// its clock leaves no folder behind.
bool Recorder::check_output(std::string *error)
{
    const std::string &folder = options_.out_dir;
    if (!g_file_test(folder.c_str(), G_FILE_TEST_EXISTS))
        return check_folder_can_be_made(error);
    if (!g_file_test(folder.c_str(), G_FILE_TEST_IS_DIR)) {
        *error = "cannot create the folder " + folder + ": " + std::strerror(EEXIST);
        return false;
    }
    for (const char *name : {"framesets.csv", "summary.json"}) {
        if (g_file_test((folder + "/" + name).c_str(), G_FILE_TEST_EXISTS)) {
            *error = folder + " already holds a recording (" + name + "): choose another folder";
            return false;
        }
    }
    if (access(folder.c_str(), W_OK) != 0) {
        *error = "cannot write into " + folder + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

// A missing folder is made inside the nearest folder that exists, which
// must let us write.
bool Recorder::check_folder_can_be_made(std::string *error)
{
    gchar *parent = g_path_get_dirname(options_.out_dir.c_str());
    while (!g_file_test(parent, G_FILE_TEST_EXISTS)) {
        gchar *up = g_path_get_dirname(parent);
        g_free(parent);
        parent = up;
    }
    int reason = 0;
    if (!g_file_test(parent, G_FILE_TEST_IS_DIR))
        reason = ENOTDIR;
    else if (access(parent, W_OK) != 0)
        reason = errno;
    g_free(parent);
    if (reason != 0)
        *error = "cannot create the folder " + options_.out_dir + ": " + std::strerror(reason);
    return reason == 0;
}

bool Recorder::make_output(std::string *error)
{
    if (g_mkdir_with_parents(options_.out_dir.c_str(), 0755) != 0) {
        *error = "cannot create the folder " + options_.out_dir + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

bool Recorder::start_clock(std::string *error)
{
    clock_ = netclock::NetworkClock::create(options_.clock, error);
    if (!clock_)
        return false;
    netclock::ClockLog log(*clock_, "zelisp-rig", "");
    log.start();
    clock_synced_ = clock_->wait_for_sync(options_.sync_timeout, error);
    if (clock_synced_ && clock_->is_network())
        std::fprintf(stderr, "zelisp-rig: clock %s: %s\n", netclock::clock_name(options_.clock).c_str(),
                     netclock::state_sentence(options_.clock, clock_->state()).c_str());
    return clock_synced_;
}

int Recorder::run()
{
    std::string error;
    if (!check_output(&error)) {
        std::fprintf(stderr, "zelisp-rig: %s\n", error.c_str());
        return kExitOutput;
    }
    const bool synced = start_clock(&error);
    std::string output_error;
    if (!make_output(&output_error)) {
        std::fprintf(stderr, "zelisp-rig: %s\n", output_error.c_str());
        return kExitOutput;
    }
    if (!synced) {
        std::fprintf(stderr, "zelisp-rig: %s\n", error.c_str());
        write_summary(kExitClockNotSynced, {error});
        return kExitClockNotSynced;
    }
    if (!csv_.open(options_.out_dir + "/framesets.csv")) {
        std::fprintf(stderr, "zelisp-rig: cannot write %s/framesets.csv: %s\n", options_.out_dir.c_str(),
                     std::strerror(errno));
        return kExitOutput;
    }
    base_time_ = gst_clock_get_time(clock_->clock());
    RecordSettings settings;
    settings.out_dir = options_.out_dir;
    settings.latency_ms = options_.latency_ms;
    settings.tcp = options_.tcp;
    settings.split_ns = guint64(options_.split_seconds * GST_SECOND);
    settings.split_bytes = guint64(options_.split_megabytes * 1e6);
    settings.network_clock = clock_->is_network();
    settings.connect_seconds = options_.connect_seconds;
    url_records_.resize(options_.urls.size());
    for (size_t i = 0; i < options_.urls.size(); ++i) {
        urls_.emplace_back(new UrlRecording(int(i), options_.urls[i], settings, clock_->clock(), base_time_, this));
        if (!urls_.back()->start(&error)) {
            std::fprintf(stderr, "zelisp-rig: %s\n", error.c_str());
            return kExitStreamLost;
        }
    }
    started_us_ = g_get_monotonic_time();
    loop_ = g_main_loop_new(nullptr, FALSE);
    guint tick = g_timeout_add(kTickMs, on_tick, this);
    guint interrupt = g_unix_signal_add(SIGINT, on_stop_signal, this);
    guint terminate = g_unix_signal_add(SIGTERM, on_stop_signal, this);
    g_main_loop_run(loop_);
    g_source_remove(tick);
    g_source_remove(interrupt);
    g_source_remove(terminate);
    return finish();
}

gboolean Recorder::on_stop_signal(gpointer self)
{
    auto *recorder = static_cast<Recorder *>(self);
    recorder->interrupted_ = true;
    g_main_loop_quit(recorder->loop_);
    return G_SOURCE_CONTINUE;
}

int Recorder::stream_added(const StreamInfo &info)
{
    std::lock_guard<std::mutex> lock(mutex_);
    StreamRecord record;
    record.info = info;
    record.last_frame_us = g_get_monotonic_time();
    streams_.push_back(record);
    return builder_.add_stream();
}

void Recorder::frame(int stream, GstClockTime time_ns)
{
    std::lock_guard<std::mutex> lock(mutex_);
    StreamRecord &record = streams_[size_t(stream)];
    if (record.state != StreamState::Recording)
        return;
    uint64_t index = 0;
    if (!builder_.add(stream, int64_t(time_ns), &index))
        return;
    record.last_frame_us = g_get_monotonic_time();
    if (first_frame_us_ == 0)
        first_frame_us_ = record.last_frame_us;
}

void Recorder::url_described(int url)
{
    std::lock_guard<std::mutex> lock(mutex_);
    url_records_[size_t(url)].described = true;
}

void Recorder::url_failed(int url, const std::string &sentence)
{
    std::lock_guard<std::mutex> lock(mutex_);
    UrlRecord &record = url_records_[size_t(url)];
    record.failed = true;
    record.reason = sentence;
    int lost = 0, recording = 0;
    for (size_t i = 0; i < streams_.size(); ++i) {
        if (streams_[i].info.url == url && streams_[i].state == StreamState::Recording) {
            lose_stream(i, sentence);
            ++lost;
        }
    }
    for (const StreamRecord &stream : streams_)
        recording += stream.state == StreamState::Recording;
    status_line_.end_line();
    std::string others = recording == 0   ? "no other stream records on"
                         : recording == 1 ? "1 other stream records on"
                                          : std::to_string(recording) + " other streams record on";
    std::string problem = lost > 0 ? "lost " + options_.urls[size_t(url)] + " after " +
                                         seconds_text(seconds_since_first_frame(g_get_monotonic_time())) + ": " +
                                         sentence + "; " + others
                                   : "cannot record " + options_.urls[size_t(url)] + ": " + sentence;
    std::fprintf(stderr, "zelisp-rig: %s\n", problem.c_str());
    problems_.push_back(problem);
}

// With the lock held.
void Recorder::lose_stream(size_t stream, const std::string &reason)
{
    StreamRecord &record = streams_[stream];
    record.state = StreamState::Lost;
    record.reason = reason;
    record.lost_at = seconds_since_first_frame(g_get_monotonic_time());
    builder_.close(int(stream));
}

double Recorder::seconds_since_first_frame(gint64 now) const
{
    return first_frame_us_ == 0 ? 0 : double(now - first_frame_us_) / 1e6;
}

gboolean Recorder::on_tick(gpointer self)
{
    static_cast<Recorder *>(self)->tick();
    return G_SOURCE_CONTINUE;
}

void Recorder::tick()
{
    gint64 now = g_get_monotonic_time();
    std::vector<FrameSet> sets;
    bool all_known = true, any_recording = false;
    int streams = 0;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        watch_streams(now);
        for (const UrlRecord &url : url_records_)
            all_known = all_known && (url.described || url.failed);
        for (const StreamRecord &stream : streams_)
            any_recording = any_recording || stream.state == StreamState::Recording;
        // Until every server has described its streams, a set could still
        // gain a stream.
        if (all_known)
            sets = builder_.take_final();
        streams = int(streams_.size());
    }
    if (all_known && !announced_ && streams > 0) {
        announced_ = true;
        std::fprintf(stderr, "zelisp-rig: recording %d streams from %zu servers on clock %s into %s\n", streams,
                     options_.urls.size(), netclock::clock_name(options_.clock).c_str(), options_.out_dir.c_str());
    }
    write_final_sets(std::move(sets));
    if (now - last_status_us_ >= G_USEC_PER_SEC) {
        show_status(now);
        last_status_us_ = now;
    }
    bool time_up = options_.seconds > 0 && first_frame_us_ != 0 && seconds_since_first_frame(now) >= options_.seconds;
    // Once every server is known, a rig with no stream left has nothing
    // more to record.
    if (time_up || (all_known && !any_recording))
        g_main_loop_quit(loop_);
}

// With the lock held: a stream that stopped delivering frames is lost even
// when its connection stays open (a board hung, a cable pulled), and so is
// a server that never described its session.
void Recorder::watch_streams(gint64 now)
{
    gint64 stall_us = gint64(options_.stall_seconds * G_USEC_PER_SEC);
    for (size_t i = 0; i < streams_.size(); ++i) {
        StreamRecord &stream = streams_[i];
        if (stream.state == StreamState::Recording && now - stream.last_frame_us > stall_us) {
            char reason[64];
            std::snprintf(reason, sizeof reason, "no frame for %g s", options_.stall_seconds);
            lose_stream(i, reason);
            std::string problem = "lost " + stream.info.name + " after " +
                                  seconds_text(seconds_since_first_frame(now)) + ": " + reason;
            status_line_.end_line();
            std::fprintf(stderr, "zelisp-rig: %s\n", problem.c_str());
            problems_.push_back(problem);
        }
    }
    gint64 describe_us = gint64((options_.connect_seconds + options_.stall_seconds) * G_USEC_PER_SEC) +
                         gint64(options_.latency_ms) * 1000;
    for (size_t i = 0; i < url_records_.size(); ++i) {
        UrlRecord &url = url_records_[i];
        if (!url.described && !url.failed && now - started_us_ > describe_us) {
            url.failed = true;
            url.reason = "the server did not describe its streams";
            std::string problem = "cannot record " + options_.urls[i] + ": " + url.reason;
            status_line_.end_line();
            std::fprintf(stderr, "zelisp-rig: %s\n", problem.c_str());
            problems_.push_back(problem);
        }
    }
}

void Recorder::write_final_sets(std::vector<FrameSet> sets)
{
    if (sets.empty())
        return;
    std::vector<std::string> names;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const StreamRecord &stream : streams_)
            names.push_back(stream.info.name);
    }
    for (const FrameSet &set : sets) {
        csv_.write(set, names);
        skews_.add(set);
    }
}

void Recorder::show_status(gint64 now)
{
    RigStatus status;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (first_frame_us_ == 0)
            return;
        status.seconds = seconds_since_first_frame(now);
        status.streams = int(streams_.size());
        uint64_t new_frames = 0;
        for (size_t i = 0; i < streams_.size(); ++i) {
            StreamRecord &stream = streams_[i];
            status.recording += stream.state == StreamState::Recording;
            status.lost += builder_.lost_frames(int(i));
            new_frames += builder_.frames(int(i)) - stream.frames_at_last_tick;
            stream.frames_at_last_tick = builder_.frames(int(i));
        }
        double interval = last_status_us_ ? double(now - last_status_us_) / 1e6 : 1.0;
        if (status.recording > 0)
            status.fps = double(new_frames) / interval / status.recording;
    }
    status_line_.show(status, skews_);
}

int Recorder::finish()
{
    for (auto &url : urls_)
        url->finish(kFinishSeconds);
    std::vector<FrameSet> sets;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (size_t i = 0; i < streams_.size(); ++i) {
            if (streams_[i].state == StreamState::Recording)
                streams_[i].state = StreamState::Ended;
            builder_.close(int(i));
        }
        sets = builder_.take_final();
        std::vector<FrameSet> rest = builder_.take_all();
        sets.insert(sets.end(), rest.begin(), rest.end());
    }
    write_final_sets(std::move(sets));
    show_status(g_get_monotonic_time());
    status_line_.end_line();
    std::vector<std::string> problems = problems_;
    if (!csv_.close())
        problems.push_back("framesets.csv could not be written completely");
    bool lost = false;
    for (const StreamRecord &stream : streams_)
        lost = lost || stream.state == StreamState::Lost;
    for (const UrlRecord &url : url_records_)
        lost = lost || url.failed;
    if (streams_.empty() && problems.empty())
        problems.push_back("no stream was recorded");
    int status = !problems.empty() || lost ? kExitStreamLost : kExitOk;
    if (status != kExitOk && problems_.size() < problems.size())
        std::fprintf(stderr, "zelisp-rig: %s\n", problems.back().c_str());
    write_summary(status, problems);
    return status;
}

void Recorder::write_summary(int status, const std::vector<std::string> &problems)
{
    SummaryInput input;
    input.options = &options_;
    input.clock = clock_.get();
    input.clock_synced = clock_synced_;
    input.base_time_ns = base_time_;
    input.seconds = seconds_since_first_frame(g_get_monotonic_time());
    input.interrupted = interrupted_;
    input.skews = &skews_;
    input.period_ns = builder_.period_ns();
    for (size_t i = 0; i < streams_.size(); ++i) {
        const StreamRecord &stream = streams_[i];
        SummaryStream out;
        out.info = stream.info;
        out.frames = builder_.frames(int(i));
        out.lost_frames = builder_.lost_frames(int(i));
        out.bytes = recorded_bytes(stream.info.name);
        out.state = stream.state == StreamState::Lost ? "lost" : "recorded";
        out.lost_at = stream.lost_at;
        out.reason = stream.reason;
        input.streams.push_back(out);
    }
    input.problems = problems;
    input.exit_status = status;
    std::string path = options_.out_dir + "/summary.json";
    FILE *file = std::fopen(path.c_str(), "w");
    bool written = file && std::fputs(summary_json(input).c_str(), file) >= 0;
    if (file && std::fclose(file) != 0)
        written = false;
    if (!written)
        std::fprintf(stderr, "zelisp-rig: cannot write %s: %s\n", path.c_str(), std::strerror(errno));
}

} // namespace zrig
