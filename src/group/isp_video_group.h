/*
 * isp_video_group.h - the camera group: up to 8 member cameras driven as
 * one, in member order, plus the /dev/isp_misc descriptor the group keeps
 * for its trigger requests and the valid-camera table read at creation.
 *
 * The object is a plain record (no base class, nothing virtual); its handle
 * is its address. It owns one camera object per distinct member index and
 * its misc_fd; only Teardown releases them.
 */
#ifndef ZELISP_GROUP_ISP_VIDEO_GROUP_H
#define ZELISP_GROUP_ISP_VIDEO_GROUP_H

#include <cstdint>

#include "camera/isp_video.h"
#include "platform/misc_node.h"
#include "zelisp.h"

namespace zelisp {

constexpr int kMaxGroupMembers = 8;
constexpr int kGroupNameSize = 32;

// 1, 2 and 4 are the camera states the members reach; 3 is never used.
enum GroupState : uint32_t {
    GROUP_NONE = 0,
    GROUP_OPENED = 1,
    GROUP_INITED = 2,
    GROUP_CAPTURING = 4,
    GROUP_CREATED = 5,
    GROUP_READY = 6,
};

struct IspVideoGroup {
    char name[kGroupNameSize] = {}; // not zero-terminated at 32 characters or more
    uint32_t state = GROUP_NONE;
    int32_t misc_fd = 0;
    int32_t camera_count = 0;
    uint32_t group_type = 0;
    uint32_t valid_camera_count = 0;
    int32_t members[kMaxCameras] = {};
    zelvideo::_camera_info_t valid_cameras[kValidCameraSlots] = {};
    // Indexed by camera index, not member position; null for non-members.
    IspVideo *videos[kMaxCameras] = {};

    // Teardown (group_teardown.cpp). Teardown closes misc_fd and frees the
    // camera objects of the first `positions` member positions, each distinct
    // camera once. Destroy first closes the member cameras that are still
    // open, whatever the group's state (a failed group open leaves members
    // open in GROUP_READY), then tears the whole group down.
    void Teardown(int32_t positions);
    void Destroy();
    void CloseOpenMembers(int32_t positions);

    // Membership (group_membership.cpp).
    int LookUpMember(int camera_index) const;
    int GetCameraHandle(int camera_index, unsigned long *handle) const;
    int GetVideoInfo(int camera_index, zelvideo::_camera_info_t *info) const;

    // Lifecycle (group_lifecycle.cpp).
    int OpenVideo(int mode, int *open_results);
    int InitVideo(uint32_t combination, uint32_t buffer_num);
    int StartCaptrue();
    int StopCapture();
    int CloseVideo();

    // Views (group_views.cpp).
    int SetViewFormat(int view, zelvideo::_view_format_t view_format);
    int GetViewFormat(int view, zelvideo::_view_format_t *formats);

    // Trigger mode on the kept /dev/isp_misc descriptor (group_trigger.cpp).
    int SetTrigger(const MipiTriggerRecord &record) const;

    // Frame sets (group_frames.cpp).
    int GetSyncFrame(zelvideo::_isp_buf_t *frames, int frame_count, int timeout_ms);
    int PutFrame(const zelvideo::_isp_buf_t *frames, int frame_count);

    // Camera object of member position i.
    IspVideo *Member(int position) const { return videos[members[position]]; }
    // The node of the member at position once it has one (for the lines
    // about that member), null before.
    const char *MemberPath(int position) const { return Member(position)->NodePath(); }
    // The group's state rule: true when state is accepted; otherwise prints
    // the bad-state line with the operation's name.
    bool StateAllows(const char *operation, uint32_t accepted_mask) const;
};

// The two creators (group_creation.cpp). A group is handed out (*out set)
// only when whole: a failed creation leaves nothing behind, neither the
// object nor the member cameras made so far nor the /dev/isp_misc descriptor.
int CreateEmptyGroup(uint32_t group_type, const char *name, int32_t camera_count, IspVideoGroup **out);
int CreateMemberGroup(uint32_t group_type, const char *name, const int *camera_index_list, int32_t camera_count,
                      IspVideoGroup **out);

inline IspVideoGroup *GroupFromHandle(unsigned long handle) { return reinterpret_cast<IspVideoGroup *>(handle); }

} // namespace zelisp

#endif
