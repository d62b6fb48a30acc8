/*
 * group_state.cpp - the group's state rule: the same one its member cameras
 * apply, so an operation called in a state it does not accept changes
 * nothing and says so in the same words.
 */
#include "group/isp_video_group.h"

namespace zelisp {

bool IspVideoGroup::StateAllows(const char *operation, uint32_t accepted_mask) const
{
    return zelisp::StateAllows(operation, state, accepted_mask, nullptr);
}

} // namespace zelisp
