/*
 * zelispbasesrc.h - the abstract element zelispsrc and zelispgroupsrc derive
 * from: a live source whose streaming thread waits for the driver, takes a
 * frame (one camera) or a frame set (a group), wraps it zero copy on every
 * pad with one PTS and pushes it. It owns what every such source does the
 * same way: the state changes, EOS on request, caps and latency queries,
 * the pressure rule that copies instead of starving the camera, sequence
 * gaps, errors in the library's words, and the properties "buffers",
 * "timeout-ms", "num-buffers" and "stats".
 *
 * An element adds, as a gstzelisp::Source, how its camera or group is
 * opened, started, read and stopped.
 */
#ifndef GST_ZELISP_BASE_SRC_H
#define GST_ZELISP_BASE_SRC_H

#include <gst/gst.h>

#include <atomic>
#include <memory>
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

// One pad and the view it carries.
struct PadOutput {
    GstPad *pad = nullptr;
    std::string label;       // in messages: "view 1", "camera 3"
    std::string stream_name; // in the stream id: "view1", "camera3"
    size_t frame = 0;        // the frame of the set it carries
    ViewOutput output;
    bool eos = false;
};

// What the streaming thread takes at once: one frame of each camera.
struct FrameSet {
    zelvideo::_isp_buf_t frames[kMostFramesInSet];
    size_t count = 0;
};

struct SourceCounters {
    guint64 frames = 0; // frames, or frame sets of a group, pushed
    guint64 dropped = 0;
    guint64 refused = 0;
    guint64 copied = 0;
    guint64 skew_us = 0;     // spread of a set's capture times, the last set
    guint64 max_skew_us = 0; // and the largest since the stream was set up
};

class Source {
public:
    // noun: what is set up, in refusals ("camera", "group").
    Source(GstElement *element, const char *noun) : element_(element), noun_(noun) {}
    virtual ~Source() = default;
    Source(const Source &) = delete;
    Source &operator=(const Source &) = delete;

    // ---- What an element provides ----

    // READY to PAUSED: opens and sets up the camera or group and the format
    // of every output; returns the stream that closes them, with the camera
    // handle each frame of a set comes from, or nullptr after posting the
    // error.
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
    virtual GstStructure *stats_structure(const SourceCounters &counters) const = 0;

    // ---- Shared ----

    // Stream set up (PAUSED and PLAYING). Read under GST_OBJECT_LOCK where
    // another thread may set it.
    Stream *stream() const { return stream_; }
    bool is_set_up() const { return stream_ != nullptr; }
    // The warning for a property that cannot change while set up.
    void refuse_while_set_up(GObject *object, const char *property) const;

    // A pad answering caps and latency queries, not yet added to the
    // element; its output is listed (GST_OBJECT_LOCK taken).
    GstPad *make_pad(GstPadTemplate *templ, const std::string &name, std::unique_ptr<PadOutput> output);
    // Unlists the output of `pad` (GST_OBJECT_LOCK held by the caller).
    void forget_pad(GstPad *pad);
    std::vector<std::unique_ptr<PadOutput>> &outputs() { return outputs_; }

    int buffers = 4;
    int timeout_ms = 2000;
    int num_buffers = -1;

    // The GObject side (zelispbasesrc.cpp).
    bool set_up();
    void tear_down();
    void loop();
    void request_eos();
    // Wakes the streaming thread out of its wait for the sensor (TRUE).
    void request_flush(gboolean flushing);
    gboolean query(GstPad *pad, GstObject *parent, GstQuery *query);
    GstStructure *stats() const;

protected:
    GstElement *element_;

private:
    bool start_pads();
    GstFlowReturn take_set(FrameSet *set);
    WaitResult wait_for_all(int timeout_ms, gint64 deadline);
    void push_set(FrameSet &set);
    void pause_streaming(GstFlowReturn flow);

    const char *noun_;
    std::vector<std::unique_ptr<PadOutput>> outputs_; // GST_OBJECT_LOCK for the list; [0] runs the task
    Stream *stream_ = nullptr;
    std::vector<unsigned long> handles_; // the camera of each frame of a set
    GstPoll *poll_ = nullptr;
    std::vector<GstPollFD> poll_fds_;
    bool capturing_ = false;
    bool started_pads_ = false;
    std::atomic<bool> eos_pending_{false};
    guint64 pushed_ = 0;
    bool have_sequence_ = false;
    uint32_t last_sequence_ = 0;
    uint64_t last_timestamp_us_ = 0;
    GstClockTime frame_interval_ = 33 * GST_MSECOND;
    SourceCounters counters_; // GST_OBJECT_LOCK
};

} // namespace gstzelisp

// The element's Source, made by the element's instance init.
gstzelisp::Source &gst_zelisp_base_src_source(gpointer element);
void gst_zelisp_base_src_set_source(GstZelispBaseSrc *element, gstzelisp::Source *source);

#endif
