// serve_hub.cpp - the web console's capture thread and its cameras.
#include "serve_hub.h"

#include <sys/time.h>

#include <algorithm>
#include <cstdio>

#include "camera_handle.h"
#include "library_lines.h"
#include "tool_errors.h"

namespace zcam {

using Clock = std::chrono::steady_clock;

namespace {

constexpr size_t kMaxWaitCameras = 8; // the multi-camera wait takes up to 8 handles
constexpr int kWaitMs = 100;          // how long the loop sleeps before looking at its commands again
constexpr size_t kRecentSkews = 240;  // frame sets kept for the page's skew chart

} // namespace

uint32_t ServeOptions::combination() const
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
    // Only the last two seconds count, so a stream that stopped reads 0.
    auto first = std::find_if(times_.begin(), times_.end(),
                              [&](Clock::time_point t) { return now - t < std::chrono::seconds(2); });
    size_t n = size_t(times_.end() - first);
    if (n < 2)
        return 0;
    double span = std::chrono::duration<double>(times_.back() - *first).count();
    return span > 0 ? double(n - 1) / span : 0;
}

PreviewImage &PreviewSlot::back()
{
    // A stream may still be encoding the previous image: draw into a fresh one then.
    if (back_.use_count() != 1)
        back_ = std::make_shared<PreviewImage>();
    back_->width = width_;
    back_->height = height_;
    return *back_;
}

void PreviewSlot::publish()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        std::swap(front_, back_);
        ++generation_;
        rate_.note(Clock::now());
    }
    changed_.notify_all();
    if (!back_)
        back_ = std::make_shared<PreviewImage>();
}

void PreviewSlot::polled()
{
    polled_until_ = (Clock::now() + std::chrono::seconds(2)).time_since_epoch().count();
}

bool PreviewSlot::wanted() const
{
    return viewers.load() > 0 || Clock::now().time_since_epoch().count() < polled_until_.load();
}

void PreviewSlot::wake_all()
{
    std::lock_guard<std::mutex> lock(mutex_);
    changed_.notify_all();
}

std::shared_ptr<const std::string> PreviewSlot::wait_jpeg(uint64_t after, uint64_t *generation, uint32_t *sequence,
                                                          const std::atomic<bool> &stop, int quality,
                                                          std::chrono::milliseconds wait)
{
    std::shared_ptr<PreviewImage> image;
    uint64_t latest = 0;
    {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait_for(lock, wait, [&] { return stop || generation_ > after; });
        if (stop || generation_ <= after || !front_)
            return nullptr;
        image = front_;
        latest = generation_;
    }
    std::lock_guard<std::mutex> lock(encode_mutex_);
    if (encoded_generation_ < latest) {
        auto started = Clock::now();
        auto jpeg = std::make_shared<std::string>();
        if (!encode_jpeg(*image, quality, jpeg.get()).empty())
            return nullptr;
        encode_ms_total_ += std::chrono::duration<double, std::milli>(Clock::now() - started).count();
        ++encoded_;
        jpeg_ = std::move(jpeg);
        jpeg_sequence_ = image->sequence;
        encoded_generation_ = latest;
    }
    *generation = encoded_generation_;
    *sequence = jpeg_sequence_;
    return jpeg_;
}

PreviewSlot::Figures PreviewSlot::figures() const
{
    Figures figures;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        figures.published = generation_;
        figures.fps = rate_.rate(Clock::now());
    }
    std::lock_guard<std::mutex> lock(const_cast<std::mutex &>(encode_mutex_));
    figures.encoded = encoded_;
    figures.encode_ms_total = encode_ms_total_;
    return figures;
}

struct CameraHub::Snapshot {
    int view;
    std::promise<std::pair<std::string, RgbImage>> result;
};

struct CameraHub::Camera {
    int camera;
    CameraHandle own;         // single cameras; members belong to the group
    unsigned long handle = 0; // the handle the library calls take
    std::vector<Tile *> tiles;
    std::vector<std::shared_ptr<Snapshot>> snapshots; // capture thread only
    int refusals_in_a_row = 0;
    // Under stats_mutex_:
    CameraStats stats{0, DecimationRule()};
    RateMeter rate;
    std::string error;
};

