/*
 * group_creation.cpp - making a camera group: the /dev/isp_misc descriptor
 * the group keeps for its trigger requests, its copy of the platform's
 * valid-camera table, and one unopened camera object per member.
 */
#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <new>

#include "group/isp_video_group.h"
#include "library/messages.h"

namespace zelisp {
namespace {

// The steps both creators share. On failure no descriptor stays open: the
// group is not handed out, so nothing could ever close it later.
int RunCreationStep(IspVideoGroup &group, uint32_t group_type, const char *name, int32_t camera_count)
{
    if (name == nullptr)
        return ISP_ERR_MISSING;
    // Signed on purpose: 0 and negative counts make a group without members.
    if (camera_count > kMaxGroupMembers) {
        PrintLine(ISP_MESSAGE_FAILURE, nullptr, "camera_count greater than MAX_GROUP_NAME_LEN : %d !! ", kMaxGroupMembers);
        return ISP_ERR_MISSING;
    }
    group.misc_fd = open(kMiscNodePath, O_RDWR);
    if (group.misc_fd < 0) {
        EmitSystemError("open isp_misc error\n");
        return ISP_ERR_OPEN;
    }
    if (isp_get_all_valid_camera_info(group.valid_cameras, &group.valid_camera_count) != 0) {
        EmitLine(ISP_MESSAGE_FAILURE, Console::Stdio, nullptr, "isp_get_all_valid_camera_info failed! ");
        close(group.misc_fd);
        return ISP_ERR_NO_NODE;
    }
    group.group_type = group_type;
    // At most 32 bytes: a longer name is cut and left without its terminator.
    memcpy(group.name, name, strnlen(name, kGroupNameSize));
    group.camera_count = camera_count;
    group.state = GROUP_CREATED;
    return ISP_OK;
}

// One camera object per distinct member index; a repeated index shares the
// object made at its first position. Members are only constructed here,
// the group open opens them.
int MakeMembers(IspVideoGroup &group, const int *camera_index_list)
{
    for (int32_t position = 0; position < group.camera_count; ++position) {
        const int camera_index = camera_index_list[position];
        group.members[position] = camera_index;
        if (camera_index < 0 || camera_index >= kMaxCameras) {
            PrintLine(ISP_MESSAGE_FAILURE, nullptr, "video %d is invalid !", camera_index);
            group.Teardown(position);
            return ISP_ERR_INVALID;
        }
        if (group.videos[camera_index] != nullptr)
            continue;
        group.videos[camera_index] = new (std::nothrow) IspVideo();
        if (group.videos[camera_index] == nullptr) {
            group.Teardown(position);
            return ISP_ERR_MISSING;
        }
    }
    group.state = GROUP_READY;
    return ISP_OK;
}

} // namespace

int CreateEmptyGroup(uint32_t group_type, const char *name, int32_t camera_count, IspVideoGroup **out)
{
    IspVideoGroup *group = new (std::nothrow) IspVideoGroup();
    if (group == nullptr)
        return ISP_ERR_MISSING;
    const int result = RunCreationStep(*group, group_type, name, camera_count);
    if (result != ISP_OK) {
        delete group;
        return result;
    }
    *out = group;
    return ISP_OK;
}

int CreateMemberGroup(uint32_t group_type, const char *name, const int *camera_index_list, int32_t camera_count,
                      IspVideoGroup **out)
{
    IspVideoGroup *group = new (std::nothrow) IspVideoGroup();
    if (group == nullptr)
        return ISP_ERR_MISSING;
    int result = RunCreationStep(*group, group_type, name, camera_count);
    if (result == ISP_OK)
        result = MakeMembers(*group, camera_index_list);
    if (result != ISP_OK) {
        delete group;
        return result;
    }
    *out = group;
    return ISP_OK;
}

} // namespace zelisp
