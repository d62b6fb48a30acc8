/*
 * abnormal_info.cpp - the ISP's abnormal-information block: a private
 * request whose 14-byte record the driver writes straight into the caller's
 * buffer. Its layout is the driver's; the library hands it through.
 */
#include "camera/isp_video.h"
#include "controls/camera_controls.h"
#include "controls/control_request.h"
#include "driver/isp_requests.h"

namespace zelisp {

int GetAbnormalInfo(const IspVideo &camera, void *info)
{
    static constexpr ControlText kText = {" Get abnormal info failed", "GetAbnormalInfo"};
    return ControlRequest(camera, VIDIOC_ISP_GET_ABNORMAL_INFO, info, kText);
}

} // namespace zelisp
