/*
 * group_views.cpp - one view format for every member, and each member's
 * current format of a view. A member's failure is reported and the walk goes
 * on: the caller sees it only in the output, the result stays 0.
 */
#include "group/isp_video_group.h"
#include "library/messages.h"

namespace zelisp {

int IspVideoGroup::SetViewFormat(int view, zelvideo::_view_format_t view_format)
{
    if (!StateAllows("SetViewFormat", StateBit(GROUP_OPENED) | StateBit(GROUP_INITED)))
        return ISP_ERR_STATE;
    // One format for all members only makes sense when they are the same
    // sensor model.
    if (group_type != 0) {
        EmitLine(ISP_MESSAGE_FAILURE, Console::StdioWithoutEnd, nullptr, "Only the same camera is supported");
        return ISP_ERR_STATE;
    }
    for (int32_t position = 0; position < camera_count; ++position) {
        const int result = Member(position)->SetViewFormat(view, view_format);
        if (result != ISP_OK)
            PrintLine(ISP_MESSAGE_FAILURE, MemberPath(position), "camera %d SetViewFormat failed error code: %d",
                      members[position], result);
    }
    return ISP_OK;
}

int IspVideoGroup::GetViewFormat(int view, zelvideo::_view_format_t *formats)
{
    EmitLine(ISP_MESSAGE_PROGRESS, Console::Stdio, nullptr, "GetViewFormat ");
    if (!StateAllows("GetViewFormat", StateBit(GROUP_OPENED) | StateBit(GROUP_INITED) | StateBit(GROUP_CAPTURING)))
        return ISP_ERR_STATE;
    for (int32_t position = 0; position < camera_count; ++position) {
        PrintLine(ISP_MESSAGE_PROGRESS, MemberPath(position), "video %d ", members[position]);
        if (Member(position)->GetViewFormat(view, &formats[position]) != ISP_OK)
            PrintLine(ISP_MESSAGE_FAILURE, MemberPath(position), "camera %d GetViewFormat failed", members[position]);
    }
    return ISP_OK;
}

} // namespace zelisp
