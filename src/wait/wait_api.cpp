/*
 * wait_api.cpp - the exported multi-camera wait: checks the lists and the
 * handles, then waits.
 */
#include "wait/camera_wait.h"
#include "zelisp.h"

extern "C" ZELISP_API int isp_camera_wait_for_data(const unsigned long *handles, int *ready, int count,
                                                   struct timeval *timeout)
{
    if (ready == nullptr || handles == nullptr || count > zelisp::kMaxWaitCameras)
        return ISP_ERR_INVALID;
    for (int i = 0; i < count; ++i)
        if (handles[i] == 0)
            return ISP_ERR_INVALID;
    return zelisp::WaitForCameras(handles, ready, count, timeout);
}
