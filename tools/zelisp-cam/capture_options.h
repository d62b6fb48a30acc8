/*
 * capture_options.h - what "zelisp-cam capture" was asked to do, and the
 * parsers for its compound options (--resize, --drop, --trigger).
 */
#ifndef ZELISP_CAM_CAPTURE_OPTIONS_H
#define ZELISP_CAM_CAPTURE_OPTIONS_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "decimation.h"
#include "zelisp.h"

namespace zcam {

// --drop T/D: drop D frames out of every T (isp_set_frame_drop_num).
using capture_syntax::DropRatio;
// Which sequence numbers the library's decimation hands back for a ratio.
using capture_syntax::DecimationRule;

// --trigger internal|external [P1 [P2 [P3]]]: the MIPI trigger mode.
struct TriggerSetting {
    bool external = false;
    uint32_t param1 = 0;
    uint32_t param2 = 0;
    uint32_t param3 = 0;
};

// --view-format VIEW=FOURCC:WxH: a format asked of the driver for one view
// before the stream is set up (isp_set_view_format).
struct ViewFormatRequest {
    int view = 0;
    zelvideo::_view_format_t format = {};
};

struct CaptureOptions {
    std::vector<int> cameras;
    std::vector<int> views{0, 1, 2};
    int mode = 1;
    int buffers = 4;
    int frames = 100;
    double seconds = 0; // > 0: capture for this long instead of --frames
    int timeout_ms = 2000;
    bool group = false;
    std::vector<ViewFormatRequest> view_formats;
    std::optional<zelvideo::_resize_param_t> resize;
    std::optional<DropRatio> drop;
    std::optional<TriggerSetting> trigger;
    std::string out_dir;        // empty: no files
    std::string format = "png"; // raw or png
    int every = 0;              // > 0: also write every Nth frame, not only the last
    bool json = false;

    // The view input combination of isp_init_video: bit k for view k.
    uint32_t combination() const;
    bool writes_files() const { return !out_dir.empty(); }
};

// X,Y,W,H[:SW,SH[:X,Y,W,H]]: the first crop, the scaled size, the second
// crop. Without a scaled size nothing is scaled; without a second crop it
// keeps the whole scaled (or cropped) image. Every number even.
bool parse_resize(const std::string &text, zelvideo::_resize_param_t *param, std::string *error);
// VIEW=FOURCC:WxH, one view each (0..2), a format the tool can convert and
// sizes of 1..ISP_VIEW_SIZE_MAX.
bool parse_view_format(const std::string &text, ViewFormatRequest *request, std::string *error);
// The whole --view-format list: each view at most once.
bool parse_view_formats(const std::vector<std::string> &texts, std::vector<ViewFormatRequest> *requests,
                        std::string *error);
// "X,Y WxH" style description of a resize: what was asked for, for reports.
std::string describe_resize(const zelvideo::_resize_param_t &param);
// T/D with 1 <= T <= 120 and 0 <= D < T, one frame in N dropped or kept.
bool parse_drop(const std::string &text, DropRatio *ratio, std::string *error);
// internal|external followed by up to three numbers, in the ranges the
// platform driver accepts (ISP_TRIGGER_PARAM1_MAX and the like).
bool parse_trigger(const std::vector<std::string> &words, TriggerSetting *trigger, std::string *error);


} // namespace zcam

#endif
