/*
 * camera_wait.h - the multi-camera wait: one readiness wait over the video
 * nodes of up to eight cameras.
 */
#ifndef ZELISP_WAIT_CAMERA_WAIT_H
#define ZELISP_WAIT_CAMERA_WAIT_H

#include <sys/time.h>

namespace zelisp {

constexpr int kMaxWaitCameras = 8;

// Waits until a listed camera's node is readable. ready[i] becomes 1 for
// each camera that is; the result is the number of distinct ready nodes, or
// -15 (a camera without a node), -1, -13 (time up) or -16 (a signal).
int WaitForCameras(const unsigned long *handles, int *ready, int count, timeval *timeout);

} // namespace zelisp

#endif
