// camera_handle.cpp - opening and closing one camera for the tool.
#include "camera_handle.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "library_lines.h"
#include "tool_errors.h"
#include "zelisp.h"

namespace zcam {

std::string node_path(int camera, int mode)
{
    return "/dev/video" + std::to_string(mode == 2 ? camera + 12 : camera);
}

std::string camera_context(int camera)
{
    return "camera " + std::to_string(camera);
}

OpenFailure judge_open_failure(int camera, int mode)
{
    std::string path = node_path(camera, mode);
    struct stat st;
    if (stat(path.c_str(), &st) != 0)
        return {ISP_ERR_NO_NODE, path + " does not exist"};
    if (!S_ISCHR(st.st_mode))
        return {ISP_ERR_INVALID, path + " is not a device"};
    // The library's line says only "open failed"; opening the node again
    // the same way gives the system's reason (busy, no permission, ...).
    int fd = ::open(path.c_str(), O_RDWR | O_NONBLOCK);
    if (fd >= 0) {
        ::close(fd);
        return {ISP_ERR_OPEN, path + " could not be opened, although it opens now"};
    }
    return {ISP_ERR_OPEN, path + ": " + strerror(errno)};
}

int report_open_failure(int camera, const OpenFailure &failure)
{
    return report_failure_because(camera_context(camera), "isp_open_video", failure.result, failure.reason);
}

CameraHandle::CameraHandle(CameraHandle &&other) noexcept
    : handle_(std::exchange(other.handle_, 0)), camera_(other.camera_), path_(std::move(other.path_))
{
}

CameraHandle &CameraHandle::operator=(CameraHandle &&other) noexcept
{
    if (this != &other) {
        close();
        handle_ = std::exchange(other.handle_, 0);
        camera_ = other.camera_;
        path_ = std::move(other.path_);
    }
    return *this;
}

CameraHandle::~CameraHandle()
{
    close();
}

int CameraHandle::open(int camera, int mode)
{
    close();
    camera_ = camera;
    path_ = node_path(camera, mode);
    handle_ = isp_open_video(uint32_t(camera), mode);
    if (handle_ != 0)
        return kExitOk;
    return report_open_failure(camera, judge_open_failure(camera, mode));
}

void CameraHandle::close()
{
    if (handle_ == 0)
        return;
    LineWatch watch;
    isp_close_video(std::exchange(handle_, 0));
    warn_if_close_failed(watch, camera_context(camera_) + ": closing " + path_);
}

void warn_if_close_failed(const LineWatch &watch, const std::string &what)
{
    // isp_close_video answers 0 whatever the close did, as the library
    // documents; its line is the only sign.
    if (watch.failed())
        report_warning(what + " failed (the library's line above); the library answers 0 all the same, "
                              "as it documents, and the handle is gone");
}

} // namespace zcam
