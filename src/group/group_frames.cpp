/*
 * group_frames.cpp - frame sets: one frame from each member, taken one after
 * another in member order with the same wait, and given back the same way.
 *
 * The group lines nothing up: it compares neither sequence numbers nor
 * timestamps across members. Frames taken together come from the same
 * sensor period only when the trigger mode locks the sensors' clocks.
 */

#include "group/isp_video_group.h"
#include "library/messages.h"

namespace zelisp {
namespace {

// The caller's array holds one record per member position.
bool FrameArrayFits(const IspVideoGroup &group, int frame_count)
{
    if (group.camera_count <= frame_count)
        return true;
    EmitLine(ISP_MESSAGE_FAILURE, Console::Stdio, nullptr, "buffers sum less than camera_count!");
    return false;
}

} // namespace

int IspVideoGroup::GetSyncFrame(zelvideo::_isp_buf_t *frames, int frame_count, int timeout_ms)
{
    if (state != GROUP_CAPTURING)
        return ISP_ERR_STATE;
    if (!FrameArrayFits(*this, frame_count))
        return ISP_ERR_MISSING;
    // On a failure the frames taken from earlier members stay with the
    // caller, filled in `frames`.
    for (int32_t position = 0; position < camera_count; ++position) {
        const int result = Member(position)->GetFrame(&frames[position], timeout_ms);
        if (result != ISP_OK)
            return result;
    }
    return ISP_OK;
}

int IspVideoGroup::PutFrame(const zelvideo::_isp_buf_t *frames, int frame_count)
{
    if (state != GROUP_CAPTURING)
        return ISP_ERR_STATE;
    // Checked like the sync read, so that a short array is never read past
    // its end.
    if (!FrameArrayFits(*this, frame_count))
        return ISP_ERR_MISSING;
    for (int32_t position = 0; position < camera_count; ++position) {
        const int result = Member(position)->PutFrame(frames[position]);
        if (result != ISP_OK)
            return result;
    }
    return ISP_OK;
}

} // namespace zelisp
