/*
 * reliability.h - what the reliability tests share: reading the state of
 * the library's camera and group objects (a handle is the object's
 * address), silencing the library's device messages while thousands of
 * faulted runs print them, and the simulator set-up they all start from.
 */
#ifndef ZELISP_TESTS_RELIABILITY_H
#define ZELISP_TESTS_RELIABILITY_H

#include <string>

#include "camera/isp_video.h"
#include "group/isp_video_group.h"
#include "sim_fixture.h"
#include "zelisp.h"
#include "zelisp_sim/sim.h"

namespace zelisp_reliability {

inline const zelisp::IspVideo &Camera(unsigned long handle) { return *zelisp::VideoFromHandle(handle); }
inline const zelisp::IspVideoGroup &Group(unsigned long handle) { return *zelisp::GroupFromHandle(handle); }
inline int CameraState(unsigned long handle) { return int(Camera(handle).state); }
inline int GroupState(unsigned long handle) { return int(Group(handle).state); }
inline int MemberState(unsigned long group, int position) { return int(Group(group).Member(position)->state); }

using zelisp_test::Quiet;

// Simulator defaults with every video node of cameras 0..3 on scripted
// frames: frames come only when a test pushes them, so runs repeat exactly.
void ResetScripted();

// A frame the library accepts after `previous` (sequence up, 33 ms later).
zsim::ScriptedFrame NextFrame(uint32_t sequence);

// "VIDIOC_QBUF on /dev/video1 #3" for messages.
std::string Describe(const zsim::LogEntry &entry, int occurrence);

} // namespace zelisp_reliability

#endif
