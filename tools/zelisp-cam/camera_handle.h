/*
 * camera_handle.h - one camera opened with isp_open_video and closed with
 * isp_close_video when the owner goes away, for the commands that work on
 * single cameras (info, get, set, capture without --group).
 */
#ifndef ZELISP_CAM_CAMERA_HANDLE_H
#define ZELISP_CAM_CAMERA_HANDLE_H

#include <string>

namespace zcam {

// The node of camera `camera` in open mode `mode`: /dev/video<c> in mode 1,
// /dev/video<c+12> in mode 2.
std::string node_path(int camera, int mode);

class CameraHandle {
public:
    CameraHandle() = default;
    CameraHandle(CameraHandle &&other) noexcept;
    CameraHandle &operator=(CameraHandle &&other) noexcept;
    CameraHandle(const CameraHandle &) = delete;
    CameraHandle &operator=(const CameraHandle &) = delete;
    ~CameraHandle();

    // Opens the camera. isp_open_video answers only with handle 0 on
    // failure (its printed line says why), so the result given back here is
    // read from the node the way the library judges it: -7 missing,
    // -15 not a device, -9 could not be opened.
    int open(int camera, int mode);
    void close();

    unsigned long get() const { return handle_; }
    int camera() const { return camera_; }
    const std::string &path() const { return path_; }

private:
    unsigned long handle_ = 0;
    int camera_ = -1;
    std::string path_;
};

} // namespace zcam

#endif
