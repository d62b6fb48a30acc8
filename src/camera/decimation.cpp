/*
 * decimation.cpp - a reduced frame rate by the frame's sequence number.
 *
 * A ratio "drop d of every t" is kept only when it is one of two periodic
 * rules the sequence number can express cheaply: drop one frame in every N,
 * or keep one frame in every N. Dropped frames go straight back to the
 * driver. Working on absolute sequence numbers makes the choice of frames
 * independent of when the setting was made.
 */
#include "isp_video.h"

namespace zelisp {

namespace {

constexpr int32_t kMaxDecimationCycle = 120;

} // namespace

int IspVideo::SetFrameDropNum(int32_t total_num, int32_t drop_num)
{
    if (total_num < 1 || total_num > kMaxDecimationCycle || drop_num < 0 || total_num <= drop_num)
        return ISP_ERR_INVALID;
    if (drop_num == 0) {
        decimation_mode = DECIMATION_OFF;
        return ISP_OK;
    }

    int32_t keep_num = total_num - drop_num;
    if (keep_num >= drop_num) {
        if (total_num % drop_num != 0)
            return ISP_ERR_INVALID;
        drop_interval = uint32_t(total_num / drop_num);
        decimation_mode = DECIMATION_DROP_ONE;
        return ISP_OK;
    }
    if (total_num % keep_num != 0)
        return ISP_ERR_INVALID;
    keep_interval = uint32_t(total_num / keep_num);
    decimation_mode = DECIMATION_KEEP_ONE;
    return ISP_OK;
}

int IspVideo::GetExpectedFrame(zelvideo::_isp_buf_t *out, int32_t timeout_ms)
{
    if (decimation_mode == DECIMATION_OFF)
        return GetFrame(out, timeout_ms);

    for (;;) {
        zelvideo::_isp_buf_t frame;
        int result = GetFrame(&frame, timeout_ms);
        if (result != ISP_OK)
            return result;
        // The frame just accepted is the one last_sequence now names; it is
        // the buffer's sequence in every enabled view.
        uint32_t sequence = last_sequence;
        bool wanted = decimation_mode == DECIMATION_DROP_ONE ? sequence % drop_interval != 0
                                                             : sequence % keep_interval == 0;
        if (wanted) {
            *out = frame;
            return ISP_OK;
        }
        PutFrameByIndex(int32_t(frame.index));
    }
}

} // namespace zelisp
