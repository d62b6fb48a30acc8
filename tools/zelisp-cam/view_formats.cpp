// view_formats.cpp - setting the views' formats and checking what the driver kept.
#include "view_formats.h"

#include "camera_handle.h"
#include "formats.h"
#include "tool_errors.h"

namespace zcam {

int apply_view_formats(unsigned long handle, int camera, const std::vector<ViewFormatRequest> &requests)
{
    for (const ViewFormatRequest &request : requests) {
        CallResult set = call_library(
            [&] { return isp_set_view_format(handle, uint32_t(request.view), &request.format); });
        if (set.result != ISP_OK)
            return report_failure(camera_context(camera),
                                  "isp_set_view_format view " + std::to_string(request.view) + " to " +
                                      describe(request.format),
                                  set);
    }
    return kExitOk;
}

int check_view_formats(unsigned long handle, int camera, const std::vector<ViewFormatRequest> &requests,
                       std::vector<std::string> *mismatches)
{
    for (const ViewFormatRequest &request : requests) {
        zelvideo::_view_format_t held = {};
        CallResult get = call_library([&] { return isp_get_view_format(handle, uint32_t(request.view), &held); });
        if (get.result != ISP_OK)
            return report_failure(camera_context(camera), "isp_get_view_format view " + std::to_string(request.view),
                                  get);
        if (held.format != request.format.format || held.width != request.format.width ||
            held.height != request.format.height) {
            mismatches->push_back(camera_context(camera) + ": view " + std::to_string(request.view) + " is " +
                                  describe(held) + ", not the " + describe(request.format) + " asked for");
        }
    }
    return kExitOk;
}

} // namespace zcam
