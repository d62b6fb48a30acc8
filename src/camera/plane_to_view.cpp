/*
 * plane_to_view.cpp - which ISP view a plane of a capture buffer carries.
 *
 * The ISP packs the enabled views into the planes of each buffer in view
 * order, so plane j is the j-th set bit among bits 0..2 of the view mask.
 * The buffer table is indexed by view, not by plane, so that an application
 * finds view k in views[k] whatever else is enabled.
 */
#include "isp_video.h"

namespace zelisp {

// Runs for every plane of every frame, so it picks the bit without a
// branch per view: drop the lowest enabled views `plane` times, then the
// lowest one left is the answer.
int ViewOfPlane(uint32_t view_mask, int plane)
{
    if (plane < 0)
        return -1;
    uint32_t views = view_mask & ((1u << kMaxViews) - 1);
    for (; plane > 0 && views != 0; --plane)
        views &= views - 1;
    return views != 0 ? __builtin_ctz(views) : -1;
}

} // namespace zelisp
