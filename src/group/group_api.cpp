/*
 * group_api.cpp - the exported group functions: thin fronts that check
 * their pointer arguments and call one group operation.
 *
 * A group handle is the address of its IspVideoGroup. The group operations
 * take it as handed out by a creator and do not test it; only the two
 * functions that hand out or release what the group owns refuse handle 0.
 */
#include "camera/v4l2_records.h"
#include "group/isp_video_group.h"

using namespace zelisp;

namespace {

// Both creators hand the group out through *group only on success.
int HandOut(IspVideoGroup *created, unsigned long *group)
{
    *group = reinterpret_cast<unsigned long>(created);
    return ISP_OK;
}

} // namespace

namespace zelvideo {

ZELISP_API int isp_group_set_view_format(unsigned long group, int view, _view_format_t view_format)
{
    // The driver names the view in one byte: a view past it would be cut to
    // another view of every member, so it is refused before any is touched.
    if (!ViewFitsRequest(view))
        return ISP_ERR_INVALID;
    return GroupFromHandle(group)->SetViewFormat(view, view_format);
}

ZELISP_API int isp_group_get_view_format(unsigned long group, int view, _view_format_t *formats)
{
    if (formats == nullptr)
        return ISP_ERR_INVALID;
    return GroupFromHandle(group)->GetViewFormat(view, formats);
}

ZELISP_API int isp_group_get_sync_frame(unsigned long group, _isp_buf_t *frames, int frame_count, int timeout_ms)
{
    if (frames == nullptr)
        return ISP_ERR_INVALID;
    return GroupFromHandle(group)->GetSyncFrame(frames, frame_count, timeout_ms);
}

ZELISP_API int isp_group_put_frame(unsigned long group, _isp_buf_t *frames, int frame_count)
{
    if (frames == nullptr)
        return ISP_ERR_INVALID;
    return GroupFromHandle(group)->PutFrame(frames, frame_count);
}

} // namespace zelvideo

extern "C" {

ZELISP_API int isp_create_empty_video_group(unsigned long *group, uint32_t group_type, const char *name,
                                            int camera_count)
{
    if (group == nullptr)
        return ISP_ERR_INVALID;
    IspVideoGroup *created = nullptr;
    const int result = CreateEmptyGroup(group_type, name, camera_count, &created);
    return result == ISP_OK ? HandOut(created, group) : result;
}

ZELISP_API int isp_create_video_group(unsigned long *group, uint32_t group_type, const char *name,
                                      const int *camera_index_list, int camera_count)
{
    if (group == nullptr || (camera_index_list == nullptr && camera_count > 0))
        return ISP_ERR_INVALID;
    IspVideoGroup *created = nullptr;
    const int result = CreateMemberGroup(group_type, name, camera_index_list, camera_count, &created);
    return result == ISP_OK ? HandOut(created, group) : result;
}

ZELISP_API int isp_get_single_camera_handle(unsigned long group, int camera_index)
{
    return GroupFromHandle(group)->LookUpMember(camera_index);
}

ZELISP_API int isp_group_get_video_handle(unsigned long group, int camera_index)
{
    return GroupFromHandle(group)->LookUpMember(camera_index);
}

ZELISP_API int isp_group_get_video_info(unsigned long group, int camera_index, zelvideo::_camera_info_t *info)
{
    if (info == nullptr)
        return ISP_ERR_INVALID;
    return GroupFromHandle(group)->GetVideoInfo(camera_index, info);
}

ZELISP_API int isp_group_open_video(unsigned long group, int mode, int *open_results)
{
    if (open_results == nullptr)
        return ISP_ERR_INVALID;
    return GroupFromHandle(group)->OpenVideo(mode, open_results);
}

ZELISP_API int isp_group_init_video(unsigned long group, uint32_t combination, uint32_t buffer_num)
{
    return GroupFromHandle(group)->InitVideo(combination, buffer_num);
}

ZELISP_API int isp_group_start_captrue(unsigned long group) { return GroupFromHandle(group)->StartCaptrue(); }

ZELISP_API int isp_group_stop_captrue(unsigned long group) { return GroupFromHandle(group)->StopCapture(); }

ZELISP_API int isp_group_close_video(unsigned long group) { return GroupFromHandle(group)->CloseVideo(); }

ZELISP_API int isp_group_set_internal_trigger(unsigned long group, uint32_t trigger_param1, uint32_t trigger_param2,
                                              uint32_t internal_param3)
{
    return GroupFromHandle(group)->SetTrigger(InternalTriggerRecord(trigger_param1, trigger_param2, internal_param3));
}

ZELISP_API int isp_group_set_external_trigger(unsigned long group, uint32_t trigger_param1, uint32_t trigger_param2,
                                              uint32_t external_param3)
{
    return GroupFromHandle(group)->SetTrigger(ExternalTriggerRecord(trigger_param1, trigger_param2, external_param3));
}

ZELISP_API int isp_group_get_camera_handle(unsigned long group, int camera_index, unsigned long *handle)
{
    if (group == 0 || handle == nullptr)
        return ISP_ERR_INVALID;
    return GroupFromHandle(group)->GetCameraHandle(camera_index, handle);
}

ZELISP_API int isp_destroy_video_group(unsigned long group)
{
    if (group == 0)
        return ISP_ERR_INVALID;
    IspVideoGroup *doomed = GroupFromHandle(group);
    doomed->Destroy();
    delete doomed;
    return ISP_OK;
}

} /* extern "C" */
