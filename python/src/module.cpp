/*
 * module.cpp - the Python face of libzelisp: classes, properties and
 * exceptions over the lifetimes kept in core.cpp; the per-frame objects
 * (Frame, View) are plain CPython types in frame_types.cpp. The pure-Python parts
 * (exception classes, Camera.frames, View.to_bgr) live in the package's
 * __init__.py and _errors.py.
 */
#include "core.h"
#include "frame_types.h"

#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <cstring>
#include <optional>
#include <tuple>

namespace py = pybind11;
using namespace pybind11::literals;

namespace zelpy {
namespace {

/* ---- Python wrappers ---- */

struct PyCamera {
    std::shared_ptr<CameraCore> core;
    std::shared_ptr<GroupCore> group; /* a borrowed member keeps its group */
    int index = -1;
    int mode = 1;

    CameraCore &open_core(const char *call) const
    {
        if (!core->is_open())
            fail(ISP_ERR_STATE, call, "the camera is closed");
        return *core;
    }
    unsigned long handle(const char *call) const { return open_core(call).handle(); }
};

struct PyGroup {
    std::shared_ptr<GroupCore> core;
};

int timeout_value(const std::optional<int> &timeout_ms) { return timeout_ms ? *timeout_ms : -1; }

uint32_t view_mask(const py::iterable &views, const char *call)
{
    uint32_t mask = 0;
    for (py::handle item : views) {
        int view = item.cast<int>();
        if (view < 0 || view > 2)
            fail(ISP_ERR_INVALID, call, "views are 0, 1 and 2; got " + std::to_string(view));
        mask |= 1u << view;
    }
    return mask;
}

/* Picture controls that read and write one word: property name goes to the
 * library's isp_camera_get_<name> and isp_camera_set_<name>. */
template <typename T>
void bind_control(py::class_<PyCamera> &camera, const char *name, int (*get)(unsigned long, T *),
                  int (*set)(unsigned long, T), const char *doc)
{
    camera.def_property(
        name,
        [get, call = "isp_camera_get_" + std::string(name)](const PyCamera &self) {
            T value{};
            check(get(self.handle(call.c_str()), &value), call.c_str());
            return int64_t(value);
        },
        [set, call = "isp_camera_set_" + std::string(name)](const PyCamera &self, int64_t value) {
            if (value < 0 || uint64_t(value) > uint64_t(T(~T(0))))
                fail(ISP_ERR_INVALID, call.c_str(), "value " + std::to_string(value) + " does not fit the control");
            check(set(self.handle(call.c_str()), T(value)), call.c_str());
        },
        doc);
}

/* Camera.get_frame and get_expected_frame, the per-frame calls, as plain C
 * methods: the camera is found through its pybind11 type record, looked up
 * once at import rather than by C++ type name on every call. */
const py::detail::type_info *camera_record = nullptr;

PyObject *camera_take_frame(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames,
                            bool expected)
{
    int timeout_ms;
    if (!parse_timeout(expected ? "get_expected_frame" : "get_frame", args, nargs, kwnames, &timeout_ms))
        return nullptr;
    return guarded([&] {
        py::detail::type_caster_generic caster(camera_record);
        if (!caster.load(self, false) || caster.value == nullptr)
            throw py::type_error("a frame is taken from a zelisp.Camera");
        PyCamera &camera = *static_cast<PyCamera *>(caster.value);
        const char *call = expected ? "isp_get_expected_frame" : "isp_get_frame_buf";
        zelvideo::_isp_buf_t buf = camera.open_core(call).take_frame(timeout_ms, expected);
        return make_frame(std::make_shared<FrameCore>(camera.core, buf, camera.group)).release().ptr();
    });
}

PyObject *camera_get_frame(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames)
{
    return camera_take_frame(self, args, nargs, kwnames, false);
}

PyObject *camera_get_expected_frame(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames)
{
    return camera_take_frame(self, args, nargs, kwnames, true);
}

PyMethodDef camera_frame_methods[] = {
    {"get_frame", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(camera_get_frame)),
     METH_FASTCALL | METH_KEYWORDS,
     "get_frame($self, /, timeout_ms=1000)\n--\n\nWaits up to timeout_ms (None: no limit) for the next frame, "
     "with the GIL released. Raises Timeout when none comes."},
    {"get_expected_frame", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(camera_get_expected_frame)),
     METH_FASTCALL | METH_KEYWORDS,
     "get_expected_frame($self, /, timeout_ms=1000)\n--\n\nLike get_frame, keeping only the frames "
     "set_frame_drop lets through."},
};

} // namespace

