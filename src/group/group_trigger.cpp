/*
 * group_trigger.cpp - the MIPI trigger mode set through a group, on the
 * /dev/isp_misc descriptor the group keeps open. With a trigger mode set the
 * members' sensors expose on one clock, which is what makes a group's frame
 * set come from a single instant.
 */
#include "group/isp_video_group.h"

namespace zelisp {
namespace {

// The group's state is not consulted: the mode may be set before or while
// the members capture. Sent once; a refusal is printed, never returned.
int SendGroupTrigger(unsigned long group, const MipiTriggerRecord &record)
{
    SendTriggerRecord(GroupFromHandle(group)->misc_fd, record, false);
    return ISP_OK;
}

} // namespace
} // namespace zelisp

using namespace zelisp;

extern "C" {

ZELISP_API int isp_group_set_internal_trigger(unsigned long group, uint32_t trigger_param1, uint32_t trigger_param2,
                                              uint32_t internal_param3)
{
    return SendGroupTrigger(group, InternalTriggerRecord(trigger_param1, trigger_param2, internal_param3));
}

ZELISP_API int isp_group_set_external_trigger(unsigned long group, uint32_t trigger_param1, uint32_t trigger_param2,
                                              uint32_t external_param3)
{
    return SendGroupTrigger(group, ExternalTriggerRecord(trigger_param1, trigger_param2, external_param3));
}

} /* extern "C" */
