/*
 * trigger_mode.cpp - the MIPI trigger mode of the ISP: internal (the ISP
 * paces the sensors) or external (a trigger line does). The record carries
 * no camera: the mode is the platform's, so a camera handle only has to be
 * valid, and a group sets it through the descriptor it keeps open.
 */

#include "library/messages.h"
#include "platform/misc_node.h"
#include "platform/misc_session.h"

namespace zelisp {

// A refused trigger is only reported, so the single-camera calls succeed
// once the node could be opened.
int SetTrigger(const MipiTriggerRecord &record, Retry retry)
{
    MiscSession node;
    if (!node.opened()) {
        EmitSystemError("open isp_misc error\n");
        return ISP_ERR_OPEN;
    }
    SendTriggerRecord(node.fd(), record, retry);
    return ISP_OK;
}

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

void SendTriggerRecord(int misc_fd, const MipiTriggerRecord &record, Retry retry)
{
    MipiTriggerRecord sent = record;
    if (DriverRequest(misc_fd, IOC_SET_MIPI_TRIGGER_MODE, &sent, retry) == 0)
        return;
    if (record.trigger_mode == kInternalMode)
        EmitLine(ISP_MESSAGE_FAILURE, Console::Stdio, nullptr, "ioctl IOC_SET_MIPI_TRIGGER_MODE failed! ");
    else
        EmitSystemError("ioctl IOC_SET_MIPI_TRIGGER_MODE failed! \n");
}

} // namespace zelisp
