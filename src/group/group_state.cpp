/*
 * group_state.cpp - the group's state rule, the same one its member cameras
 * apply: an operation called in a state it does not accept changes nothing.
 */
#include <cstdio>

#include "group/isp_video_group.h"

namespace zelisp {

bool IspVideoGroup::StateAllows(const char *operation, uint32_t accepted_mask) const
{
    if (StateBit(state) & accepted_mask)
        return true;
    printf("%s: bad state %d\n", operation, static_cast<int>(state));
    return false;
}

} // namespace zelisp
