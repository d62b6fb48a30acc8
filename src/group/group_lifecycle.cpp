/*
 * group_lifecycle.cpp - opening, setting up, starting, stopping and closing
 * every member camera in member order, keeping the group's state in step.
 *
 * The group state moves only once every member made the step, so a failure
 * part-way leaves the members already reached in their new camera state: a
 * repeat of the same group step then fails at member 0, whose camera refuses
 * a step it already made, while the group close still closes them all.
 */
#include "group/isp_video_group.h"
#include "library/messages.h"

namespace zelisp {
namespace {

// Runs `step` on each member in order and stops at the first failure, whose
// code is the group's result.
template <typename Step>
int RunOnMembersUntilFailure(IspVideoGroup &group, const char *step_name, Step step)
{
    for (int32_t position = 0; position < group.camera_count; ++position) {
        const int result = step(*group.Member(position));
        if (result != ISP_OK) {
            PrintLine(ISP_MESSAGE_FAILURE, group.MemberPath(position), "camera %d %s failed", group.members[position],
                      step_name);
            return result;
        }
    }
    return ISP_OK;
}

} // namespace

int IspVideoGroup::OpenVideo(int mode, int *open_results)
{
    if (!StateAllows("OpenVideo", StateBit(GROUP_READY)))
        return ISP_ERR_STATE;
    // Every member is tried, so the caller learns from open_results which
    // nodes are missing or busy, not only the first.
    bool any_failed = false;
    for (int32_t position = 0; position < camera_count; ++position) {
        // The mode goes through unchecked: the camera takes 2 as its second
        // node range and any other value as the first.
        if (Member(position)->Open(members[position], mode) == ISP_OK) {
            open_results[position] = ISP_OK;
            continue;
        }
        PrintLine(ISP_MESSAGE_FAILURE, MemberPath(position), "%s : open %d failed", "OpenVideo", members[position]);
        open_results[position] = ISP_ERR_OPEN;
        any_failed = true;
    }
    if (any_failed)
        return ISP_ERR_OPEN;
    state = GROUP_OPENED;
    return ISP_OK;
}

int IspVideoGroup::InitVideo(uint32_t combination, uint32_t buffer_num)
{
    if (!StateAllows("InitVideo", StateBit(GROUP_OPENED)))
        return ISP_ERR_STATE;
    const int result = RunOnMembersUntilFailure(*this, "init", [&](IspVideo &camera) {
        return camera.Init(combination, static_cast<int32_t>(buffer_num));
    });
    if (result == ISP_OK)
        state = GROUP_INITED;
    return result;
}

int IspVideoGroup::StartCaptrue()
{
    if (!StateAllows("StartCaptrue", StateBit(GROUP_INITED)))
        return ISP_ERR_STATE;
    const int result =
        RunOnMembersUntilFailure(*this, "StartCapture", [](IspVideo &camera) { return camera.StartCapture(); });
    if (result == ISP_OK)
        state = GROUP_CAPTURING;
    return result;
}

int IspVideoGroup::StopCapture()
{
    if (!StateAllows("StopCapture", StateBit(GROUP_CAPTURING)))
        return ISP_ERR_STATE;
    const int result =
        RunOnMembersUntilFailure(*this, "StopCaptrue", [](IspVideo &camera) { return camera.StopCapture(); });
    if (result == ISP_OK)
        state = GROUP_INITED;
    return result;
}

int IspVideoGroup::CloseVideo()
{
    if (!StateAllows("CloseVideo", StateBit(GROUP_OPENED) | StateBit(GROUP_INITED) | StateBit(GROUP_CAPTURING)))
        return ISP_ERR_STATE;
    // Close always completes: a member whose node would not close is
    // reported and the others are still closed. The camera objects stay
    // (the group owns them until it is destroyed).
    for (int32_t position = 0; position < camera_count; ++position) {
        if (Member(position)->Close() != ISP_OK)
            PrintLine(ISP_MESSAGE_FAILURE, MemberPath(position), "camera %d close failed", members[position]);
    }
    state = GROUP_NONE;
    return ISP_OK;
}

} // namespace zelisp
