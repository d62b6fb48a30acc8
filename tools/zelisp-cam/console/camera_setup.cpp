// camera_setup.cpp - opening, starting, restarting and closing the
// console's cameras, alone or as a group.
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <future>

#include "camera_table.h"
#include "hub_camera.h"
#include "tool_errors.h"

namespace zcam {

namespace {

constexpr size_t kMaxGroup = 8;      // a group takes at most 8 members
constexpr int kCaptureNiceness = -10; // the capture thread's, where the system allows it

// The trigger record names no camera: one request sets the platform's mode.
int set_trigger(const HubOptions &options, unsigned long handle)
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

std::string failure(const std::string &call, int result)
{
    return call + ": " + isp_get_result_text(result) + " (" + std::to_string(result) + ")";
}

} // namespace

int CameraHub::list_cameras()
{
    numbers_ = options_.cameras;
    if (numbers_.empty()) {
        const CameraTable table = read_camera_table();
        if (!table.was_read())
            return report_failure("the platform", table.failed_call, table.result);
        for (int number : table.cameras)
            if (number >= 0 && number < 12)
                numbers_.push_back(number);
        if (options_.group && numbers_.size() > kMaxGroup)
            numbers_.resize(kMaxGroup);
    }
    if (numbers_.empty())
        return report_usage("the platform lists no camera; name them with --cameras");
    for (int number : numbers_) {
        auto camera = std::make_unique<Camera>();
        camera->number = number;
        camera->stats = CameraStats(number, DecimationRule());
        cameras_.push_back(std::move(camera));
    }
    return kExitOk;
}

int CameraHub::start()
{
    started_ = std::chrono::steady_clock::now();
    wake_fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wake_fd_ < 0) {
        fprintf(stderr, "zelisp-cam: the capture thread cannot be woken: eventfd: %s\n", strerror(errno));
        return kExitSystem;
    }
    // The capture thread opens and starts the cameras itself, so that it
    // alone ever uses them, and so that what the driver starts for them
    // runs at its priority.
    auto opened = std::make_shared<std::promise<int>>();
    std::future<int> status = opened->get_future();
    thread_ = std::thread([this, opened] { run(*opened); });
    int result = status.get();
    if (result != kExitOk) {
        thread_.join();
        ::close(wake_fd_);
        wake_fd_ = -1;
    }
    return result;
}

void CameraHub::run(std::promise<int> &opened)
{
    // Ahead of everything else in the console, where the system lets it
    // (root, or CAP_SYS_NICE): on a busy board the pictures slow down
    // before a frame is lost.
    errno = 0;
    priority_raised_ = setpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)), kCaptureNiceness) == 0;
    int status = list_cameras();
    if (status == kExitOk)
        status = options_.group ? open_group() : open_single();
    if (status != kExitOk) {
        close_all();
        opened.set_value(status);
        return;
    }
    opened.set_value(kExitOk);
    capture_loop();
    close_all();
}

// The views' formats as the driver holds them, and the node's descriptor.
int CameraHub::read_views(Camera &camera)
{
    std::lock_guard<std::mutex> lock(layout_mutex_);
    for (int view : options_.views) {
        int result = isp_get_view_format(camera.handle, uint32_t(view), &camera.formats[size_t(view)]);
        if (result != ISP_OK)
            return report_failure(camera_context(camera.number), "isp_get_view_format (view " + std::to_string(view) + ")",
                                  result);
    }
    int64_t fd = -1;
    int result = isp_camera_get_native_fd(camera.handle, &fd);
    if (result != ISP_OK)
        return report_failure(camera_context(camera.number), "isp_camera_get_native_fd", result);
    camera.fd = int(fd);
    return kExitOk;
}

int CameraHub::open_camera(Camera &camera)
{
    int status = camera.own.open(camera.number, 1);
    if (status != kExitOk)
        return status;
    camera.handle = camera.own.get();
    int result = isp_init_video(camera.handle, options_.combination(), options_.buffers);
    if (result != ISP_OK)
        return report_failure(camera_context(camera.number), "isp_init_video", result);
    return read_views(camera);
}

int CameraHub::open_single()
{
    for (auto &camera : cameras_) {
        int status = open_camera(*camera);
        if (status != kExitOk)
            return status;
    }
    int status = set_trigger(options_, cameras_.front()->handle);
    if (status != kExitOk)
        return status;
    for (auto &camera : cameras_) {
        int result = isp_start_capture(camera->handle);
        if (result != ISP_OK)
            return report_failure(camera_context(camera->number), "isp_start_capture", result);
        camera->running = true;
    }
    return kExitOk;
}