void raise_call_error(const CallError &error)
{
    py::object errors = py::module_::import("zelisp._errors");
    py::object exception = errors.attr("error_for")(error.code, isp_get_result_text(error.code), error.call,
                                                    error.detail);
    PyErr_SetObject(reinterpret_cast<PyObject *>(Py_TYPE(exception.ptr())), exception.ptr());
}

} // namespace zelpy

using namespace zelpy;

PYBIND11_MODULE(_zelisp, m)
{
    m.doc() = "Compiled core of the zelisp package; import zelisp instead.";

    py::register_exception_translator([](std::exception_ptr pointer) {
        try {
            if (pointer)
                std::rethrow_exception(pointer);
        } catch (const CallError &error) {
            raise_call_error(error);
        }
    });

    m.def("version", [] { return std::string(isp_get_sdk_version()); },
          "The library's version string, such as 'zelisp:v1.3.0'.");

    py::class_<zelvideo::_camera_info_t>(m, "CameraInfo",
                                          "One record of the platform's valid-camera table.")
        .def_property_readonly("index", [](const zelvideo::_camera_info_t &info) { return info.camera_index; },
                               "The camera number (0..11), as in Camera(index).")
        .def_property_readonly(
            "record",
            [](const zelvideo::_camera_info_t &info) {
                return py::bytes(reinterpret_cast<const char *>(&info), sizeof info);
            },
            "The 40 bytes the driver wrote, unchanged.")
        .def("__repr__", [](const zelvideo::_camera_info_t &info) {
            return "CameraInfo(index=" + std::to_string(info.camera_index) + ")";
        });

    m.def(
        "cameras",
        [] {
            // The platform refuses to hand out more records than it has:
            // ask for the count first (a table holds at most 12).
            zelvideo::_camera_info_t infos[12]{};
            uint32_t count = 0;
            check(isp_get_valid_camera_info(infos, 0, &count), "isp_get_valid_camera_info");
            count = count < 12 ? count : 12;
            check(isp_get_valid_camera_info(infos, count, &count), "isp_get_valid_camera_info");
            return std::vector<zelvideo::_camera_info_t>(infos, infos + (count < 12 ? count : 12));
        },
        "The cameras the platform lists as valid, as CameraInfo records.");

    m.def(
        "set_i2c_ctrl",
        [](uint32_t camera, uint32_t owner) { check(isp_set_i2c_ctrl(camera, owner), "isp_set_i2c_ctrl"); },
        "camera"_a, "owner"_a,
        "Hands the sensor bus of camera (0..11) to the ISP (owner 0) or to the Arm cores (owner 1).");

    add_frame_types(m);

    /* ---- Camera ---- */
    py::class_<PyCamera> camera(m, "Camera", py::dynamic_attr(),
                                "One camera. Camera(index, mode=1) opens /dev/video<index> (mode 2: "
                                "/dev/video<index+12>, one plane). A context manager that closes on exit.");
    camera
        .def(py::init([](uint32_t index, int mode) {
                 return PyCamera{CameraCore::open(index, mode), nullptr, int(index), mode};
             }),
             "index"_a, "mode"_a = 1)
        .def_readonly("index", &PyCamera::index, "The camera number.")
        .def_readonly("mode", &PyCamera::mode, "The open mode, 1 or 2.")
        .def_property_readonly(
            "closed", [](const PyCamera &c) { return !c.core->is_open(); }, "True after close().")
        .def(
            "configure",
            [](PyCamera &c, const py::iterable &views, int buffers, const py::object &resize) {
                const uint32_t mask = view_mask(views, "isp_init_video");
                if (resize.is_none()) {
                    c.open_core("isp_init_video").configure(mask, buffers, nullptr);
                    return;
                }
                zelvideo::_resize_param_t param{};
                py::dict r = py::dict(resize);
                auto rect = [&](const char *key, zelvideo::_resize_crop_t &crop) {
                    if (r.contains(key)) {
                        auto t = r[key].cast<std::tuple<uint16_t, uint16_t, uint16_t, uint16_t>>();
                        crop = {std::get<0>(t), std::get<1>(t), std::get<2>(t), std::get<3>(t)};
                    }
                };
                rect("crop_before", param.cropBefore);
                rect("crop_after", param.cropAfter);
                if (r.contains("scale")) {
                    auto s = r["scale"].cast<std::tuple<uint16_t, uint16_t>>();
                    param.scale = {std::get<0>(s), std::get<1>(s)};
                }
                if (r.contains("sel"))
                    param.sel = r["sel"].cast<uint8_t>();
                c.open_core("isp_init_video").configure(mask, buffers, &param);
            },
            "views"_a = py::make_tuple(0), "buffers"_a = 4, "resize"_a = py::none(),
            "Sets up the stream: the views to deliver (any of 0, 1, 2), the number of buffers (3..8) and an "
            "optional resize dict with crop_before (x, y, w, h), scale (w, h), crop_after (x, y, w, h) and "
            "sel. Refused with BadState while frames are out.")
        .def(
            "start", [](PyCamera &c) { c.open_core("isp_start_capture").start(); },
            "Hands every buffer to the driver and starts streaming.")
        .def(
            "stop", [](PyCamera &c) { c.open_core("isp_stop_capture").stop(); },
            "Stops streaming. Frames still out stay readable; release them before start().")
        .def(
            "close", [](PyCamera &c) { c.core->close(); },
            "Closes the camera. Raises BadState, leaving it open, while frames or their arrays are out.")
        .def("__enter__", [](py::object self) { return self; })
        .def("__exit__",
             [](PyCamera &c, const py::object &type, const py::object &, const py::object &) {
                 if (c.group)
                     return false;
                 try {
                     c.core->close();
                 } catch (const CallError &) {
                     // Leaving the block on an exception: do not hide it. A
                     // camera with frames out closes itself when the last
                     // frame and array of it are gone.
                     if (type.is_none())
                         throw;
                 }
                 return false;
             })
        .def("fileno", [](const PyCamera &c) { return c.open_core("isp_camera_get_native_fd").fileno(); },
             "The video node's descriptor, readable while a filled buffer waits (for selectors/asyncio). "
             "The camera owns it.")
        .def_property_readonly(
            "view_formats",
            [](const PyCamera &c) {
                std::vector<std::tuple<std::string, uint32_t, uint32_t>> formats;
                for (const ViewFormat &f : c.open_core("isp_get_view_format").view_formats())
                    formats.emplace_back(fourcc_text(f.fourcc), f.width, f.height);
                return formats;
            },
            "(fourcc, width, height) of each configured view, read from the driver.")
        .def(
            "set_frame_drop",
            [](PyCamera &c, int32_t total, int32_t drop) {
                check(isp_set_frame_drop_num(c.handle("isp_set_frame_drop_num"), total, drop),
                      "isp_set_frame_drop_num");
            },
            "total"_a, "drop"_a, "Drops drop frames out of every total for get_expected_frame (drop 0: none).")
        .def(
            "set_mwb",
            [](PyCamera &c, uint32_t g1, uint32_t g2, uint32_t g3) {
                check(isp_camera_set_mwb(c.handle("isp_camera_set_mwb"), g1, g2, g3), "isp_camera_set_mwb");
            },
            "g1"_a, "g2"_a, "g3"_a, "Manual white balance gains.")
        .def(
            "set_mec",
            [](PyCamera &c, const std::vector<uint32_t> &params) {
                if (params.size() != 6)
                    fail(ISP_ERR_INVALID, "isp_camera_set_mec",
                         "manual exposure takes six numbers; got " + std::to_string(params.size()));
                zelvideo::_mec_param_t mec{};
                std::copy(params.begin(), params.end(), mec.param);
                check(isp_camera_set_mec(c.handle("isp_camera_set_mec"), &mec), "isp_camera_set_mec");
            },
            "params"_a, "Manual exposure: six numbers, each sent as its low 16 bits.")
        .def(
            "abnormal_info",
            [](PyCamera &c) {
                char info[14]{};
                check(isp_camera_get_abnormal_info(c.handle("isp_camera_get_abnormal_info"), info),
                      "isp_camera_get_abnormal_info");
                return py::bytes(info, sizeof info);
            },
            "The driver's 14 bytes of abnormal-state information.")
        .def_property(
            "denoise",
            [](const PyCamera &c) {
                uint32_t luma = 0, chroma = 0;
                check(isp_camera_get_denoise(c.handle("isp_camera_get_denoise"), &luma, &chroma),
                      "isp_camera_get_denoise");
                return std::make_tuple(luma, chroma);
            },
            [](const PyCamera &c, std::tuple<uint32_t, uint32_t> value) {
                check(isp_camera_set_denoise(c.handle("isp_camera_set_denoise"), std::get<0>(value),
                                             std::get<1>(value)),
                      "isp_camera_set_denoise");
            },
            "(luma, chroma) denoise strengths, read from and written to the driver each time.")
        .def("__repr__", [](const PyCamera &c) {
            return "Camera(" + std::to_string(c.index) + ", mode=" + std::to_string(c.mode) +
                   (c.core->is_open() ? ")" : ", closed)");
        });

    bind_control<uint32_t>(camera, "brightness", isp_camera_get_brightness, isp_camera_set_brightness,
                           "Brightness, 0..255.");
    bind_control<uint32_t>(camera, "contrast", isp_camera_get_contrast, isp_camera_set_contrast, "Contrast, 0..255.");
    bind_control<uint32_t>(camera, "saturation", isp_camera_get_saturation, isp_camera_set_saturation,
                           "Saturation, 0..255.");
    bind_control<uint32_t>(camera, "hue", isp_camera_get_hue, isp_camera_set_hue, "Hue, 0..255.");
    bind_control<uint32_t>(camera, "gamma", isp_camera_get_gamma, isp_camera_set_gamma,
                           "Gamma, a 32-bit word for the ISP firmware.");
    bind_control<uint32_t>(camera, "sharpness", isp_camera_get_sharpness, isp_camera_set_sharpness,
                           "Sharpness, 0..10.");
    bind_control<uint8_t>(camera, "awb", isp_camera_get_awb, isp_camera_set_awb,
                          "Automatic white balance, 1 on, 0 off.");
    bind_control<uint8_t>(camera, "aec", isp_camera_get_aec, isp_camera_set_aec,
                          "Exposure mode: 0 automatic, 1 manual, ...");

    camera_record = py::detail::get_type_info(typeid(PyCamera));
    for (PyMethodDef &method : camera_frame_methods) {
        PyObject *descriptor = PyDescr_NewMethod(reinterpret_cast<PyTypeObject *>(camera.ptr()), &method);
        if (descriptor == nullptr)
            throw py::error_already_set();
        camera.attr(method.ml_name) = py::reinterpret_steal<py::object>(descriptor);
    }

    m.def(
        "_wait",
        [](const py::list &cameras, std::optional<int> timeout_ms) {
            std::vector<std::shared_ptr<CameraCore>> cores;
            for (py::handle item : cameras) {
                const PyCamera &c = item.cast<const PyCamera &>();
                c.open_core("isp_camera_wait_for_data");
                cores.push_back(c.core);
            }
            py::list ready;
            for (size_t i : wait_any(cores, timeout_value(timeout_ms)))
                ready.append(cameras[i]);
            return ready;
        },
        "cameras"_a, "timeout_ms"_a = py::none(), "Backs zelisp.wait.");

    /* ---- Group ---- */
    py::class_<PyGroup>(m, "Group", py::dynamic_attr(),
                        "A synchronized group of up to 8 cameras: Group(cameras, name='group', group_type=0) "
                        "creates it; open(), configure(), start(), get_frame_set(), stop(), close(), "
                        "destroy().")
        .def(py::init([](const std::vector<int> &cameras, const std::string &name, uint32_t group_type) {
                 return PyGroup{GroupCore::create(cameras, name, group_type)};
             }),
             "cameras"_a, "name"_a = "group", "group_type"_a = 0)
        .def_property_readonly(
            "members", [](const PyGroup &g) { return g.core->members(); }, "The member camera numbers, in order.")
        .def(
            "open", [](PyGroup &g, int mode) { g.core->open(mode); }, "mode"_a = 1,
            "Opens every member (mode 1 or 2). Raises Error -9 naming the members that failed.")
        .def(
            "configure",
            [](PyGroup &g, const py::iterable &views, uint32_t buffers) {
                g.core->configure(view_mask(views, "isp_group_init_video"), buffers);
            },
            "views"_a = py::make_tuple(0), "buffers"_a = 4,
            "Sets up every member's stream: the views to deliver and the buffer count (3..8).")
        .def(
            "set_view_format",
            [](PyGroup &g, int view, const std::string &fourcc, uint32_t width, uint32_t height) {
                g.core->set_view_format(view, ViewFormat{fourcc_value(fourcc), width, height});
            },
            "view"_a, "fourcc"_a, "width"_a, "height"_a,
            "Sets one view's format on every member (before start), fourcc as four characters.")
        .def(
            "start", [](PyGroup &g) { g.core->start(); }, "Starts every member's stream.")
        .def(
            "stop", [](PyGroup &g) { g.core->stop(); }, "Stops every member's stream.")
        .def(
            "close", [](PyGroup &g) { g.core->close(); },
            "Closes every member. Raises BadState while frames of a member are out.")
        .def(
            "destroy", [](PyGroup &g) { g.core->destroy(); },
            "Frees the group (closing open members); its borrowed cameras are closed afterwards. Leaving "
            "a with block does this.")
        .def_property_readonly(
            "destroyed", [](const PyGroup &g) { return g.core->destroyed(); }, "True after destroy().")
        .def(
            "trigger_internal",
            [](PyGroup &g, uint32_t p1, uint32_t p2, uint32_t p3) { g.core->trigger(false, p1, p2, p3); },
            "p1"_a, "p2"_a, "p3"_a, "Puts the group's cameras on the ISP's internal trigger.")
        .def(
            "trigger_external",
            [](PyGroup &g, uint32_t p1, uint32_t p2, uint32_t p3) { g.core->trigger(true, p1, p2, p3); },
            "p1"_a, "p2"_a, "p3"_a, "Puts the group's cameras on an external trigger.")
        .def(
            "camera",
            [](PyGroup &g, int index) { return PyCamera{g.core->camera(index), g.core, index, 1}; },
            "index"_a,
            "The member camera number index, borrowed for its controls, fileno() and wait(); the group "
            "opens, sets up and closes it.")
        .def(
            "get_frame_set",
            [](PyGroup &g, std::optional<int> timeout_ms) {
                py::list frames;
                for (auto &frame : g.core->take_frame_set(timeout_value(timeout_ms)))
                    frames.append(make_frame(frame));
                return frames;
            },
            "timeout_ms"_a = 1000, "The frames of one set, as a list (the package wraps it in a FrameSet).");
}
