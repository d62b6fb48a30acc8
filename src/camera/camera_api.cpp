/*
 * camera_api.cpp - the exported camera functions: thin fronts that check
 * their arguments, then call one operation of the camera object.
 *
 * A handle is the camera object's address; 0 is the only value that can be
 * recognised as bad, so that is the only test made on it.
 */
#include <new>

#include "isp_video.h"
#include "library/messages.h"

using zelisp::IspVideo;
using zelisp::VideoFromHandle;

extern "C" {

ZELISP_API unsigned long isp_open_video(uint32_t camera_index, int32_t mode)
{
    if (camera_index >= uint32_t(zelisp::kMaxCameras) || (mode != 1 && mode != 2))
        return 0;
    // Out of memory is turned into "no camera" rather than an exception
    // escaping into a C caller.
    IspVideo *video = new (std::nothrow) IspVideo;
    if (video == nullptr)
        return 0;
    if (video->Open(camera_index, mode) != ISP_OK) {
        delete video;
        return 0;
    }
    return reinterpret_cast<unsigned long>(video);
}

ZELISP_API int isp_close_video(unsigned long handle)
{
    if (handle == 0)
        return ISP_ERR_INVALID;
    // The object goes whatever Close says: the caller's handle is spent, and
    // Close has already released what it could.
    IspVideo *video = VideoFromHandle(handle);
    video->Close();
    delete video;
    return ISP_OK;
}

ZELISP_API int isp_camera_get_native_fd(unsigned long handle, int64_t *fd)
{
    // A null output would be a crash on a board that must stay up; it is
    // refused like every other pointer argument.
    if (handle == 0 || fd == nullptr)
        return ISP_ERR_INVALID;
    int descriptor = VideoFromHandle(handle)->GetVideoFd();
    if (descriptor < 0) {
        zelisp::EmitLine(ISP_MESSAGE_FAILURE, zelisp::Console::Stdio, nullptr, "GetVideoFd: bad state, video not opened");
        return ISP_ERR_STATE;
    }
    *fd = descriptor;
    return ISP_OK;
}

ZELISP_API int isp_init_video(unsigned long handle, uint32_t combination, int32_t buffer_num)
{
    if (handle == 0)
        return ISP_ERR_INVALID;
    return VideoFromHandle(handle)->Init(combination, buffer_num);
}

ZELISP_API int isp_resize_resolution(unsigned long handle, const zelvideo::_resize_param_t *param)
{
    if (handle == 0 || param == nullptr)
        return ISP_ERR_INVALID;
    return VideoFromHandle(handle)->StoreResize(*param);
}

ZELISP_API int isp_start_capture(unsigned long handle)
{
    if (handle == 0)
        return ISP_ERR_INVALID;
    return VideoFromHandle(handle)->StartCapture();
}

ZELISP_API int isp_stop_capture(unsigned long handle)
{
    if (handle == 0)
        return ISP_ERR_INVALID;
    return VideoFromHandle(handle)->StopCapture();
}

ZELISP_API int isp_get_frame_buf(unsigned long handle, zelvideo::_isp_buf_t *buf, int32_t timeout_ms)
{
    if (handle == 0 || buf == nullptr)
        return ISP_ERR_INVALID;
    return VideoFromHandle(handle)->GetFrame(buf, timeout_ms);
}

ZELISP_API int isp_put_frame_buf(unsigned long handle, const zelvideo::_isp_buf_t *buf)
{
    if (handle == 0 || buf == nullptr)
        return ISP_ERR_INVALID;
    return VideoFromHandle(handle)->PutFrame(*buf);
}

ZELISP_API int isp_put_frame_buf_by_index(unsigned long handle, int32_t index)
{
    if (handle == 0 || index < 0)
        return ISP_ERR_INVALID;
    return VideoFromHandle(handle)->PutFrameByIndex(index);
}

ZELISP_API int isp_get_view_format(unsigned long handle, uint32_t view, zelvideo::_view_format_t *format)
{
    if (handle == 0 || format == nullptr)
        return ISP_ERR_INVALID;
    return VideoFromHandle(handle)->GetViewFormat(int32_t(view), format);
}

ZELISP_API int isp_set_view_format(unsigned long handle, uint32_t view, const zelvideo::_view_format_t *format)
{
    // The driver reads the view number from a one-byte field; a larger value
    // would wrap onto another view, so it is refused here.
    if (handle == 0 || format == nullptr || view >= uint32_t(zelisp::kMaxViews))
        return ISP_ERR_INVALID;
    return VideoFromHandle(handle)->SetViewFormat(int32_t(view), *format);
}

ZELISP_API int isp_get_view_buf_fd(unsigned long handle, uint32_t buffer_index, uint32_t view)
{
    if (handle == 0)
        return ISP_ERR_INVALID;
    return VideoFromHandle(handle)->GetViewBufFd(int32_t(buffer_index), view);
}

ZELISP_API int isp_set_frame_drop_num(unsigned long handle, int32_t total_num, int32_t drop_num)
{
    if (handle == 0)
        return ISP_ERR_INVALID;
    return VideoFromHandle(handle)->SetFrameDropNum(total_num, drop_num);
}

ZELISP_API int isp_get_expected_frame(unsigned long handle, zelvideo::_isp_buf_t *buf, int32_t timeout_ms)
{
    if (handle == 0 || buf == nullptr)
        return ISP_ERR_INVALID;
    return VideoFromHandle(handle)->GetExpectedFrame(buf, timeout_ms);
}

} // extern "C"
