/*
 * group_trigger.cpp - the MIPI trigger mode set through a group, on the
 * /dev/isp_misc descriptor the group keeps open. With a trigger mode set the
 * members' sensors expose on one clock, which is what makes a group's frame
 * set come from a single instant.
 */
#include "group/isp_video_group.h"

namespace zelisp {

// The group's state is not consulted: the mode may be set before or while
// the members capture. Sent once; a refusal is printed, never returned.
int IspVideoGroup::SetTrigger(const MipiTriggerRecord &record) const
{
    SendTriggerRecord(misc_fd, record, Retry::Once);
    return ISP_OK;
}

} // namespace zelisp
