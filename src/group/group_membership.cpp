/*
 * group_membership.cpp - looking a camera up in a group: among its members
 * (by camera index) and in the valid-camera table copied at creation.
 */
#include "group/isp_video_group.h"
#include "library/messages.h"

namespace zelisp {
namespace {

// Lookups need a group that was created with members and not closed since.
int RefuseWithoutMembers(const IspVideoGroup &group)
{
    if (group.state == GROUP_NONE) {
        EmitSystemError("Haven't create group !!!\n");
        return ISP_ERR_STATE;
    }
    if (group.state == GROUP_CREATED) {
        EmitSystemError("Empty group !!!\n");
        return ISP_ERR_STATE;
    }
    return ISP_OK;
}

} // namespace

int IspVideoGroup::LookUpMember(int camera_index) const
{
    const int result = RefuseWithoutMembers(*this);
    if (result != ISP_OK)
        return result;
    for (int32_t position = 0; position < camera_count; ++position) {
        if (members[position] == camera_index)
            return ISP_OK;
    }
    EmitSystemError("camera_index is invailed !!!\n");
    return ISP_ERR_INVALID;
}

int IspVideoGroup::GetCameraHandle(int camera_index, unsigned long *handle) const
{
    const int result = LookUpMember(camera_index);
    if (result == ISP_OK)
        *handle = reinterpret_cast<unsigned long>(videos[camera_index]);
    return result;
}

int IspVideoGroup::GetVideoInfo(int camera_index, zelvideo::_camera_info_t *info) const
{
    const int result = RefuseWithoutMembers(*this);
    if (result != ISP_OK)
        return result;
    if (valid_camera_count < 1) {
        EmitLine(ISP_MESSAGE_FAILURE, Console::Stdio, nullptr, "none valied camera!");
        return ISP_ERR_NO_VALID_CAMERA;
    }
    // The driver may report more cameras than its table has slots.
    const uint32_t records = valid_camera_count < kValidCameraSlots ? valid_camera_count : kValidCameraSlots;
    for (uint32_t slot = 0; slot < records; ++slot) {
        if (valid_cameras[slot].camera_index == camera_index) {
            *info = valid_cameras[slot];
            return ISP_OK;
        }
    }
    // A camera the platform does not list is refused like a non-member, so
    // that a caller never mistakes an untouched record for the camera's.
    EmitSystemError("camera_index is invailed !!!\n");
    return ISP_ERR_INVALID;
}

} // namespace zelisp
