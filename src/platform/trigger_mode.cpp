/*
 * trigger_mode.cpp - the MIPI trigger mode of the ISP: internal (the ISP
 * paces the sensors) or external (a trigger line does). The record carries
 * no camera: the mode is the platform's, so a camera handle only has to be
 * valid, and a group sets it through the descriptor it keeps open.
 */
#include <sys/ioctl.h>

#include <cstdio>

#include "camera/isp_video.h"
#include "platform/misc_node.h"
#include "platform/misc_session.h"

namespace zelisp {

namespace {

constexpr uint32_t kInternalMode = 0;
constexpr uint32_t kExternalMode = 1;
constexpr uint32_t kMaxParam1 = 2;
constexpr uint32_t kMaxParam2 = 7;
constexpr uint32_t kMaxExternalParam3 = 2;

// A refused trigger is only reported, so the single-camera calls succeed
// once the node could be opened.
int SetTrigger(const MipiTriggerRecord &record, bool retry_on_eintr)
{
    MiscSession node;
    if (!node.opened()) {
        perror("open isp_misc error\n");
        return ISP_ERR_OPEN;
    }
    SendTriggerRecord(node.fd(), record, retry_on_eintr);
    return ISP_OK;
}

} // namespace

// The word a mode does not use goes out as zero.
MipiTriggerRecord InternalTriggerRecord(uint32_t param1, uint32_t param2, uint32_t internal_param3)
{
    MipiTriggerRecord record{};
    record.trigger_mode = kInternalMode;
    record.trigger_param1 = param1;
    record.internal_param3 = internal_param3;
    record.trigger_param2 = param2;
    return record;
}

MipiTriggerRecord ExternalTriggerRecord(uint32_t param1, uint32_t param2, uint32_t external_param3)
{
    MipiTriggerRecord record{};
    record.trigger_mode = kExternalMode;
    record.trigger_param1 = param1;
    record.trigger_param2 = param2;
    record.external_param3 = external_param3;
    return record;
}

void SendTriggerRecord(int misc_fd, const MipiTriggerRecord &record, bool retry_on_eintr)
{
    MipiTriggerRecord sent = record;
    const int result = retry_on_eintr ? IspVideo::IoctlRetry(misc_fd, IOC_SET_MIPI_TRIGGER_MODE, &sent)
                                      : ioctl(misc_fd, IOC_SET_MIPI_TRIGGER_MODE, &sent);
    if (result == 0)
        return;
    if (record.trigger_mode == kInternalMode)
        puts("ioctl IOC_SET_MIPI_TRIGGER_MODE failed! ");
    else
        perror("ioctl IOC_SET_MIPI_TRIGGER_MODE failed! \n");
}

} // namespace zelisp

// Internal mode is repeated through signals. External mode is sent once:
// an interrupted request there is reported like a refusal, and the caller
// decides whether to arm the trigger line again.
int isp_set_internal_trigger(unsigned long handle, uint32_t trigger_param1, uint32_t trigger_param2,
                             uint32_t internal_param3)
{
    using namespace zelisp;
    if (handle == 0 || trigger_param1 > kMaxParam1 || trigger_param2 > kMaxParam2)
        return ISP_ERR_INVALID;
    return SetTrigger(InternalTriggerRecord(trigger_param1, trigger_param2, internal_param3), true);
}

int isp_set_external_trigger(unsigned long handle, uint32_t trigger_param1, uint32_t trigger_param2,
                             uint32_t external_param3)
{
    using namespace zelisp;
    if (handle == 0 || trigger_param1 > kMaxParam1 || trigger_param2 > kMaxParam2 ||
        external_param3 > kMaxExternalParam3)
        return ISP_ERR_INVALID;
    return SetTrigger(ExternalTriggerRecord(trigger_param1, trigger_param2, external_param3), false);
}
