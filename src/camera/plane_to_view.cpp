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

int ViewOfPlane(uint32_t view_mask, int plane)
{
    for (int view = 0; view < kMaxViews; ++view) {
        if ((view_mask & (1u << view)) != 0 && plane-- == 0)
            return view;
    }
    return -1;
}

} // namespace zelisp