int CameraHub::open_group()
{
    int result = isp_create_video_group(&group_, 0, "zelisp-cam serve", numbers_.data(), int(numbers_.size()));
    if (result != ISP_OK) {
        group_ = 0;
        return report_failure("the group", "isp_create_video_group", result);
    }
    for (auto &camera : cameras_)
        if ((result = isp_group_get_camera_handle(group_, camera->number, &camera->handle)) != ISP_OK)
            return report_failure(camera_context(camera->number), "isp_group_get_camera_handle", result);
    std::vector<int> open_results(numbers_.size(), 0);
    if ((result = isp_group_open_video(group_, 1, open_results.data())) != ISP_OK) {
        for (size_t i = 0; i < numbers_.size(); ++i)
            if (open_results[i] != ISP_OK)
                report_failure(camera_context(numbers_[i]), "isp_group_open_video", open_results[i]);
        return report_failure("the group", "isp_group_open_video", result);
    }
    if ((result = isp_group_init_video(group_, options_.combination(), uint32_t(options_.buffers))) != ISP_OK)
        return report_failure("the group", "isp_group_init_video", result);
    for (auto &camera : cameras_) {
        int status = read_views(*camera);
        if (status != kExitOk)
            return status;
    }
    // The group's own trigger calls answer 0 whatever the driver says; the
    // record names no camera, so it goes through a member, which reports.
    int status = set_trigger(options_, cameras_.front()->handle);
    if (status != kExitOk)
        return status;
    if ((result = isp_group_start_captrue(group_)) != ISP_OK)
        return report_failure("the group", "isp_group_start_captrue", result);
    for (auto &camera : cameras_)
        camera->running = true;
    set_frames_.resize(cameras_.size());
    return kExitOk;
}

void CameraHub::stop()
{
    stopping_ = true;
    if (wake_fd_ >= 0) {
        uint64_t one = 1;
        ssize_t written = write(wake_fd_, &one, sizeof one);
        (void)written;
    }
    if (thread_.joinable())
        thread_.join(); // the thread closes the cameras on its way out
    if (wake_fd_ >= 0) {
        ::close(wake_fd_);
        wake_fd_ = -1;
    }
}

void CameraHub::close_all()
{
    if (group_ != 0) {
        isp_group_stop_captrue(group_);
        isp_group_close_video(group_);
        isp_destroy_video_group(group_);
        group_ = 0;
    }
    for (auto &camera : cameras_) {
        if (camera->own.get() != 0 && camera->running)
            isp_stop_capture(camera->own.get());
        camera->own.close();
        camera->handle = 0;
        camera->running = false;
    }
}

void CameraHub::restart_counts(Camera &camera)
{
    std::lock_guard<std::mutex> lock(stats_mutex_);
    camera.totals.frames += camera.stats.frames();
    camera.totals.refused += camera.stats.refused();
    camera.totals.dropped += camera.stats.dropped();
    camera.stats = CameraStats(camera.number, DecimationRule());
    camera.has_frame = false;
}

std::string CameraHub::set_running(int number, bool running)
{
    Camera *camera = find(number);
    if (options_.group)
        return "the cameras of a group start and stop together";
    if (camera->running == running)
        return "";
    int result = running ? isp_start_capture(camera->handle) : isp_stop_capture(camera->handle);
    if (result != ISP_OK)
        return failure(running ? "isp_start_capture" : "isp_stop_capture", result);
    // The driver numbers the frames of each start from 0 again.
    restart_counts(*camera);
    std::lock_guard<std::mutex> lock(layout_mutex_);
    camera->running = running;
    return "";
}

std::string CameraHub::set_view_format(int number, int view, const zelvideo::_view_format_t &format)
{
    Camera *camera = find(number);
    if (options_.group)
        return "the members of a group share their view formats: start the console with other formats";
    // A view's format is set on an opened camera before its buffers are
    // made, so the camera is closed and opened again around it.
    zelvideo::_view_format_t former = camera->formats[size_t(view)];
    bool was_running = camera->running;
    auto reopen = [&](const zelvideo::_view_format_t &wanted) -> std::string {
        if (camera->running)
            isp_stop_capture(camera->handle);
        {
            std::lock_guard<std::mutex> lock(layout_mutex_);
            camera->running = false;
        }
        camera->own.close();
        camera->handle = 0;
        if (camera->own.open(camera->number, 1) != kExitOk)
            return "isp_open_video failed";
        camera->handle = camera->own.get();
        int result = isp_set_view_format(camera->handle, uint32_t(view), &wanted);
        if (result != ISP_OK)
            return failure("isp_set_view_format", result);
        if ((result = isp_init_video(camera->handle, options_.combination(), options_.buffers)) != ISP_OK)
            return failure("isp_init_video", result);
        if (read_views(*camera) != kExitOk)
            return "the views could not be read back";
        restart_counts(*camera);
        if (was_running) {
            if ((result = isp_start_capture(camera->handle)) != ISP_OK)
                return failure("isp_start_capture", result);
            std::lock_guard<std::mutex> lock(layout_mutex_);
            camera->running = true;
        }
        return "";
    };
    std::string error = reopen(format);
    if (!error.empty()) {
        std::string restored = reopen(former);
        if (!restored.empty())
            fail(*camera, "the camera could not be set up again: " + restored);
    }
    return error;
}

} // namespace zcam
