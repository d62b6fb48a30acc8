// camera_hub.cpp - the web console's capture thread.
#include "camera_hub.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "hub_camera.h"
#include "library_lines.h"

namespace zcam {

using Clock = std::chrono::steady_clock;

namespace {

constexpr int kWaitMs = 100;         // a poll with nothing to take ends after this, to look at the commands
constexpr size_t kRecentSkews = 240; // frame sets kept for the page's skew chart

// The driver's capture time (CLOCK_MONOTONIC) on the system clock.
int64_t unix_time_of(uint64_t timestamp_us)
{
    timespec monotonic{}, real{};
    clock_gettime(CLOCK_MONOTONIC, &monotonic);
    clock_gettime(CLOCK_REALTIME, &real);
    int64_t monotonic_us = int64_t(monotonic.tv_sec) * 1000000 + monotonic.tv_nsec / 1000;
    int64_t real_us = int64_t(real.tv_sec) * 1000000 + real.tv_nsec / 1000;
    return real_us - (monotonic_us - int64_t(timestamp_us));
}

// Why a failed camera gives no more frames, for its viewers and the event log.
std::string stop_text(int camera, const std::string &error)
{
    return "camera " + std::to_string(camera) + " stopped: " + error;
}

} // namespace

uint32_t HubOptions::combination() const
{
    uint32_t bits = 0;
    for (int view : views)
        bits |= 1u << view;
    return bits;
}

void RateMeter::note(Clock::time_point when)
{
    times_.push_back(when);
    if (times_.size() > 64)
        times_.pop_front();
}

double RateMeter::rate(Clock::time_point now) const
{
    // Only the last two seconds count, so a camera that stopped reads 0.
    auto first = std::find_if(times_.begin(), times_.end(),
                              [&](Clock::time_point t) { return now - t < std::chrono::seconds(2); });
    size_t n = size_t(times_.end() - first);
    if (n < 2)
        return 0;
    double span = std::chrono::duration<double>(times_.back() - *first).count();
    return span > 0 ? double(n - 1) / span : 0;
}

CameraHub::CameraHub(HubOptions options, EventLog &events)
    : options_(std::move(options)), events_(events), commands_(options_.queue_capacity)
{
}

CameraHub::~CameraHub()
{
    stop();
}

CameraHub::Camera *CameraHub::find(int camera) const
{
    for (const auto &state : cameras_)
        if (state->number == camera)
            return state.get();
    return nullptr;
}

bool CameraHub::has_camera(int camera) const
{
    return find(camera) != nullptr;
}

std::string CameraHub::trigger_text() const
{
    if (!options_.trigger)
        return "free-running";
    const TriggerSetting &t = *options_.trigger;
    return std::string(t.external ? "external" : "internal") + " " + std::to_string(t.param1) + " " +
           std::to_string(t.param2) + " " + std::to_string(t.param3);
}

double CameraHub::uptime() const
{
    return std::chrono::duration<double>(Clock::now() - started_).count();
}

std::vector<CameraHub::CameraLayout> CameraHub::layout() const
{
    std::vector<CameraLayout> cameras;
    std::lock_guard<std::mutex> lock(layout_mutex_);
    for (const auto &camera : cameras_) {
        CameraLayout entry{camera->number, camera->running, {}};
        for (int view : options_.views)
            entry.views.push_back({view, camera->formats[size_t(view)]});
        cameras.push_back(std::move(entry));
    }
    return cameras;
}

std::optional<zelvideo::_view_format_t> CameraHub::view_format(int camera, int view) const
{
    Camera *state = find(camera);
    if (state == nullptr || view < 0 || view > 2 || !(options_.combination() & (1u << view)))
        return std::nullopt;
    std::lock_guard<std::mutex> lock(layout_mutex_);
    return state->formats[size_t(view)];
}

void CameraHub::attach(int camera, int view, std::shared_ptr<ViewTap> tap)
{
    Camera *state = find(camera);
    if (state == nullptr)
        return;
    std::string error;
    {
        // fail() takes the same locks in the same order: a tap is either
        // in the list it tells, or sees the error here.
        std::lock_guard<std::mutex> lock(taps_mutex_);
        {
            std::lock_guard<std::mutex> stats_lock(stats_mutex_);
            error = state->error;
        }
        if (error.empty()) {
            auto taps = std::make_shared<std::vector<TapEntry>>(*state->taps);
            taps->push_back({view, tap});
            state->taps = std::move(taps);
        }
    }
    if (!error.empty())
        tap->ended(stop_text(camera, error));
}

void CameraHub::detach(int camera, int view, const ViewTap *tap)
{
    Camera *state = find(camera);
    if (state == nullptr)
        return;
    std::lock_guard<std::mutex> lock(taps_mutex_);
    auto taps = std::make_shared<std::vector<TapEntry>>(*state->taps);
    taps->erase(std::remove_if(taps->begin(), taps->end(),
                               [&](const TapEntry &entry) { return entry.view == view && entry.tap.get() == tap; }),
                taps->end());
    state->taps = std::move(taps);
}

bool CameraHub::submit(std::shared_ptr<Command> command)
{
    if (stopping_ || !commands_.push(std::move(command)))
        return false;
    uint64_t one = 1;
    ssize_t written = write(wake_fd_, &one, sizeof one);
    (void)written; // a full counter wakes the thread just as well
    return true;
}

unsigned long CameraHub::handle(int camera) const
{
    Camera *state = find(camera);
    return state ? state->handle : 0;
}

void CameraHub::run_commands()
{
    for (auto &command : commands_.take())
        if (command->claim())
            command->run();
}

void CameraHub::capture_loop()
{
    if (options_.group)
        group_loop();
    else
        stream_loop();
    // Whoever still waits gets an answer: the command runs (there is no
    // frame loop left to wait for), or its requester withdraws it.
    run_commands();
}

// A camera whose driver request failed gives no more frames: the frame
// loop leaves it alone from then on (an unplugged camera's node answers
// every request with ENODEV, and poll() reports it at once, again and
// again). Its first failure is kept, logged, and told to its taps, so that
// no viewer waits for a frame that will not come.
void CameraHub::fail(Camera &camera, const std::string &error)
{
    std::shared_ptr<const std::vector<TapEntry>> taps;
    {
        std::lock_guard<std::mutex> lock(taps_mutex_);
        std::lock_guard<std::mutex> stats_lock(stats_mutex_);
        if (!camera.error.empty())
            return;
        camera.error = error;
        taps = camera.taps;
    }
    const std::string why = stop_text(camera.number, error);
    events_.note("warning", why);
    for (const TapEntry &entry : *taps)
        entry.tap->ended(why);
}

// A group reads its members' frames together: one member that fails ends
// the frame sets of all.
void CameraHub::fail_group(Camera &member, const std::string &error)
{
    fail(member, error);
    for (auto &camera : cameras_)
        fail(*camera, "the group stopped with camera " + std::to_string(member.number));
}

bool CameraHub::group_failed() const
{
    std::lock_guard<std::mutex> lock(stats_mutex_);
    return std::any_of(cameras_.begin(), cameras_.end(), [](const auto &camera) { return !camera->error.empty(); });
}

void CameraHub::handle_frame(Camera &camera, const zelvideo::_isp_buf_t &frame)
{
    const zelvideo::_isp_view_buf_t &first = frame.views[options_.views.front()];
    FrameMark mark{first.sequence, first.timestamp, Clock::now()};
    {
        std::lock_guard<std::mutex> lock(stats_mutex_);
        camera.stats.accept(first.sequence, first.timestamp);
        camera.rate.note(mark.taken_at);
        camera.last_capture_unix_us = unix_time_of(first.timestamp);
        camera.has_frame = true;
    }
    std::shared_ptr<const std::vector<TapEntry>> taps;
    {
        std::lock_guard<std::mutex> lock(taps_mutex_);
        taps = camera.taps;
    }
    for (const TapEntry &entry : *taps)
        entry.tap->take(view_image(frame, entry.view, camera.formats[size_t(entry.view)]), mark);
}

// A frame the library refuses (one taken less than 12 ms after the last,
// some 60 a second from a 120 fps sensor) is counted; its line is logged for
// the camera's first refusal only, as zelisp-cam capture does. False when
// the watched lines tell no refusal.
bool CameraHub::count_refusal(Camera &camera, const LineWatch &watch)
{
    Refusal why = Refusal::TooSoon;
    uint32_t sequence = 0;
    const LibraryLine *refusal = refusal_line(watch, &why, &sequence);
    if (refusal == nullptr)
        return false;
    bool first = false;
    {
        std::lock_guard<std::mutex> lock(stats_mutex_);
        const bool none_before = camera.stats.refused() == 0;
        first = camera.stats.refuse(why, sequence) && none_before;
    }
    if (first) {
        events_.library_line(*refusal);
        events_.note("warning",
                     "camera " + std::to_string(camera.number) +
                         ": the library refused a frame; further refusals are counted in the statistics, not shown",
                     refusal->dev_path);
    }
    return true;
}

void CameraHub::log_lines(const LineWatch &watch)
{
    for (const LibraryLine &line : watch.lines())
        events_.library_line(line);
}

void CameraHub::take_frame(Camera &camera)
{
    zelvideo::_isp_buf_t frame;
    int result;
    {
        LineWatch watch(LineWatch::Echo::Keep);
        result = isp_get_frame_buf(camera.handle, &frame, 0);
        if (result == ISP_ERR_REQUEST && count_refusal(camera, watch))
            return;
        log_lines(watch);
    }
    if (result == ISP_ERR_NOT_READY || result == ISP_ERR_TIMEOUT)
        return;
    if (result != ISP_OK) {
        fail(camera, std::string("taking a frame: ") + isp_get_result_text(result));
        return;
    }
    handle_frame(camera, frame);
    // The frame goes straight back: the taps made their copies.
    result = isp_put_frame_buf(camera.handle, &frame);
    if (result != ISP_OK)
        fail(camera, std::string("giving a frame back: ") + isp_get_result_text(result));
}

// Sleeps until a camera has a frame, a command comes, or kWaitMs pass.
bool CameraHub::wait_for_frames(std::vector<Camera *> &cameras, std::vector<bool> *ready)
{
    std::vector<pollfd> fds{{wake_fd_, POLLIN, 0}};
    for (Camera *camera : cameras)
        fds.push_back({camera->fd, POLLIN, 0});
    int count = poll(fds.data(), fds.size(), kWaitMs);
    ready->assign(cameras.size(), false);
    if (count <= 0)
        return false;
    if (fds[0].revents & POLLIN) {
        uint64_t wakes = 0;
        ssize_t got = read(wake_fd_, &wakes, sizeof wakes);
        (void)got;
    }
    bool any = false;
    for (size_t i = 0; i < cameras.size(); ++i)
        if (fds[i + 1].revents & (POLLIN | POLLERR)) {
            (*ready)[i] = true;
            any = true;
        }
    return any;
}

void CameraHub::stream_loop()
{
    std::vector<Camera *> running;
    std::vector<bool> ready;
    while (!stopping_) {
        run_commands();
        running.clear();
        {
            // `running` changes on this thread only; `error` is read under its lock.
            std::lock_guard<std::mutex> lock(stats_mutex_);
            for (auto &camera : cameras_)
                if (camera->running && camera->error.empty())
                    running.push_back(camera.get());
        }
        if (!wait_for_frames(running, &ready))
            continue;
        for (size_t i = 0; i < running.size(); ++i)
            if (ready[i])
                take_frame(*running[i]);
    }
}

void CameraHub::group_loop()
{
    // GetFrame writes a member's record only when it hands a frame over; an
    // index no buffer has marks the members a failed set read did not reach.
    constexpr uint32_t kNoFrame = 0xffffffffu;
    std::vector<Camera *> members, none;
    for (auto &camera : cameras_)
        members.push_back(camera.get());
    std::vector<bool> ready;
    while (!stopping_) {
        run_commands();
        // A set is read once a member has a frame; the read waits for the
        // rest. Once a member failed, only commands are waited for.
        if (!wait_for_frames(group_failed() ? none : members, &ready))
            continue;
        for (auto &frame : set_frames_)
            frame.index = kNoFrame;
        bool refused = false;
        int result;
        {
            LineWatch watch(LineWatch::Echo::Keep);
            result = zelvideo::isp_group_get_sync_frame(group_, set_frames_.data(), int(set_frames_.size()), kWaitMs);
            // The member the read stopped at: the first without a frame.
            size_t stopped_at = 0;
            while (stopped_at < set_frames_.size() && set_frames_[stopped_at].index != kNoFrame)
                ++stopped_at;
            refused = result == ISP_ERR_REQUEST && stopped_at < set_frames_.size() &&
                      count_refusal(*cameras_[stopped_at], watch);
            if (!refused)
                log_lines(watch);
        }
        if (result == ISP_ERR_TIMEOUT)
            result = ISP_ERR_NOT_READY;
        if (result != ISP_OK) {
            // The members before the failing one handed frames over: each goes back by itself.
            size_t failed = 0;
            while (failed < set_frames_.size() && set_frames_[failed].index != kNoFrame) {
                handle_frame(*cameras_[failed], set_frames_[failed]);
                isp_put_frame_buf(cameras_[failed]->handle, &set_frames_[failed]);
                ++failed;
            }
            if (failed > 0) {
                std::lock_guard<std::mutex> lock(stats_mutex_);
                sets_.incomplete();
            }
            if (!refused && result != ISP_ERR_NOT_READY && failed < set_frames_.size())
                fail_group(*cameras_[failed], std::string("reading a frame set: ") + isp_get_result_text(result));
            continue;
        }
        std::vector<uint64_t> timestamps;
        for (size_t i = 0; i < set_frames_.size(); ++i) {
            timestamps.push_back(set_frames_[i].views[options_.views.front()].timestamp);
            handle_frame(*cameras_[i], set_frames_[i]);
        }
        {
            std::lock_guard<std::mutex> lock(stats_mutex_);
            sets_.add(timestamps);
            auto [low, high] = std::minmax_element(timestamps.begin(), timestamps.end());
            recent_skews_.emplace_back(uptime(), *high - *low);
            if (recent_skews_.size() > kRecentSkews)
                recent_skews_.pop_front();
        }
        result = zelvideo::isp_group_put_frame(group_, set_frames_.data(), int(set_frames_.size()));
        if (result != ISP_OK)
            fail_group(*cameras_.front(), std::string("giving a frame set back: ") + isp_get_result_text(result));
    }
}

std::vector<CameraHub::CameraFigures> CameraHub::camera_figures() const
{
    std::vector<CameraFigures> figures;
    std::lock_guard<std::mutex> lock(stats_mutex_);
    auto now = Clock::now();
    for (const auto &camera : cameras_) {
        const CameraStats &stats = camera->stats;
        figures.push_back({camera->number, camera->running, camera->totals.frames + stats.frames(),
                           camera->totals.refused + stats.refused(), camera->totals.dropped + stats.dropped(),
                           stats.last_sequence(), camera->last_capture_unix_us, camera->rate.rate(now),
                           camera->error});
    }
    return figures;
}

std::string CameraHub::stop_reason(int camera) const
{
    Camera *state = find(camera);
    std::lock_guard<std::mutex> lock(stats_mutex_);
    return state == nullptr || state->error.empty() ? "" : stop_text(camera, state->error);
}

bool CameraHub::last_sequence(int camera, uint32_t *sequence) const
{
    Camera *state = find(camera);
    std::lock_guard<std::mutex> lock(stats_mutex_);
    if (state == nullptr || !state->has_frame)
        return false;
    *sequence = state->stats.last_sequence();
    return true;
}

CameraHub::GroupFigures CameraHub::group_figures() const
{
    std::lock_guard<std::mutex> lock(stats_mutex_);
    return {sets_.sets(), sets_.incomplete_sets(), sets_.max_skew_us(), sets_.mean_skew_us(),
            std::vector<std::pair<double, uint64_t>>(recent_skews_.begin(), recent_skews_.end())};
}

} // namespace zcam
