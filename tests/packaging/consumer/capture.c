/*
 * capture.c - a C11 application built against the installed header and
 * library: lists the cameras, captures three frames of view 2 of camera 0
 * and reads back the frame number the simulated driver stamps into each
 * image. Prints lines that do not depend on timing, so a script can compare
 * them exactly; exits 1 on the first failure.
 */
#include <zelisp.h>

#include <stdio.h>
#include <string.h>

/* The stamp: two rows of 32 cells, most significant bit first, the lower row
 * the complement of the upper one. */
static int read_stamp(const uint8_t *luma, uint32_t width, uint32_t height, uint32_t *number)
{
    uint32_t cell = width / 48 < (height - 2) / 5 ? width / 48 : (height - 2) / 5;
    cell &= ~1u;
    *number = 0;
    for (uint32_t k = 0; k < 32; ++k) {
        uint32_t x = cell * (k + 1) + cell / 2;
        int upper = luma[(size_t)(cell + cell / 2) * width + x] >= 128;
        int lower = luma[(size_t)(2 * cell + cell / 2) * width + x] >= 128;
        if (upper == lower)
            return -1;
        *number = *number << 1 | (uint32_t)upper;
    }
    return 0;
}

static int fail(const char *call, int result)
{
    printf("%s: %d %s\n", call, result, isp_get_result_text(result));
    return 1;
}

int main(void)
{
    printf("%s\n", isp_get_sdk_version());

    uint32_t count = 0;
    struct _camera_info_t infos[12];
    int result = isp_get_valid_camera_count(&count);
    if (result != ISP_OK)
        return fail("isp_get_valid_camera_count", result);
    if (count == 0 || count > 12)
        return fail("isp_get_valid_camera_count", ISP_ERR_MISSING);
    if ((result = isp_get_valid_camera_info(infos, count, &count)) != ISP_OK)
        return fail("isp_get_valid_camera_info", result);
    printf("cameras: %u, first %d\n", count, infos[0].camera_index);

    unsigned long camera = isp_open_video(0, 1);
    if (camera == 0)
        return fail("isp_open_video", ISP_ERR_OPEN);
    if ((result = isp_init_video(camera, 0x4, 4)) != ISP_OK)
        return fail("isp_init_video", result);
    _view_format_t format;
    if ((result = isp_get_view_format(camera, 2, &format)) != ISP_OK)
        return fail("isp_get_view_format", result);
    char fourcc[5] = {0};
    memcpy(fourcc, &format.format, 4);
    printf("view 2: %s %ux%u\n", fourcc, format.width, format.height);

    if ((result = isp_start_capture(camera)) != ISP_OK)
        return fail("isp_start_capture", result);
    uint32_t previous = 0;
    for (int i = 0; i < 3; ++i) {
        _isp_buf_t frame;
        if ((result = isp_get_frame_buf(camera, &frame, 5000)) != ISP_OK)
            return fail("isp_get_frame_buf", result);
        const struct _isp_view_buf_t *view = &frame.views[2];
        uint32_t stamp = 0;
        if (read_stamp((const uint8_t *)view->addr, format.width, format.height, &stamp) != 0 ||
            stamp != view->sequence || (i > 0 && view->sequence <= previous)) {
            printf("frame %d: sequence %u, stamp %u\n", i, view->sequence, stamp);
            return 1;
        }
        previous = view->sequence;
        if ((result = isp_put_frame_buf(camera, &frame)) != ISP_OK)
            return fail("isp_put_frame_buf", result);
    }
    printf("3 frames, each stamped with its sequence number\n");
    if ((result = isp_stop_capture(camera)) != ISP_OK)
        return fail("isp_stop_capture", result);
    if ((result = isp_close_video(camera)) != ISP_OK)
        return fail("isp_close_video", result);
    printf("closed\n");
    return 0;
}
