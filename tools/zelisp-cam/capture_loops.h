/*
 * capture_loops.h - the two ways zelisp-cam drives cameras: each camera on
 * its own handle (one camera, or several with the multi-camera wait), or
 * all of them as one group read a frame set at a time. Both return an exit
 * status, having reported any failure.
 */
#ifndef ZELISP_CAM_CAPTURE_LOOPS_H
#define ZELISP_CAM_CAPTURE_LOOPS_H

#include "capture_run.h"

namespace zcam {

int run_stream_capture(CaptureRun &run);
int run_group_capture(CaptureRun &run);

} // namespace zcam

#endif
