/*
 * zsim_module.cpp - the simulated driver's control API for the pytest suite
 * (module zsim). The Python process runs with the simulator preloaded; this
 * module links the same library, so it steers the driver the package talks to.
 */
#include <zelisp_sim/sim.h>

#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <stdexcept>
#include <tuple>

namespace py = pybind11;
using namespace pybind11::literals;

namespace {

uint32_t fourcc(const std::string &text)
{
    if (text.size() != 4)
        throw std::invalid_argument("fourcc is four characters");
    return zsim::fourcc(text[0], text[1], text[2], text[3]);
}

using View = std::tuple<std::string, uint32_t, uint32_t>;

} // namespace

PYBIND11_MODULE(zsim, m)
{
    m.doc() = "Steers the simulated ISP driver from the tests.";
    m.def("active", &zsim::active);
    m.def("reset", &zsim::reset);
    m.def(
        "set_camera",
        [](int camera, const std::vector<View> &views, uint32_t fps, uint32_t combination,
           uint32_t max_buffers) {
            zsim::CameraConfig config;
            config.fps = fps;
            config.supported_combination = combination;
            config.max_buffers = max_buffers;
            for (size_t i = 0; i < views.size() && i < 3; ++i)
                config.views[i] = {fourcc(std::get<0>(views[i])), std::get<1>(views[i]), std::get<2>(views[i])};
            zsim::set_camera(camera, config);
        },
        "camera"_a, "views"_a, "fps"_a = 30, "combination"_a = 7, "max_buffers"_a = 16);
    m.def("remove_camera", &zsim::remove_camera);
    m.def("set_open_errno", &zsim::set_open_errno);
    m.def("set_scripted", [](int node, bool scripted) {
        zsim::set_frame_mode(node, scripted ? zsim::FrameMode::Scripted : zsim::FrameMode::FreeRunning);
    });
    m.def(
        "push_frame",
        [](int node, uint32_t sequence, uint64_t timestamp_us, bool paint) {
            zsim::ScriptedFrame frame;
            frame.sequence = sequence;
            frame.timestamp_us = timestamp_us;
            frame.paint = paint;
            zsim::push_frame(node, frame);
        },
        "node"_a, "sequence"_a, "timestamp_us"_a, "paint"_a = true);
    m.def("pending_frames", &zsim::pending_frames);
    m.def("counters", [](int node) {
        zsim::Counters c = zsim::counters(node);
        return py::dict("produced"_a = c.produced, "delivered"_a = c.delivered, "dropped"_a = c.dropped);
    });
    m.def("control_value", [](int camera, uint32_t id) -> py::object {
        int32_t value = 0;
        if (!zsim::control_value(camera, id, &value))
            return py::none();
        return py::int_(value);
    });
    m.def("set_control_value", &zsim::set_control_value);
    m.def("manual_payload", [](int camera, uint32_t id) {
        std::vector<uint8_t> payload = zsim::manual_payload(camera, id);
        return py::bytes(reinterpret_cast<const char *>(payload.data()), payload.size());
    });
    m.def("set_abnormal_info", [](int camera, const std::string &info) {
        if (info.size() != 14)
            throw std::invalid_argument("abnormal info is 14 bytes");
        zsim::set_abnormal_info(camera, reinterpret_cast<const uint8_t *>(info.data()));
    });
    m.def("fail_request", &zsim::fail_request, "request"_a, "nth"_a, "err"_a, "path"_a = "", "count"_a = 1);
    m.def("clear_faults", &zsim::clear_faults);
    m.def("clear_log", &zsim::clear_log);
    m.def("requests", [](const std::string &name) {
        py::list entries;
        for (const zsim::LogEntry &entry : zsim::request_log())
            if (entry.name == name)
                entries.append(py::dict("path"_a = entry.path, "detail"_a = entry.detail,
                                        "raw"_a = py::bytes(reinterpret_cast<const char *>(entry.raw.data()),
                                                            entry.raw.size()),
                                        "error"_a = entry.error));
        return entries;
    });
    m.def("trigger_mode", [] {
        switch (zsim::trigger_mode()) {
        case zsim::TriggerMode::Internal:
            return "internal";
        case zsim::TriggerMode::External:
            return "external";
        default:
            return "none";
        }
    });
    m.def("live_descriptors", &zsim::live_descriptors);
    m.def("live_mappings", &zsim::live_mappings);
}
