/*
 * streaming.cpp - switching the camera's stream on and off, and handing a
 * buffer to the driver.
 */
#include <cerrno>

#include "driver/driver_request.h"
#include "isp_video.h"
#include "v4l2_records.h"

namespace zelisp {

// A request to the node failed: repeated while a signal interrupts it, as
// every request of the camera is.
__attribute__((cold)) int IspVideo::RepeatIfInterrupted(unsigned long request, void *record) const
{
    if (errno != EINTR)
        return -1;
    return RepeatInterruptedRequest(fd, request, record);
}

int IspVideo::StartCapture()
{
    if (!StateAllows("StartCapture", StateBit(VIDEO_INITED)))
        return ISP_ERR_STATE;

    // Every buffer goes to the driver, including any the application still
    // held when the stream was last stopped: stream-off took them all back.
    for (int buffer = 0; buffer < buffer_count; ++buffer) {
        if (QueueBuffer(uint32_t(buffer)) < 0) {
            DeviceMessage(ISP_MESSAGE_FAILURE, " queue buffer %d failed", buffer);
            return ISP_ERR_REQUEST;
        }
    }
    int type = kCaptureType;
    if (Request(VIDIOC_STREAMON, &type) < 0) {
        DeviceMessage(ISP_MESSAGE_FAILURE, " stream on failed");
        return ISP_ERR_REQUEST;
    }
    state = VIDEO_CAPTURING;
    return ISP_OK;
}

int IspVideo::StopCapture()
{
    if (!StateAllows("StopCapture", StateBit(VIDEO_CAPTURING)))
        return ISP_ERR_STATE;

    int type = kCaptureType;
    if (Request(VIDIOC_STREAMOFF, &type) < 0) {
        DeviceMessage(ISP_MESSAGE_FAILURE, "stream off failed");
        return ISP_ERR_REQUEST;
    }
    state = VIDEO_INITED;
    return ISP_OK;
}

} // namespace zelisp
