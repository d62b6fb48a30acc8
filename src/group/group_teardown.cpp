/*
 * group_teardown.cpp - releasing what a group owns: its /dev/isp_misc
 * descriptor and its member camera objects.
 */
#include <unistd.h>

#include "group/isp_video_group.h"

namespace zelisp {

void IspVideoGroup::Teardown(int32_t positions)
{
    close(misc_fd);
    // A camera index standing at several positions is one object: free it at
    // its first position and forget it, so later positions find nothing.
    for (int32_t position = 0; position < positions; ++position) {
        delete videos[members[position]];
        videos[members[position]] = nullptr;
    }
}

void IspVideoGroup::Destroy()
{
    // An empty group has no member entries (its tables are zero and its
    // camera objects absent), whatever count it was created with.
    const int32_t positions = state == GROUP_CREATED ? 0 : camera_count;
    // The group close already closed every member once. A member whose close
    // failed there still reads as open, yet Linux has released its
    // descriptor, whose number may belong to someone else by now.
    if (state != GROUP_NONE)
        CloseOpenMembers(positions);
    Teardown(positions);
}

void IspVideoGroup::CloseOpenMembers(int32_t positions)
{
    // Destroying a camera object releases nothing by itself: its mappings,
    // exported descriptors and node go only with Close. A repeated member is
    // closed at its first position and found closed at the others.
    for (int32_t position = 0; position < positions; ++position) {
        IspVideo *camera = Member(position);
        if (camera->state != VIDEO_CLOSED)
            camera->Close();
    }
}

} // namespace zelisp
