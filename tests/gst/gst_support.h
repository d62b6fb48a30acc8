/*
 * gst_support.h - what the plugin's in-process tests stand on: GStreamer
 * started once with the elements registered from the code under test, a
 * fixture that starts the simulated driver clean, and readers of what the
 * elements push (frame numbers painted by the simulated sensor, the memory a
 * buffer really points at, messages and warnings).
 */
#ifndef ZELISP_TESTS_GST_SUPPORT_H
#define ZELISP_TESTS_GST_SUPPORT_H

#include <gst/check/gstharness.h>
#include <gst/gst.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "sim_fixture.h"

namespace zelisp_gst_test {

class GstTest : public zelisp_test::SimTest {
protected:
    void SetUp() override;
    void TearDown() override;
    // The GLib warnings logged since SetUp (property refusals and the like).
    std::vector<std::string> warnings() const;
    void clear_warnings();
};

// A harness around a new element from a pipeline description such as
// "zelispsrc camera=1 view=2", with a bus to read its messages.
GstHarness *source_harness(const std::string &description);
// A harness around `description` in PLAYING, camera node `node` scripted
// with `count` frames from `first_sequence` (see push_frames).
GstHarness *playing_harness(const std::string &description, int node, uint32_t first_sequence, int count);
// The next error message on the element's bus, waiting up to `wait`; ""
// when none.
std::string error_text(GstElement *element, GstClockTime wait = 0);
std::string error_text(GstHarness *harness);
// The texts of the warning messages on the element's bus so far.
std::vector<std::string> warning_texts(GstElement *element);

// Pushes scripted frames with painted sequence numbers, 40 ms apart (past
// the library's 12 ms rule), onto node `node`.
void push_frames(int node, uint32_t first_sequence, int count, uint64_t first_time_us = 1000000);

// The frame number painted into the luma plane at the start of a buffer
// (NV12, NV21, NV16, GRAY8: the first width*height bytes are luma).
std::optional<uint32_t> painted_number(GstBuffer *buffer, int width, int height);
// The same in a buffer of any format the elements deliver, laid out as
// `caps` and its video meta say (YUY2 luma every other byte, RGB's red).
std::optional<uint32_t> painted_number(GstBuffer *buffer, GstCaps *caps);
// Red, green and blue of the pixel at (x, y) of an RGB buffer.
std::vector<int> rgb_at(GstBuffer *buffer, GstCaps *caps, int x, int y);

// The name of the mapping an address lies in, from /proc/self/maps
// ("/memfd:zelisp-sim-plane (deleted)", "[heap]", "" for anonymous).
std::string mapping_of(const void *address);
// What a descriptor refers to (/proc/self/fd).
std::string descriptor_target(int fd);

// Whether `done` becomes true within a generous minute, for what the
// streaming thread does with no sign of its own (a frame dropped).
bool eventually(const std::function<bool()> &done);

// A field of a caps' first structure, as text.
std::string caps_field(GstCaps *caps, const char *field);
guint64 stats_field(GstElement *element, const char *field);

} // namespace zelisp_gst_test

#endif
