/*
 * core.cpp - cameras, frames and groups as the Python package holds them.
 *
 * Waiting is done here rather than inside the library: the package polls the
 * node's descriptor with the interpreter lock released (waiting.cpp) and
 * takes the frame with a zero time limit once the descriptor is readable.
 * The library is then only ever entered with the interpreter lock held, so
 * two Python threads never run library code on one camera at once, a thread
 * that sets a control is not stuck behind another one waiting for a frame,
 * and another thread can end the wait.
 */
#include "core.h"

#include "library_lines.h"

#include <optional>
#include <utility>

#include <unistd.h>

namespace zelpy {

void fail(int code, const char *call, std::string detail)
{
    log_library_lines();
    throw CallError{code, call, std::move(detail)};
}

int check(int result, const char *call)
{
    log_library_lines();
    if (result < 0)
        fail(result, call);
    return result;
}

void require_opening_process(pid_t opener, const char *call)
{
    if (getpid() != opener)
        fail(ISP_ERR_STATE, call,
             "opened by process " + std::to_string(opener) + "; a forked child opens cameras of its own");
}

std::string fourcc_text(uint32_t fourcc)
{
    std::string text(4, ' ');
    for (int i = 0; i < 4; ++i)
        text[size_t(i)] = char((fourcc >> (8 * i)) & 0xFF);
    return text;
}

uint32_t fourcc_value(const std::string &text)
{
    if (text.size() != 4)
        fail(ISP_ERR_INVALID, "fourcc", "a format is four characters, such as 'NV12'; got '" + text + "'");
    uint32_t value = 0;
    for (int i = 3; i >= 0; --i)
        value = value << 8 | uint8_t(text[size_t(i)]);
    return value;
}

namespace {

constexpr uint32_t kNoBuffer = 0xFFFFFFFFu;

} // namespace

/* ---- CameraCore ---- */

CameraCore::CameraCore(unsigned long handle) : handle_(handle), opener_(getpid()) {}

CameraCore::~CameraCore()
{
    if (handle_ != 0 && !member_) {
        isp_close_video(handle_);
        log_library_lines();
    }
}

std::shared_ptr<CameraCore> CameraCore::open(uint32_t index, int mode)
{
    unsigned long handle = isp_open_video(index, mode);
    log_library_lines();
    if (handle == 0)
        fail(ISP_ERR_OPEN, "isp_open_video",
             "camera " + std::to_string(index) + " mode " + std::to_string(mode) + " could not be opened");
    return std::make_shared<CameraCore>(handle);
}

void CameraCore::require_open(const char *call) const
{
    if (handle_ == 0)
        fail(ISP_ERR_STATE, call, "the camera is closed");
}

void CameraCore::require_streaming_process(const char *call) const
{
    require_open(call);
    require_opening_process(opener_, call);
}

void CameraCore::require_no_frames_out(const char *what) const
{
    if (outstanding_ > 0)
        fail(ISP_ERR_STATE, what,
             std::to_string(outstanding_) + " frame(s) still out: release them and drop their arrays first");
}

void CameraCore::read_formats()
{
    for (uint32_t view = 0; view < 3; ++view) {
        zelvideo::_view_format_t format{};
        if ((view_mask_ & (1u << view)) && isp_get_view_format(handle_, view, &format) == ISP_OK)
            formats_[view] = ViewFormat{format.format, format.width, format.height};
        else
            formats_[view] = ViewFormat{};
    }
    log_library_lines();
}

void CameraCore::configure(uint32_t view_mask, int buffers, const zelvideo::_resize_param_t *resize)
{
    require_streaming_process("isp_init_video");
    if (borrowed())
        fail(ISP_ERR_STATE, "isp_init_video", "a group member is configured through its group");
    require_no_frames_out("isp_init_video");
    if (resize)
        check(isp_resize_resolution(handle_, resize), "isp_resize_resolution");
    check(isp_init_video(handle_, view_mask, buffers), "isp_init_video");
    buffers_replaced();
    view_mask_ = view_mask;
    read_formats();
}

void CameraCore::start()
{
    require_streaming_process("isp_start_capture");
    if (borrowed())
        fail(ISP_ERR_STATE, "isp_start_capture", "a group member is started through its group");
    require_no_frames_out("isp_start_capture");
    check(isp_start_capture(handle_), "isp_start_capture");
    capturing_ = true;
}

void CameraCore::stop()
{
    require_streaming_process("isp_stop_capture");
    if (borrowed())
        fail(ISP_ERR_STATE, "isp_stop_capture", "a group member is stopped through its group");
    waits_.cancel("stop()");
    check(isp_stop_capture(handle_), "isp_stop_capture");
    capturing_ = false;
    stale_stream_ = stream_++;
}

void CameraCore::close()
{
    if (handle_ == 0)
        return;
    if (borrowed())
        fail(ISP_ERR_STATE, "isp_close_video", "a group member is closed through its group");
    require_no_frames_out("isp_close_video");
    waits_.cancel("close()");
    check(isp_close_video(handle_), "isp_close_video");
    handle_ = 0;
    capturing_ = false;
}

int CameraCore::fileno() const
{
    require_open("isp_camera_get_native_fd");
    int64_t fd = -1;
    check(isp_camera_get_native_fd(handle_, &fd), "isp_camera_get_native_fd");
    return int(fd);
}

std::vector<ViewFormat> CameraCore::view_formats() const
{
    require_open("isp_get_view_format");
    std::vector<ViewFormat> formats;
    for (uint32_t view = 0; view < 3; ++view) {
        if (!(view_mask_ & (1u << view)))
            continue;
        zelvideo::_view_format_t format{};
        check(isp_get_view_format(handle_, view, &format), "isp_get_view_format");
        formats.push_back(ViewFormat{format.format, format.width, format.height});
    }
    return formats;
}

void CameraCore::adopt_stream(uint32_t view_mask, bool capturing, bool reread_formats)
{
    view_mask_ = view_mask;
    if (reread_formats)
        read_formats();
    if (capturing_ && !capturing)
        stale_stream_ = stream_++;
    capturing_ = capturing;
}

zelvideo::_isp_buf_t CameraCore::take_frame(int timeout_ms, bool expected)
{
    const char *call = expected ? "isp_get_expected_frame" : "isp_get_frame_buf";
    require_streaming_process(call);
    const uint64_t since = waits_.epoch();
    std::optional<Deadline> deadline; /* from the first miss: a waiting frame costs no clock read */
    for (;;) {
        // A stream that keeps up has a frame waiting: take it without a poll.
        // Not capturing: the library says so in its own words (-4).
        zelvideo::_isp_buf_t buf{};
        const CallLines lines;
        const int result = expected ? isp_get_expected_frame(handle_, &buf, 0) : isp_get_frame_buf(handle_, &buf, 0);
        log_library_lines();
        if (result == ISP_OK)
            return buf;
        // Logging the lines let other threads run: one may have stopped or
        // closed the camera meanwhile.
        waits_.check(since, call);
        // A frame that does not follow the last one (number or 12 ms rule)
        // went back to the driver: ask again, as after a frame the
        // decimation dropped, which leaves the descriptor idle until the next.
        if (result == ISP_ERR_REQUEST && lines.frame_refused()) {
            ++refused_;
            continue;
        }
        if (result != ISP_ERR_NOT_READY || timeout_ms == 0)
            check(result, call);
        if (!deadline)
            deadline.emplace(timeout_ms);
        if (!wait_for_nodes({WaitTarget{fileno(), &waits_, since}}, WaitFor::Any, *deadline, call))
            fail(ISP_ERR_TIMEOUT, call);
    }
}

void CameraCore::give_back(const zelvideo::_isp_buf_t &buf, uint64_t stream)
{
    // A forked child's copy of a frame: the buffer is the parent's.
    if (handle_ == 0 || stream <= stale_stream_ || !capturing_ || getpid() != opener_)
        return;
    check(isp_put_frame_buf(handle_, &buf), "isp_put_frame_buf");
}

/* ---- FrameCore ---- */

FrameCore::FrameCore(std::shared_ptr<CameraCore> camera, const zelvideo::_isp_buf_t &buf,
                     std::shared_ptr<void> owner)
    : owner_(std::move(owner)), camera_(std::move(camera)), buf_(buf), view_mask_(camera_->view_mask()),
      stream_(camera_->stream()), buffer_set_(camera_->buffer_set())
{
    for (int view = 0; view < 3; ++view)
        formats_[size_t(view)] = camera_->view_formats_cached(view);
    camera_->frame_out();
}

FrameCore::~FrameCore()
{
    if (!returned_) {
        try {
            give_back();
        } catch (const CallError &) {
            // The library printed its line; nothing else can be done from a destructor.
        }
    }
}

void FrameCore::give_back()
{
    returned_ = true;
    camera_->frame_in();
    camera_->give_back(buf_, stream_);
}

void FrameCore::release()
{
    if (release_requested_)
        return;
    release_requested_ = true;
    if (live_arrays_ == 0)
        give_back();
}

void FrameCore::array_gone()
{
    if (--live_arrays_ == 0 && release_requested_ && !returned_) {
        try {
            give_back();
        } catch (const CallError &) {
            // Called while numpy frees the array: the library printed its line.
        }
    }
}

/* ---- GroupCore ---- */

GroupCore::GroupCore(unsigned long handle, std::vector<int> members)
    : handle_(handle), members_(std::move(members)), opener_(getpid())
{
}

std::shared_ptr<GroupCore> GroupCore::create(const std::vector<int> &cameras, const std::string &name,
                                             uint32_t group_type)
{
    unsigned long handle = 0;
    check(isp_create_video_group(&handle, group_type, name.c_str(), cameras.data(), int(cameras.size())),
          "isp_create_video_group");
    return std::make_shared<GroupCore>(handle, cameras);
}

GroupCore::~GroupCore()
{
    if (handle_ != 0) {
        isp_destroy_video_group(handle_);
        log_library_lines();
    }
}

void GroupCore::require_alive(const char *call) const
{
    if (handle_ == 0)
        fail(ISP_ERR_STATE, call, "the group was destroyed");
}

void GroupCore::require_streaming_process(const char *call) const
{
    require_alive(call);
    require_opening_process(opener_, call);
}

void GroupCore::require_no_frames_out(const char *what) const
{
    for (const auto &camera : cameras_) {
        if (camera->outstanding() > 0)
            fail(ISP_ERR_STATE, what,
                 std::to_string(camera->outstanding()) +
                     " frame(s) of a member still out: release them and drop their arrays first");
    }
}

std::vector<int> GroupCore::open(int mode)
{
    require_streaming_process("isp_group_open_video");
    std::vector<int> results(members_.size(), 0);
    int result = isp_group_open_video(handle_, mode, results.data());
    log_library_lines();
    if (result < 0) {
        std::string failed;
        for (size_t i = 0; i < members_.size(); ++i)
            if (results[i] != 0)
                failed += (failed.empty() ? "camera " : ", camera ") + std::to_string(members_[i]);
        fail(result, "isp_group_open_video", failed.empty() ? std::string() : failed + " failed to open");
    }
    opened_ = true;
    cameras_.assign(members_.size(), nullptr);
    for (size_t i = 0; i < members_.size(); ++i) {
        unsigned long camera = 0;
        check(isp_group_get_camera_handle(handle_, members_[i], &camera), "isp_group_get_camera_handle");
        cameras_[i] = std::make_shared<CameraCore>(camera);
        cameras_[i]->set_member();
    }
    return results;
}

void GroupCore::configure(uint32_t view_mask, uint32_t buffers)
{
    require_streaming_process("isp_group_init_video");
    require_no_frames_out("isp_group_init_video");
    check(isp_group_init_video(handle_, view_mask, buffers), "isp_group_init_video");
    view_mask_ = view_mask;
    for (const auto &camera : cameras_) {
        camera->buffers_replaced();
        camera->adopt_stream(view_mask_, false, true);
    }
}

void GroupCore::set_view_format(int view, const ViewFormat &format)
{
    require_streaming_process("isp_group_set_view_format");
    check(zelvideo::isp_group_set_view_format(handle_, view, {format.fourcc, format.width, format.height}),
          "isp_group_set_view_format");
}

void GroupCore::start()
{
    require_streaming_process("isp_group_start_captrue");
    require_no_frames_out("isp_group_start_captrue");
    check(isp_group_start_captrue(handle_), "isp_group_start_captrue");
    for (const auto &camera : cameras_)
        camera->adopt_stream(view_mask_, true, true);
}

void GroupCore::end_waits(const char *by)
{
    for (const auto &camera : cameras_)
        camera->waits().cancel(by);
}

void GroupCore::stop()
{
    require_streaming_process("isp_group_stop_captrue");
    end_waits("Group.stop()");
    check(isp_group_stop_captrue(handle_), "isp_group_stop_captrue");
    for (const auto &camera : cameras_)
        camera->adopt_stream(view_mask_, false, false);
}

void GroupCore::close()
{
    require_alive("isp_group_close_video");
    require_no_frames_out("isp_group_close_video");
    end_waits("Group.close()");
    check(isp_group_close_video(handle_), "isp_group_close_video");
    for (const auto &camera : cameras_) {
        camera->buffers_replaced();
        camera->adopt_stream(view_mask_, false, false);
    }
    opened_ = false;
}

void GroupCore::destroy()
{
    if (handle_ == 0)
        return;
    require_no_frames_out("isp_destroy_video_group");
    end_waits("Group.destroy()");
    check(isp_destroy_video_group(handle_), "isp_destroy_video_group");
    handle_ = 0;
    for (const auto &camera : cameras_)
        camera->forget();
    cameras_.clear();
}

void GroupCore::trigger(bool external, uint32_t p1, uint32_t p2, uint32_t p3)
{
    const char *call = external ? "isp_group_set_external_trigger" : "isp_group_set_internal_trigger";
    require_alive(call);
    check(external ? isp_group_set_external_trigger(handle_, p1, p2, p3)
                   : isp_group_set_internal_trigger(handle_, p1, p2, p3),
          call);
}

std::shared_ptr<CameraCore> GroupCore::camera(int index)
{
    require_alive("isp_group_get_camera_handle");
    for (size_t i = 0; i < members_.size(); ++i) {
        if (members_[i] == index && i < cameras_.size())
            return cameras_[i];
    }
    // Not opened yet, or not a member: the library says which.
    unsigned long handle = 0;
    check(isp_group_get_camera_handle(handle_, index, &handle), "isp_group_get_camera_handle");
    fail(ISP_ERR_STATE, "isp_group_get_camera_handle", "the group has not opened its cameras yet");
}

std::vector<std::shared_ptr<FrameCore>> GroupCore::take_frame_set(int timeout_ms)
{
    const char *call = "isp_group_get_sync_frame";
    require_streaming_process(call);
    const size_t count = members_.size();
    // The members outlive the call even when destroy() drops them meanwhile.
    const std::vector<std::shared_ptr<CameraCore>> members = cameras_;
    std::vector<uint64_t> since;
    for (const auto &camera : members)
        since.push_back(camera->waits().epoch());
    // Wait until every member holds a filled buffer, so that the library's
    // member-by-member read, given no time of its own, takes all of them.
    if (timeout_ms != 0 && !members.empty() && members[0]->capturing()) {
        std::vector<WaitTarget> targets;
        for (size_t i = 0; i < members.size(); ++i)
            targets.push_back(WaitTarget{members[i]->fileno(), &members[i]->waits(), since[i]});
        if (!wait_for_nodes(targets, WaitFor::All, Deadline(timeout_ms), call))
            fail(ISP_ERR_TIMEOUT, call);
    }
    std::vector<zelvideo::_isp_buf_t> frames(count > 0 ? count : 1);
    for (auto &frame : frames)
        frame.index = kNoBuffer;
    int result = zelvideo::isp_group_get_sync_frame(handle_, frames.data(), int(count), 0);
    log_library_lines();
    // Logging the lines let other threads run: one may have stopped, closed
    // or destroyed the group meanwhile, which took the buffers back.
    for (size_t i = 0; i < members.size(); ++i)
        members[i]->waits().check(since[i], call);
    std::vector<std::shared_ptr<FrameCore>> set;
    for (size_t i = 0; i < count && i < members.size(); ++i) {
        if (frames[i].index != kNoBuffer)
            set.push_back(std::make_shared<FrameCore>(members[i], frames[i], shared_from_this()));
    }
    if (result < 0) {
        // The members read before the failure hand their frames back at once.
        for (auto &frame : set)
            frame->release();
        fail(result == ISP_ERR_NOT_READY && timeout_ms != 0 ? ISP_ERR_TIMEOUT : result, call);
    }
    return set;
}

/* ---- wait ---- */

std::vector<size_t> wait_any(const std::vector<std::shared_ptr<CameraCore>> &cameras, int timeout_ms)
{
    const char *call = "isp_camera_wait_for_data";
    std::vector<unsigned long> handles;
    std::vector<WaitTarget> targets;
    for (const auto &camera : cameras) {
        require_opening_process(camera->opener(), call);
        handles.push_back(camera->handle());
        targets.push_back(WaitTarget{camera->fileno(), &camera->waits(), camera->waits().epoch()});
    }
    std::vector<int> ready(cameras.size() + 1, 0);
    std::optional<Deadline> deadline;
    for (;;) {
        // The library reports which cameras are ready; it is asked with no
        // time of its own, so that the wait below can be ended.
        timeval now{0, 0};
        const int result = isp_camera_wait_for_data(handles.data(), ready.data(), int(handles.size()), &now);
        log_library_lines();
        if (result > 0) {
            std::vector<size_t> which;
            for (size_t i = 0; i < cameras.size(); ++i)
                if (ready[i])
                    which.push_back(i);
            return which;
        }
        if (result != ISP_ERR_TIMEOUT)
            check(result, call);
        if (timeout_ms == 0)
            return {};
        if (!deadline)
            deadline.emplace(timeout_ms);
        if (!wait_for_nodes(targets, WaitFor::Any, *deadline, call))
            return {};
    }
}

} // namespace zelpy
