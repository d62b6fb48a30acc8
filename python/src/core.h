/*
 * core.h - the lifetimes behind the Python package, in plain C++.
 *
 * A capture buffer handed to Python is shared by three kinds of owner: the
 * Frame object, every numpy array made over one of its planes, and the
 * camera that mapped it. The buffer goes back to the driver only when the
 * frame was released (or dropped) and no array of it is alive, and the camera
 * refuses to unmap (close, configure) while any buffer is out. Every object
 * here is used with the interpreter lock held; only the waits (waiting.h)
 * run without it, and they touch nothing but descriptors.
 */
#ifndef ZELISP_PYTHON_CORE_H
#define ZELISP_PYTHON_CORE_H

#include <zelisp.h>

#include "waiting.h"

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace zelpy {

/* A negative result of a library call, with the name of the call. */
struct CallError {
    int code;
    std::string call;
    std::string detail;     /* set when the refusal is the package's own */
    bool cancelled = false; /* a wait ended from another thread (zelisp.Cancelled) */
};

[[noreturn]] void fail(int code, const char *call, std::string detail = {});
int check(int result, const char *call);

struct ViewFormat {
    uint32_t fourcc = 0;
    uint32_t width = 0;
    uint32_t height = 0;
};

/*
 * A forked child inherits the descriptors of its parent's cameras: a
 * request it made on them would act on the parent's queue (stop its stream,
 * take its frames, hand back a buffer the parent is reading). The child may
 * still close them, which releases only its own copies.
 */
void require_opening_process(pid_t opener, const char *call);

std::string fourcc_text(uint32_t fourcc);
uint32_t fourcc_value(const std::string &text);

class GroupCore;

/* One camera handle, owned (closed by us) or borrowed from a group. */
class CameraCore {
public:
    explicit CameraCore(unsigned long handle);
    ~CameraCore();
    CameraCore(const CameraCore &) = delete;
    CameraCore &operator=(const CameraCore &) = delete;

    static std::shared_ptr<CameraCore> open(uint32_t index, int mode);

    unsigned long handle() const { return handle_; }
    bool is_open() const { return handle_ != 0; }
    /* A group member: the group opens, sets up, starts and closes it. */
    bool borrowed() const { return member_; }
    void set_member() { member_ = true; }
    /* The group was destroyed: the handle is gone. */
    void forget() { handle_ = 0; }
    bool capturing() const { return capturing_; }
    ViewFormat view_formats_cached(int view) const { return formats_[size_t(view)]; }
    int outstanding() const { return outstanding_; }
    pid_t opener() const { return opener_; }
    /* Frames the library refused (sequence or 12 ms rule) while a frame was asked for. */
    uint64_t refused() const { return refused_; }
    WaitCancel &waits() { return waits_; }

    void configure(uint32_t view_mask, int buffers, const zelvideo::_resize_param_t *resize);
    void start();
    /* stop() and close() end every wait on the camera first. */
    void stop();
    void close();
    int fileno() const;
    std::vector<ViewFormat> view_formats() const;
    uint32_t view_mask() const { return view_mask_; }

    /* Takes the next frame, waiting up to timeout_ms (negative: no limit)
     * with the interpreter lock released. Frames the library refuses are
     * counted and skipped. expected: through the frame decimation. */
    zelvideo::_isp_buf_t take_frame(int timeout_ms, bool expected);
    /* Gives back a buffer taken in the current stream; one of an earlier
     * stream went back to the driver when that stream stopped. */
    void give_back(const zelvideo::_isp_buf_t &buf, uint64_t stream);
    uint64_t stream() const { return stream_; }
    /* The buffers (and their descriptors) were unmapped and closed: by a
     * configure, or by the group closing its members. */
    void buffers_replaced() { ++buffer_set_; }
    uint64_t buffer_set() const { return buffer_set_; }
    void frame_out() { ++outstanding_; }
    void frame_in() { --outstanding_; }

    /* Follows what the group did to this member, so that its frames can be
     * described and given back. */
    void adopt_stream(uint32_t view_mask, bool capturing, bool reread_formats);

private:
    void require_open(const char *call) const;
    void require_streaming_process(const char *call) const;
    void require_no_frames_out(const char *what) const;
    void read_formats();

    unsigned long handle_;
    bool member_ = false;
    uint32_t view_mask_ = 0;
    std::array<ViewFormat, 3> formats_{};
    bool capturing_ = false;
    uint64_t stream_ = 1;
    uint64_t stale_stream_ = 0; /* frames of streams up to this one were taken back by a stop */
    int outstanding_ = 0;
    uint64_t buffer_set_ = 0;
    uint64_t refused_ = 0;
    WaitCancel waits_;
    pid_t opener_;
};

/* One buffer in the hands of Python. */
class FrameCore {
public:
    /* owner: what must outlive the camera handle (the group of a member). */
    FrameCore(std::shared_ptr<CameraCore> camera, const zelvideo::_isp_buf_t &buf,
              std::shared_ptr<void> owner = nullptr);
    ~FrameCore();
    FrameCore(const FrameCore &) = delete;
    FrameCore &operator=(const FrameCore &) = delete;

    const zelvideo::_isp_buf_t &record() const { return buf_; }
    const std::shared_ptr<CameraCore> &camera() const { return camera_; }
    ViewFormat format(int view) const { return formats_[size_t(view)]; }
    uint32_t view_mask() const { return view_mask_; }
    bool released() const { return release_requested_; }
    bool returned() const { return returned_; }
    int live_arrays() const { return live_arrays_; }
    /* The planes' descriptors are still the camera's. */
    bool descriptors_open() const { return camera_->is_open() && camera_->buffer_set() == buffer_set_; }

    /* The caller is done; the buffer goes back now or when the last array dies. */
    void release();
    void array_made() { ++live_arrays_; }
    void array_gone();

private:
    void give_back();

    std::shared_ptr<void> owner_; /* destroyed last */
    std::shared_ptr<CameraCore> camera_;
    zelvideo::_isp_buf_t buf_;
    std::array<ViewFormat, 3> formats_{};
    uint32_t view_mask_;
    uint64_t stream_;
    uint64_t buffer_set_;
    bool release_requested_ = false;
    bool returned_ = false;
    int live_arrays_ = 0;
};

/* A group and the borrowed cameras of its members. */
class GroupCore : public std::enable_shared_from_this<GroupCore> {
public:
    static std::shared_ptr<GroupCore> create(const std::vector<int> &cameras, const std::string &name,
                                             uint32_t group_type);
    GroupCore(unsigned long handle, std::vector<int> members);
    ~GroupCore();
    GroupCore(const GroupCore &) = delete;
    GroupCore &operator=(const GroupCore &) = delete;

    const std::vector<int> &members() const { return members_; }
    bool destroyed() const { return handle_ == 0; }

    std::vector<int> open(int mode);
    void configure(uint32_t view_mask, uint32_t buffers);
    void set_view_format(int view, const ViewFormat &format);
    void start();
    void stop();
    void close();
    void destroy();
    void trigger(bool external, uint32_t p1, uint32_t p2, uint32_t p3);
    std::shared_ptr<CameraCore> camera(int index);
    std::vector<std::shared_ptr<FrameCore>> take_frame_set(int timeout_ms);

private:
    void require_alive(const char *call) const;
    void require_streaming_process(const char *call) const;
    void require_no_frames_out(const char *what) const;
    void end_waits(const char *by);

    unsigned long handle_;
    std::vector<int> members_;
    /* By member position, once opened. Frames of a member keep the group
     * alive (FrameCore's owner), so these need not point back at it. */
    std::vector<std::shared_ptr<CameraCore>> cameras_;
    uint32_t view_mask_ = 0;
    bool opened_ = false;
    pid_t opener_;
};

/* The cameras (by position) with a filled buffer, as the library's
 * multi-camera wait reports them; empty when the time ran out. */
std::vector<size_t> wait_any(const std::vector<std::shared_ptr<CameraCore>> &cameras, int timeout_ms);

} // namespace zelpy

#endif
