/*
 * zelispbasesrc.h - the abstract element zelispsrc and zelispgroupsrc derive
 * from: a live source whose streaming thread waits for the driver, takes a
 * frame (one camera) or a frame set (a group), wraps it zero copy on every
 * pad with one PTS and pushes it. It owns what every such source does the
 * same way: the live state changes (frames only in PLAYING, no state change
 * ever waits for the streaming thread), EOS on request, caps and latency
 * queries, the pressure rule that copies instead of starving the camera,
 * sequence gaps, errors in the library's words, and the properties
 * "buffers", "max-copies", "timeout-ms", "num-buffers" and "stats".
 *
 * An element adds, as a gstzelisp::Source, how its camera or group is
 * opened, negotiated, started, read and stopped.
 */
#ifndef GST_ZELISP_BASE_SRC_H
#define GST_ZELISP_BASE_SRC_H

#include <gst/gst.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "element_support.h"
#include "frame_memory.h"
#include "zelisp.h"

G_BEGIN_DECLS

#define GST_TYPE_ZELISP_BASE_SRC (gst_zelisp_base_src_get_type())
G_DECLARE_DERIVABLE_TYPE(GstZelispBaseSrc, gst_zelisp_base_src, GST, ZELISP_BASE_SRC, GstElement)

struct _GstZelispBaseSrcClass {
    GstElementClass parent_class;
};

G_END_DECLS

namespace gstzelisp {

// A group has up to 8 members, one frame each in a set.
constexpr int kMostFramesInSet = 8;

// One pad and the view it carries. Shared by the element's list and the
// streaming thread's copy of it, so that a pad released while a frame is
// pushed stays valid until that push is over.
struct PadOutput {
    PadOutput() = default;
    PadOutput(const PadOutput &) = delete;
    PadOutput &operator=(const PadOutput &) = delete;
    ~PadOutput();

    GstPad *pad = nullptr;   // a reference of its own
    std::string label;       // in messages: "view 1", "camera 3"
    std::string stream_name; // in the stream id: "view1", "camera3"
    size_t frame = 0;        // the frame of the set it carries
    ViewOutput output;
    GstCaps *caps = nullptr; // negotiated when the stream is set up
    bool eos = false;        // streaming thread only
    std::atomic<bool> released{false};
};

// What the streaming thread takes at once: one frame of each camera.
struct FrameSet {
    zelvideo::_isp_buf_t frames[kMostFramesInSet];
    size_t count = 0;
};

// The earliest and latest capture times of a set's frames, microseconds.
struct CaptureSpan {
    uint64_t first;
    uint64_t last;
};

struct SourceCounters {
    guint64 frames = 0;  // frames, or frame sets of a group, pushed
    guint64 dropped = 0; // lost: sequence gaps, and frames no copy was left for
    guint64 refused = 0;
    guint64 copied = 0;
    guint64 copy_limit_drops = 0; // the part of `dropped` that found every copy held
    guint64 skew_us = 0;          // spread of a set's capture times, the last set
    guint64 max_skew_us = 0;      // and the largest since the stream was set up
};

// The counters as the streaming thread keeps them: it alone writes them,
// "stats" reads them at any time, without a lock taken a frame.
struct LiveCounters {
    std::atomic<guint64> frames{0}, dropped{0}, refused{0}, copied{0}, copy_limit_drops{0}, skew_us{0},
        max_skew_us{0};
    SourceCounters snapshot() const;
    void reset();
};

class Source {
public:
    // noun: what is set up, in refusals ("camera", "group").
    Source(GstElement *element, const char *noun) : element_(element), noun_(noun) {}
    virtual ~Source() = default;
    Source(const Source &) = delete;
    Source &operator=(const Source &) = delete;

    // ---- What an element provides ----

    // NULL to READY: whether the camera (or every member) exists, after
    // posting the error when not. An element that fails here lets
    // autovideosrc and device pickers move on to another source.
    virtual bool check_present() = 0;
    // READY to PAUSED: opens and sets up the camera or group, negotiates and
    // sets the format of every output (its caps); returns the stream that
    // closes them, with the camera handle each frame of a set comes from,
    // or nullptr after posting the error.
    virtual Stream *open(std::vector<unsigned long> *handles) = 0;
    // With the stream's library lock held.
    virtual int start_capture(const char **call) = 0;
    virtual void stop_capture() = 0;
    // Takes the next frame set without waiting (every node is readable),
    // with the library lock held. On failure, frames already taken are given
    // back.
    virtual int take(FrameSet *set) = 0;
    virtual const char *take_call() const = 0;
    // Frames of [first, last] the ISP's decimation skipped on purpose: not
    // a gap.
    virtual guint64 skipped_between(uint32_t, uint32_t) const { return 0; }
    // A pushed set's spread of capture times against the frame period (a
    // group checks its trigger with it).
    virtual void check_skew(guint64, GstClockTime) {}
    // PAUSED to READY: the stream is about to be given up (tunings that
    // hold it let go).
    virtual void stream_closing() {}
    // Applies the values of the element's controlled properties (and its
    // children's) for the running time of the next buffers.
    virtual void sync_controlled_values(GstClockTime running_time);
    virtual GstStructure *stats_structure(const SourceCounters &counters) const = 0;

    // ---- Shared ----

    // Stream set up (PAUSED and PLAYING). Read under GST_OBJECT_LOCK where
    // another thread may set it.
    Stream *stream() const { return stream_; }
    bool is_set_up() const { return stream_ != nullptr; }
    // Set up, or being set up: what the set-up reads (the views, pads and
    // members, the buffer counts) can no longer change. GST_OBJECT_LOCK.
    bool is_fixed() const { return stream_ != nullptr || setting_up_; }
    // Held by the set-up throughout, and by whatever adds an output, so
    // that an output is either in the set-up or refused, never half in.
    std::mutex &layout_lock() { return layout_lock_; }
    // The warning for a property that cannot change while set up.
    void refuse_while_set_up(GObject *object, const char *property) const;

