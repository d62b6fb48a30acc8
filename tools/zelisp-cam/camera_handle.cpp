// camera_handle.cpp - opening and closing one camera for the tool.
#include "camera_handle.h"

#include <sys/stat.h>

#include <utility>

#include "zelisp.h"

namespace zcam {

std::string node_path(int camera, int mode)
{
    return "/dev/video" + std::to_string(mode == 2 ? camera + 12 : camera);
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
        return ISP_OK;
    struct stat st;
    if (stat(path_.c_str(), &st) != 0)
        return ISP_ERR_NO_NODE;
    if (!S_ISCHR(st.st_mode))
        return ISP_ERR_INVALID;
    return ISP_ERR_OPEN;
}

void CameraHandle::close()
{
    if (handle_ != 0)
        isp_close_video(handle_);
    handle_ = 0;
}

} // namespace zcam
