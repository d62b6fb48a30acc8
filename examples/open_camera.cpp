/*
 * open_camera - the smallest use of libzelisp: open camera 0, show the
 * descriptor of its video node, close it again.
 */
#include <cinttypes>
#include <cstdio>

#include "zelisp.h"

int main()
{
    printf("%s\n", isp_get_sdk_version());
    unsigned long camera = isp_open_video(0, 1);
    if (camera == 0) {
        fprintf(stderr, "camera 0 could not be opened\n");
        return 1;
    }
    int64_t descriptor = -1;
    int result = isp_camera_get_native_fd(camera, &descriptor);
    if (result == ISP_OK)
        printf("camera 0: native descriptor %" PRId64 "\n", descriptor);
    else
        fprintf(stderr, "camera 0: %s\n", isp_get_result_text(result));
    isp_close_video(camera);
    return result == ISP_OK ? 0 : 1;
}