CameraHub::CameraHub(const ServeOptions &options) : options_(options) {}

CameraHub::~CameraHub()
{
    stop();
}

bool CameraHub::has_camera(int camera) const
{
    return std::find(cameras_.begin(), cameras_.end(), camera) != cameras_.end();
}

Tile *CameraHub::tile(int camera, int view)
{
    for (auto &tile : tiles_)
        if (tile->camera == camera && tile->view == view)
            return tile.get();
    return nullptr;
}

std::string CameraHub::node(int camera) const
{
    return node_path(camera, 1);
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

int CameraHub::start()
{
    started_ = Clock::now();
    cameras_ = options_.cameras;
    if (cameras_.empty()) {
        uint32_t count = 0;
        int result = isp_get_valid_camera_count(&count);
        if (result != ISP_OK)
            return report_failure("the platform", "isp_get_valid_camera_info", result);
        zelvideo::_camera_info_t info[12] = {};
        uint32_t reported = 0;
        if (count > 0 && (result = isp_get_valid_camera_info(info, std::min(count, 12u), &reported)) != ISP_OK)
            return report_failure("the platform", "isp_get_valid_camera_info", result);
        for (uint32_t i = 0; i < std::min(count, 12u); ++i)
            if (info[i].camera_index >= 0 && info[i].camera_index < 12)
                cameras_.push_back(info[i].camera_index);
        if (options_.group && cameras_.size() > kMaxWaitCameras)
            cameras_.resize(kMaxWaitCameras);
    }
    if (cameras_.empty())
        return report_usage("the platform lists no camera; name them with --cameras");

    for (int camera : cameras_) {
        auto state = std::make_unique<Camera>();
        state->camera = camera;
        state->stats = CameraStats(camera, DecimationRule());
        state_.push_back(std::move(state));
    }
    int status = options_.group ? open_group() : open_single();
    if (status != kExitOk) {
        close_all();
        return status;
    }
    thread_ = std::thread([this] { capture_loop(); });
    return kExitOk;
}

// The trigger record names no camera: one request sets the platform's mode.
static int set_trigger(const ServeOptions &options, unsigned long handle)
{
    if (!options.trigger)
        return kExitOk;
    const TriggerSetting &t = *options.trigger;
    int result = t.external ? isp_set_external_trigger(handle, t.param1, t.param2, t.param3)
                            : isp_set_internal_trigger(handle, t.param1, t.param2, t.param3);
    if (result != ISP_OK)
        return report_failure("the trigger", t.external ? "isp_set_external_trigger" : "isp_set_internal_trigger",
                              result);
    return kExitOk;
}

// Reads the formats of a camera's views and makes its tiles.
static int make_tiles(const ServeOptions &options, int camera, unsigned long handle,
                      std::vector<std::unique_ptr<Tile>> *tiles, std::vector<Tile *> *own)
{
    for (int view : options.views) {
        auto tile = std::make_unique<Tile>();
        tile->camera = camera;
        tile->view = view;
        int result = isp_get_view_format(handle, uint32_t(view), &tile->format);
        if (result != ISP_OK)
            return report_failure(camera_context(camera), "isp_get_view_format (view " + std::to_string(view) + ")", result);
        uint32_t width = 0, height = 0;
        preview_size(tile->format, uint32_t(options.preview_width), &width, &height);
        tile->preview = std::make_unique<PreviewSlot>(width, height);
        preview_size(tile->format, tile->format.width, &width, &height);
        tile->full = std::make_unique<PreviewSlot>(width, height);
        own->push_back(tile.get());
        tiles->push_back(std::move(tile));
    }
    return kExitOk;
}

int CameraHub::open_single()
{
    int status = kExitOk;
    for (auto &camera : state_) {
        status = camera->own.open(camera->camera, 1);
        if (status != kExitOk)
            return status;
        camera->handle = camera->own.get();
        int result = 0;
        if ((result = isp_init_video(camera->handle, options_.combination(), options_.buffers)) != ISP_OK)
            return report_failure(camera_context(camera->camera), "isp_init_video", result);
        status = make_tiles(options_, camera->camera, camera->handle, &tiles_, &camera->tiles);
        if (status != kExitOk)
            return status;
    }
    status = set_trigger(options_, state_.front()->handle);
    if (status != kExitOk)
        return status;
    for (auto &camera : state_) {
        int result = isp_start_capture(camera->handle);
        if (result != ISP_OK)
            return report_failure(camera_context(camera->camera), "isp_start_capture", result);
    }
    return kExitOk;
}

int CameraHub::open_group()
{
    int result = isp_create_video_group(&group_, 0, "zelisp-cam serve", cameras_.data(), int(cameras_.size()));
    if (result != ISP_OK) {
        group_ = 0;
        return report_failure("the group", "isp_create_video_group", result);
    }
    for (auto &camera : state_)
        if ((result = isp_group_get_camera_handle(group_, camera->camera, &camera->handle)) != ISP_OK)
            return report_failure(camera_context(camera->camera), "isp_group_get_camera_handle", result);
    std::vector<int> open_results(cameras_.size(), 0);
    if ((result = isp_group_open_video(group_, 1, open_results.data())) != ISP_OK) {
        for (size_t i = 0; i < cameras_.size(); ++i)
            if (open_results[i] != ISP_OK)
                report_failure(camera_context(cameras_[i]), "isp_group_open_video", open_results[i]);
        return report_failure("the group", "isp_group_open_video", result);
    }
    if ((result = isp_group_init_video(group_, options_.combination(), uint32_t(options_.buffers))) != ISP_OK)
        return report_failure("the group", "isp_group_init_video", result);
    for (auto &camera : state_) {
        int status = make_tiles(options_, camera->camera, camera->handle, &tiles_, &camera->tiles);
        if (status != kExitOk)
            return status;
    }
    // The group's own trigger calls answer 0 whatever the driver says; the
    // record names no camera, so it goes through a member, which reports.
    int status = set_trigger(options_, state_.front()->handle);
    if (status != kExitOk)
        return status;
    if ((result = isp_group_start_captrue(group_)) != ISP_OK)
        return report_failure("the group", "isp_group_start_captrue", result);
    set_frames_.resize(state_.size());
    return kExitOk;
}

void CameraHub::stop()
{
    stopping_ = true;
    for (auto &tile : tiles_) {
        tile->preview->wake_all();
        tile->full->wake_all();
    }
    if (thread_.joinable())
        thread_.join();
    close_all();
}

void CameraHub::close_all()
{
    if (group_ != 0) {
        isp_group_stop_captrue(group_);
        isp_group_close_video(group_);
        isp_destroy_video_group(group_);
        group_ = 0;
    }
    for (auto &camera : state_) {
        if (camera->own.get() != 0)
            isp_stop_capture(camera->own.get());
        camera->own.close();
        camera->handle = 0;
    }
}

Reply CameraHub::run_on_camera(int camera, std::function<Reply(unsigned long)> command,
                               std::chrono::milliseconds limit)
{
    auto done = std::make_shared<std::promise<Reply>>();
    std::future<Reply> reply = done->get_future();
    Camera *target = nullptr;
    for (auto &state : state_)
        if (state->camera == camera)
            target = state.get();
    {
        std::lock_guard<std::mutex> lock(commands_mutex_);
        commands_.push_back([target, command, done] { done->set_value(command(target->handle)); });
    }
    if (reply.wait_for(limit) != std::future_status::ready)
        return {503, R"({"error":"the capture thread did not answer in time"})"};
    return reply.get();
}

Reply CameraHub::snapshot(int camera, int view, std::chrono::milliseconds limit)
{
    auto request = std::make_shared<Snapshot>();
    request->view = view;
    auto result = request->result.get_future();
    Camera *target = nullptr;
    for (auto &state : state_)
        if (state->camera == camera)
            target = state.get();
    {
        std::lock_guard<std::mutex> lock(commands_mutex_);
        commands_.push_back([target, request] { target->snapshots.push_back(request); });
    }
    if (result.wait_for(limit) != std::future_status::ready)
        return {503, "{\"error\":\"no frame from camera " + std::to_string(camera) + " within " +
                         std::to_string(limit.count() / 1000) + " s\"}"};
    auto [error, rgb] = result.get();
    std::string png;
    if (error.empty())
        error = encode_png(rgb, &png);
    if (!error.empty())
        return {500, "{\"error\":\"" + error + "\"}"};
    return {200, std::move(png), "image/png"};
}

void CameraHub::run_commands()
{
    std::deque<std::function<void()>> commands;
    {
        std::lock_guard<std::mutex> lock(commands_mutex_);
        commands.swap(commands_);
    }
    for (auto &command : commands)
        command();
}

void CameraHub::capture_loop()
{
    if (options_.group)
        group_loop();
    else
        stream_loop();
    // Whoever still waits for a snapshot is told there is none.
    run_commands();
    for (auto &camera : state_)
        for (auto &request : camera->snapshots)
            request->result.set_value({"the console is stopping", {}});
}

void CameraHub::handle_frame(Camera &camera, const zelvideo::_isp_buf_t &frame)
{
    const zelvideo::_isp_view_buf_t &first = frame.views[camera.tiles.front()->view];
    {
        std::lock_guard<std::mutex> lock(stats_mutex_);
        camera.stats.accept(first.sequence, first.timestamp);
        camera.rate.note(Clock::now());
    }
    for (Tile *tile : camera.tiles) {
        ViewImage image = view_image(frame, tile->view, tile->format);
        for (PreviewSlot *slot : {tile->preview.get(), tile->full.get()}) {
            if (!slot->wanted())
                continue;
            PreviewImage &preview = slot->back();
            preview.sequence = first.sequence;
            if (make_preview(image, &preview).empty())
                slot->publish();
        }
    }
    for (auto &request : camera.snapshots) {
        RgbImage rgb;
        std::string error = "view " + std::to_string(request->view) + " is not enabled";
        for (Tile *tile : camera.tiles)
            if (tile->view == request->view)
                error = to_rgb(view_image(frame, tile->view, tile->format), &rgb);
        request->result.set_value({error, std::move(rgb)});
    }
    camera.snapshots.clear();
}

void CameraHub::take_frame(Camera &camera, int timeout_ms)
{
    zelvideo::_isp_buf_t frame;
    int result;
    Refusal why = Refusal::TooSoon;
    uint32_t sequence = 0;
    bool refused = false;
    {
        LineWatch watch;
        result = isp_get_frame_buf(camera.handle, &frame, timeout_ms);
        refused = result == ISP_ERR_REQUEST && refusal_line(watch, &why, &sequence) != nullptr;
    }
    if (result == ISP_ERR_NOT_READY || result == ISP_ERR_TIMEOUT)
        return;
    if (result != ISP_OK) {
        std::lock_guard<std::mutex> lock(stats_mutex_);
        if (refused)
            camera.stats.refuse(why, sequence);
        else
            camera.error = std::string("taking a frame: ") + isp_get_result_text(result);
        return;
    }
    handle_frame(camera, frame);
    // The frame goes straight back: the previews are copies.
    result = isp_put_frame_buf(camera.handle, &frame);
    if (result != ISP_OK) {
        std::lock_guard<std::mutex> lock(stats_mutex_);
        camera.error = std::string("giving a frame back: ") + isp_get_result_text(result);
    }
}

void CameraHub::stream_loop()
{
    while (!stopping_) {
        run_commands();
        // Up to 8 cameras per wait; with more, each batch gets its share of the sleep.
        size_t batches = (state_.size() + kMaxWaitCameras - 1) / kMaxWaitCameras;
        for (size_t b = 0; b < batches && !stopping_; ++b) {
            std::vector<Camera *> batch;
            std::vector<unsigned long> handles;
            for (size_t i = b * kMaxWaitCameras; i < std::min(state_.size(), (b + 1) * kMaxWaitCameras); ++i)
                if (state_[i]->error.empty()) {
                    batch.push_back(state_[i].get());
                    handles.push_back(state_[i]->handle);
                }
            if (batch.empty())
                continue;
            int wait_ms = kWaitMs / int(batches);
            struct timeval timeout = {0, wait_ms * 1000};
            std::vector<int> ready(batch.size(), 0);
            int result = isp_camera_wait_for_data(handles.data(), ready.data(), int(handles.size()), &timeout);
            if (result < 0 && result != ISP_ERR_WAIT_INTERRUPTED && result != ISP_ERR_TIMEOUT) {
                std::lock_guard<std::mutex> lock(stats_mutex_);
                for (Camera *camera : batch)
                    camera->error = std::string("waiting for frames: ") + isp_get_result_text(result);
                continue;
            }
            for (size_t i = 0; i < batch.size(); ++i)
                if (ready[i])
                    take_frame(*batch[i], 0);
        }
        // Every camera failed: nothing to wait on, but commands still get answers.
        bool any = std::any_of(state_.begin(), state_.end(), [](auto &c) { return c->error.empty(); });
        if (!any)
            std::this_thread::sleep_for(std::chrono::milliseconds(kWaitMs));
    }
}

void CameraHub::group_loop()
{
    // GetFrame writes a member's record only when it hands a frame over; an
    // index no buffer has marks the members a failed set read did not reach.
    constexpr uint32_t kNoFrame = 0xffffffffu;
    while (!stopping_) {
        run_commands();
        for (auto &frame : set_frames_)
            frame.index = kNoFrame;
        int result;
        Refusal why = Refusal::TooSoon;
        uint32_t sequence = 0;
        bool refused = false;
        {
            LineWatch watch;
            result = zelvideo::isp_group_get_sync_frame(group_, set_frames_.data(), int(set_frames_.size()), kWaitMs);
            refused = result == ISP_ERR_REQUEST && refusal_line(watch, &why, &sequence) != nullptr;
        }
        if (result == ISP_ERR_TIMEOUT)
            result = ISP_ERR_NOT_READY; // no set within the wait: look at the commands, then wait again
        if (result != ISP_OK) {
            // The members before the failing one handed frames over: each goes back by itself.
            size_t failed = 0;
            while (failed < set_frames_.size() && set_frames_[failed].index != kNoFrame) {
                handle_frame(*state_[failed], set_frames_[failed]);
                isp_put_frame_buf(state_[failed]->handle, &set_frames_[failed]);
                ++failed;
            }
            std::lock_guard<std::mutex> lock(stats_mutex_);
            if (failed > 0)
                sets_.incomplete();
            if (refused && failed < set_frames_.size())
                state_[failed]->stats.refuse(why, sequence);
            else if (result != ISP_ERR_NOT_READY && failed < set_frames_.size())
                state_[failed]->error = std::string("reading a frame set: ") + isp_get_result_text(result);
            if (result != ISP_ERR_NOT_READY && result != ISP_ERR_REQUEST)
                std::this_thread::sleep_for(std::chrono::milliseconds(kWaitMs)); // do not spin on a broken group
            continue;
        }
        std::vector<uint64_t> timestamps;
        for (size_t i = 0; i < set_frames_.size(); ++i) {
            const zelvideo::_isp_buf_t &frame = set_frames_[i];
            timestamps.push_back(frame.views[state_[i]->tiles.front()->view].timestamp);
            handle_frame(*state_[i], frame);
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
        if (result != ISP_OK) {
            std::lock_guard<std::mutex> lock(stats_mutex_);
            state_.front()->error = std::string("giving a frame set back: ") + isp_get_result_text(result);
        }
    }
}

std::vector<CameraHub::CameraFigures> CameraHub::camera_figures() const
{
    std::vector<CameraFigures> figures;
    std::lock_guard<std::mutex> lock(stats_mutex_);
    auto now = Clock::now();
    for (auto &camera : state_)
        figures.push_back({camera->camera, camera->stats.frames(), camera->stats.refused(), camera->stats.dropped(),
                           camera->stats.last_sequence(), camera->rate.rate(now), camera->error});
    return figures;
}

CameraHub::GroupFigures CameraHub::group_figures() const
{
    std::lock_guard<std::mutex> lock(stats_mutex_);
    return {sets_.sets(), sets_.incomplete_sets(), sets_.max_skew_us(), sets_.mean_skew_us(),
            std::vector<std::pair<double, uint64_t>>(recent_skews_.begin(), recent_skews_.end())};
}

} // namespace zcam
