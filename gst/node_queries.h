/*
 * node_queries.h - what the elements ask a camera node through standard
 * V4L2 requests, beside the library: the colorimetry of the format in
 * force, the frame rate, the pixel formats and the frame sizes the ISP can
 * produce. The library has no call for these; the requests only read, on
 * the camera's own descriptor (isp_camera_get_native_fd), so they leave the
 * library's view of the camera as it was. A driver that does not answer
 * one leaves its facts unknown, and the caps fall back (formats.h).
 */
#ifndef GST_ZELISP_NODE_QUERIES_H
#define GST_ZELISP_NODE_QUERIES_H

#include <cstdint>
#include <vector>

namespace gstzelisp {

// The colorimetry fields of VIDIOC_G_FMT (enum v4l2_colorspace and
// friends); all 0 (default) when the driver does not say.
struct NodeColorimetry {
    uint32_t fourcc = 0; // the format they were reported with
    uint32_t colorspace = 0;
    uint32_t ycbcr_enc = 0;
    uint32_t quantization = 0;
    uint32_t xfer_func = 0;
};

// A stepwise range of frame sizes (VIDIOC_ENUM_FRAMESIZES).
struct FrameSizes {
    bool known = false;
    uint32_t min_width = 0, max_width = 0, step_width = 1;
    uint32_t min_height = 0, max_height = 0, step_height = 1;
};

struct NodeFacts {
    NodeColorimetry colorimetry;
    int fps_n = 0; // the sensor's rate (VIDIOC_G_PARM); 0/1 when unknown
    int fps_d = 1;
    std::vector<uint32_t> fourccs; // VIDIOC_ENUM_FMT, empty when unknown
    FrameSizes sizes;              // for the first listed format
};

// Reads every fact the driver gives on node descriptor `fd`.
NodeFacts query_node(int fd);

} // namespace gstzelisp

#endif
