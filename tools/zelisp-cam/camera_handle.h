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

// "camera N", how every sentence about one camera begins.
std::string camera_context(int camera);

// Why a camera's node cannot be opened, judged the way the library judges
// it, since isp_open_video answers only with handle 0: the result (-7
// missing, -15 not a device, -9 could not be opened) and, for -9, the
// system's reason ("/dev/video0: Device or resource busy").
struct OpenFailure {
    int result = 0;
    std::string reason;
};
OpenFailure judge_open_failure(int camera, int mode);
// Reports it as "camera N: isp_open_video: ..."; returns the exit status.
int report_open_failure(int camera, const OpenFailure &failure);

class LineWatch;

// Warns, as "<what> failed ...", when the watched close made a failure line:
// the library's close calls answer 0 even then.
void warn_if_close_failed(const LineWatch &watch, const std::string &what);

class CameraHandle {
public:
    CameraHandle() = default;
    CameraHandle(CameraHandle &&other) noexcept;
    CameraHandle &operator=(CameraHandle &&other) noexcept;
    CameraHandle(const CameraHandle &) = delete;
    CameraHandle &operator=(const CameraHandle &) = delete;
    ~CameraHandle();

    // Opens the camera: 0, or the judged failure's exit status, reported.
    int open(int camera, int mode);
    // Closes it; a close the library reports as failed is warned about.
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