    // A pad answering caps and latency queries, not yet added to the
    // element; its output is listed (GST_OBJECT_LOCK taken).
    GstPad *make_pad(GstPadTemplate *templ, const std::string &name, std::unique_ptr<PadOutput> output);
    // The caps negotiated for an output, with their memory (takes `caps`).
    void set_caps(PadOutput &output, GstCaps *caps);
    // Unlists the output of `pad`, which the streaming thread stops pushing
    // to with its next frame (GST_OBJECT_LOCK held by the caller).
    void forget_pad(GstPad *pad);
    // The outputs, in pad order (GST_OBJECT_LOCK held by the caller, or
    // the element in NULL or READY).
    const std::vector<std::shared_ptr<PadOutput>> &outputs() const { return outputs_; }

    // Fixed while set up: the streaming thread reads them as they are.
    int buffers = 4;
    int max_copies = 16;
    // Changeable while streaming, read by the streaming thread every frame:
    // atomics rather than the object lock.
    std::atomic<int> timeout_ms{2000};
    std::atomic<int> num_buffers{-1};

    // The GObject side (zelispbasesrc.cpp).
    bool set_up();
    void start_streaming();
    void play();
    void pause();
    void begin_stop();
    void finish_stop();
    void loop();
    void request_eos();
    gboolean query(GstPad *pad, GstObject *parent, GstQuery *query);
    GstStructure *stats() const;

protected:
    GstElement *element_;

private:
    bool open_stream();
    void start_pads();
    bool wait_until_playing();
    bool wait_for_live_change();
    void note_resume();
    void wake_streaming_thread(gboolean woken);
    GstFlowReturn take_set(FrameSet *set);
    bool retry_refused(int refused_in_a_row);
    WaitResult wait_for_all(int timeout_ms, gint64 deadline, gint64 now_us);
    bool captured_before_resume(uint64_t capture_us, gint64 now_us) const;
    void give_back(const FrameSet &set);
    GstClockTime set_pts(uint64_t capture_us, gint64 now_us);
    void refresh_outputs();
    bool stream_next_set();
    bool push_set(FrameSet &set, CaptureSpan capture, gint64 taken_us);
    // Pauses the task (with EOS downstream when the stream ended or
    // failed); false, for the frame loop to end its round.
    bool pause_streaming(GstFlowReturn flow);
    void tear_down();

    const char *noun_;
    // The element's list (GST_OBJECT_LOCK), changed only with a new version
    // number, and the streaming thread's copy of it. The version is also
    // read without the lock: the copy is renewed only when it moved.
    std::vector<std::shared_ptr<PadOutput>> outputs_;
    std::atomic<guint64> outputs_version_{0};
    std::vector<std::shared_ptr<PadOutput>> streaming_outputs_;
    guint64 streaming_version_ = G_MAXUINT64;
    GstPad *task_pad_ = nullptr; // runs the streaming thread, a reference while set up
    Stream *stream_ = nullptr;
    bool setting_up_ = false; // GST_OBJECT_LOCK
    std::mutex layout_lock_;
    std::vector<unsigned long> handles_; // the camera of each frame of a set
    GstPoll *poll_ = nullptr;
    std::vector<GstPollFD> poll_fds_;

    // Live state, set by the state changes under live_lock_ and waited for
    // by the streaming thread. The flags and the resume count are atomics
    // too: while playing on, a frame reads them without the lock.
    std::mutex live_lock_;
    std::condition_variable live_changed_;
    std::atomic<bool> playing_{false};
    std::atomic<bool> stopping_{false};
    std::atomic<uint64_t> resumes_{0}; // PAUSED to PLAYING transitions since set-up
    gint64 resumed_at_us_ = 0;  // CLOCK_MONOTONIC of the last one
    // The pipeline's clock (a reference of its own) and base time: a
    // pipeline hands them to its elements on every way to PLAYING.
    GstClock *resumed_clock_ = nullptr;
    GstClockTime resumed_base_time_ = 0;
    std::atomic<bool> eos_pending_{false};

    // Streaming thread only.
    bool capturing_ = false;
    bool started_pads_ = false;
    uint64_t resumes_seen_ = 0;
    gint64 resume_floor_us_ = 0;   // frames captured before it belong to the pause
    GstClock *clock_ = nullptr;    // the last resume's, for the PTS: no lock a frame
    GstClockTime base_time_ = 0;
    bool resumed_ = false;         // no set pushed since a resume: the gap is the pause's
    bool discont_pending_ = false; // a set was lost since the last push
    gint64 stream_on_us_ = 0;
    guint64 pushed_ = 0;
    bool have_sequence_ = false;
    guint64 unpushed_since_pushed_ = 0; // refused, or dropped without a copy
    uint32_t last_sequence_ = 0;
    uint64_t last_timestamp_us_ = 0;
    bool have_pts_ = false;
    GstClockTime last_pts_ = 0;
    std::atomic<GstClockTime> frame_interval_{33 * GST_MSECOND}; // also read by the latency query

    LiveCounters counters_;
};

} // namespace gstzelisp

// The element's Source, made by the element's instance init.
gstzelisp::Source &gst_zelisp_base_src_source(gpointer element);
void gst_zelisp_base_src_set_source(GstZelispBaseSrc *element, gstzelisp::Source *source);

#endif
