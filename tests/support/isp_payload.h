/*
 * isp_payload.h - the record an ISP control carries in VIDIOC_S_EXT_CTRLS:
 * 36 bytes, a 32-bit flag word first and the 16-bit words of the setting at
 * a byte offset that depends on the control. Shared by the simulator's tests
 * and its load benchmark, which set the same controls.
 */
#ifndef ZELISP_TESTS_SUPPORT_ISP_PAYLOAD_H
#define ZELISP_TESTS_SUPPORT_ISP_PAYLOAD_H

#include <linux/videodev2.h>

#include <cstdint>
#include <cstring>

namespace zelisp_test {

struct IspPayload {
    uint8_t bytes[36] = {};
    v4l2_ext_control control{};
    v4l2_ext_controls controls{};

    // count words go at byte offset at; the flag word leads the record.
    IspPayload(uint32_t id, uint32_t flag, const uint16_t *words, size_t count, size_t at)
    {
        std::memcpy(bytes, &flag, 4);
        std::memcpy(bytes + at, words, count * 2);
        control.id = id;
        control.size = sizeof bytes;
        control.ptr = bytes;
        controls.ctrl_class = V4L2_CTRL_CLASS_USER;
        controls.count = 1;
        controls.controls = &control;
    }
    IspPayload(const IspPayload &) = delete; // the request points into the object
    IspPayload &operator=(const IspPayload &) = delete;

    // The argument of VIDIOC_S_EXT_CTRLS.
    v4l2_ext_controls *request() { return &controls; }
};

} // namespace zelisp_test

#endif
