/*
 * python_frames.cpp - helpers for the Python package's benchmark (module
 * zelisp_pybench): scripted frames for a simulated camera, and the plain C
 * get/put loop on a second camera set up the same way, so that a Python
 * script can time both side by side in one process.
 */
#include <zelisp.h>
#include <zelisp_sim/sim.h>

#include <pybind11/pybind11.h>

#include <chrono>
#include <map>
#include <stdexcept>
#include <string>

namespace py = pybind11;

namespace {

/* 30 fps timestamps and increasing numbers, per camera. */
struct Clock {
    uint32_t sequence = 0;
    uint64_t timestamp_us = 1000000;
};
std::map<int, Clock> clocks;

void push(int camera, int frames)
{
    Clock &clock = clocks[camera];
    for (int i = 0; i < frames; ++i) {
        zsim::ScriptedFrame frame;
        frame.sequence = ++clock.sequence;
        clock.timestamp_us += 33333;
        frame.timestamp_us = clock.timestamp_us;
        zsim::push_frame(camera, frame);
    }
    zsim::clear_log();
}

void setup(int camera, uint32_t width, uint32_t height)
{
    zsim::CameraConfig config;
    config.views[0] = {zsim::kNV12, width, height};
    zsim::set_camera(camera, config);
    zsim::set_frame_mode(camera, zsim::FrameMode::Scripted);
    clocks[camera] = Clock{};
}

void check(int result, const char *call)
{
    if (result != 0)
        throw std::runtime_error(std::string(call) + " failed: " + isp_get_result_text(result));
}

/* Nanoseconds per frame of isp_get_frame_buf + isp_put_frame_buf, frames
 * pushed in batches outside the timed part. timeout_ms 0 takes a waiting
 * frame without polling the node first, as the Python package does. */
double c_loop(int camera, int frames, int batch, int timeout_ms)
{
    unsigned long handle = isp_open_video(uint32_t(camera), 1);
    if (handle == 0)
        throw std::runtime_error("isp_open_video failed");
    check(isp_init_video(handle, 0x1, 4), "isp_init_video");
    check(isp_start_capture(handle), "isp_start_capture");
    std::chrono::nanoseconds spent{0};
    zelvideo::_isp_buf_t frame{};
    for (int done = 0; done < frames; done += batch) {
        push(camera, batch);
        auto start = std::chrono::steady_clock::now();
        for (int i = 0; i < batch; ++i) {
            check(isp_get_frame_buf(handle, &frame, timeout_ms), "isp_get_frame_buf");
            check(isp_put_frame_buf(handle, &frame), "isp_put_frame_buf");
        }
        spent += std::chrono::steady_clock::now() - start;
    }
    check(isp_stop_capture(handle), "isp_stop_capture");
    check(isp_close_video(handle), "isp_close_video");
    return double(spent.count()) / frames;
}

} // namespace

PYBIND11_MODULE(zelisp_pybench, m)
{
    m.def("active", &zsim::active);
    m.def("setup", &setup);
    m.def("push", &push);
    m.def("c_loop", &c_loop, py::arg("camera"), py::arg("frames"), py::arg("batch"), py::arg("timeout_ms") = 1000);
}
