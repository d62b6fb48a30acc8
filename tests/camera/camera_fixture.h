/*
 * camera_fixture.h - what the camera tests share: cameras opened, set up or
 * streaming on the simulated driver (closed at the end of each test), a look
 * inside the camera object, scripted frames and the driver's request log.
 */
#ifndef ZELISP_TESTS_CAMERA_FIXTURE_H
#define ZELISP_TESTS_CAMERA_FIXTURE_H

#include <linux/videodev2.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "camera/isp_video.h"
#include "sim_fixture.h"

namespace zelisp_test {

class CameraTest : public SimTest {
protected:
    void TearDown() override
    {
        for (unsigned long handle : handles_)
            isp_close_video(handle);
        SimTest::TearDown();
    }
    unsigned long Open(uint32_t camera = 0, int32_t mode = 1)
    {
        unsigned long handle = isp_open_video(camera, mode);
        EXPECT_NE(handle, 0u);
        if (handle != 0)
            handles_.push_back(handle);
        return handle;
    }
    unsigned long Inited(uint32_t combination = 7, int32_t buffers = 4, uint32_t camera = 0)
    {
        unsigned long handle = Open(camera);
        EXPECT_EQ(isp_init_video(handle, combination, buffers), ISP_OK);
        return handle;
    }
    // Streaming camera 0 on scripted frames.
    unsigned long Capturing(uint32_t combination = 7, int32_t buffers = 4)
    {
        zsim::set_frame_mode(0, zsim::FrameMode::Scripted);
        unsigned long handle = Inited(combination, buffers);
        EXPECT_EQ(isp_start_capture(handle), ISP_OK);
        return handle;
    }
    int Close(unsigned long handle)
    {
        handles_.erase(std::find(handles_.begin(), handles_.end(), handle));
        return isp_close_video(handle);
    }
    static zelisp::IspVideo &Video(unsigned long handle) { return *zelisp::VideoFromHandle(handle); }

    std::vector<unsigned long> handles_;
};

// Scripted frame on node 0: sequence and capture time in µs.
inline void Push(uint32_t sequence, uint64_t time_us)
{
    zsim::ScriptedFrame frame;
    frame.sequence = sequence;
    frame.timestamp_us = time_us;
    zsim::push_frame(0, frame);
}

// The records the program sent with `request`, as sent.
template <typename Record>
std::vector<Record> Sent(unsigned long request)
{
    std::vector<Record> records;
    for (const zsim::LogEntry &entry : zsim::requests(uint32_t(request))) {
        Record record{};
        std::memcpy(&record, entry.raw.data(), std::min(entry.raw.size(), sizeof(record)));
        records.push_back(record);
    }
    return records;
}

} // namespace zelisp_test

#endif
