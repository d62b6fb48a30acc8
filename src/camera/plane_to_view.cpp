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

namespace {

// kViewOfPlane[mask][j]: the j-th enabled view of a three-bit view mask, -1
// when fewer views are enabled. A lookup, since this runs for every plane of
// every frame and a scan over the views costs a branch per view.
constexpr int8_t kViewOfPlane[1 << kMaxViews][kMaxViews] = {
    {-1, -1, -1}, {0, -1, -1}, {1, -1, -1}, {0, 1, -1},
    {2, -1, -1},  {0, 2, -1},  {1, 2, -1},  {0, 1, 2},
};

} // namespace

int ViewOfPlane(uint32_t view_mask, int plane)
{
    if (plane < 0 || plane >= kMaxViews)
        return -1;
    return kViewOfPlane[view_mask & ((1u << kMaxViews) - 1)][plane];
}

} // namespace zelisp
