/*
 * json_summary.h - the capture summary as a JSON document, for scripts
 * (--json) and as summary.json next to the files of --out.
 */
#ifndef ZELISP_CAM_JSON_SUMMARY_H
#define ZELISP_CAM_JSON_SUMMARY_H

#include <nlohmann/json.hpp>

#include "capture_run.h"

namespace zcam {

nlohmann::json summary_json(const CaptureRun &run);

} // namespace zcam

#endif
