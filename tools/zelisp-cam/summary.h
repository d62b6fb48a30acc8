/*
 * summary.h - the text summary printed at the end of a capture: per camera
 * the frames, rate, refused and dropped frames, for a group the frame-set
 * skew, and the files written.
 */
#ifndef ZELISP_CAM_SUMMARY_H
#define ZELISP_CAM_SUMMARY_H

#include <cstdio>

#include "capture_run.h"

namespace zcam {

void print_summary(FILE *out, const CaptureRun &run);

} // namespace zcam

#endif
