/*
 * module.cpp - the Python face of libzelisp: classes, properties and
 * exceptions over the lifetimes kept in core.cpp; the per-frame objects
 * (Frame, View) are plain CPython types in frame_types.cpp. The pure-Python
 * parts (exception classes, Camera.frames, Camera.controls, View.to_bgr,
 * FrameSet) live in the package's __init__.py and _errors.py.
 *
 * Camera and Group are pybind11 classes whose methods take their instance
 * as a plain handle and check it themselves (unwrap): an object made with
 * __new__ and never initialised, or passed to another class's method, is
 * refused with TypeError instead of being read as one.
 */
#include "arguments.h"
#include "controls.h"
#include "core.h"
#include "frame_types.h"
#include "library_lines.h"

#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <tuple>

namespace py = pybind11;
using namespace pybind11::literals;

namespace zelpy {
namespace {

/* ---- Python wrappers ---- */

struct PyCamera {
    std::shared_ptr<CameraCore> core;
    std::shared_ptr<GroupCore> group; /* a borrowed member keeps its group */
    int index;
    int mode;

    CameraCore &open_core(const char *call) const
    {
        if (!core->is_open())
            fail(ISP_ERR_STATE, call, "the camera is closed");
        return *core;
    }
    unsigned long handle(const char *call) const { return open_core(call).handle(); }
    /* The camera node's descriptor; -1 once closed. */
    int node() const { return core->is_open() ? core->fileno() : -1; }
};

struct PyGroup {
    std::shared_ptr<GroupCore> core;
    std::string name;
};

/* The wrapper inside self, or nullptr when self is not an initialised
 * instance of Wrapper's class. */
template <typename Wrapper>
Wrapper *wrapper_of(py::handle self)
{
    static const py::detail::type_info *record = py::detail::get_type_info(typeid(Wrapper));
    if (!PyObject_TypeCheck(self.ptr(), record->type))
        return nullptr;
    auto holder = reinterpret_cast<py::detail::instance *>(self.ptr())->get_value_and_holder(record);
    return holder.holder_constructed() ? holder.value_ptr<Wrapper>() : nullptr;
}

template <typename Wrapper>
Wrapper &unwrap(py::handle self, const char *type)
{
    Wrapper *wrapper = wrapper_of<Wrapper>(self);
    if (wrapper == nullptr)
        throw py::type_error(std::string("expected an initialised zelisp.") + type + ", got " +
                             (PyObject_TypeCheck(self.ptr(), py::detail::get_type_info(typeid(Wrapper))->type)
                                  ? std::string("one made without calling __init__")
                                  : std::string(Py_TYPE(self.ptr())->tp_name)));
    return *wrapper;
}

PyCamera &camera_of(py::handle self) { return unwrap<PyCamera>(self, "Camera"); }
PyGroup &group_of(py::handle self) { return unwrap<PyGroup>(self, "Group"); }

/* ---- Camera arguments ---- */

zelvideo::_resize_crop_t crop(py::handle value, const char *name)
{
    std::vector<py::object> numbers = items(value, {"Camera.configure", name}, 4);
    zelvideo::_resize_crop_t result{};
    uint16_t *fields[] = {&result.x, &result.y, &result.width, &result.height};
    for (size_t i = 0; i < 4; ++i)
        *fields[i] = uint16_t(integer(numbers[i], {"Camera.configure", name}, 0, UINT16_MAX));
    return result;
}

zelvideo::_resize_param_t resize_record(py::handle resize)
{
    if (!PyDict_Check(resize.ptr()))
        throw py::type_error(std::string("Camera.configure(): resize must be a dict or None, not ") +
                             Py_TYPE(resize.ptr())->tp_name);
    zelvideo::_resize_param_t param{};
    for (auto entry : py::reinterpret_borrow<py::dict>(resize)) {
        const std::string key = py::str(entry.first);
        if (key == "crop_before") {
            param.cropBefore = crop(entry.second, "resize['crop_before']");
        } else if (key == "crop_after") {
            param.cropAfter = crop(entry.second, "resize['crop_after']");
        } else if (key == "scale") {
            std::vector<py::object> size = items(entry.second, {"Camera.configure", "resize['scale']"}, 2);
            param.scale.width = uint16_t(integer(size[0], {"Camera.configure", "resize['scale']"}, 0, UINT16_MAX));
            param.scale.height = uint16_t(integer(size[1], {"Camera.configure", "resize['scale']"}, 0, UINT16_MAX));
        } else if (key == "sel") {
            param.sel = unsigned_byte(entry.second, {"Camera.configure", "resize['sel']"});
        } else {
            fail(ISP_ERR_INVALID, "Camera.configure",
                 "resize has no key " + py::repr(entry.first).cast<std::string>() +
                     "; its keys are crop_before, scale, crop_after and sel");
        }
    }
    return param;
}

/* ---- the blocking frame calls, as plain C methods ----
 * They run on every frame, and while they wait the stack holds no Python
 * reference and no noexcept frame (interpreter_lock.h). */

PyObject *camera_take_frame(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames,
                            bool expected)
{
    const char *method = expected ? "Camera.get_expected_frame" : "Camera.get_frame";
    PyObject *timeout = nullptr;
    if (!timeout_argument(method, args, nargs, kwnames, &timeout))
        return nullptr;
    return guarded([&] {
        PyCamera &camera = camera_of(self);
        const int timeout_ms = timeout ? zelpy::timeout_ms(timeout, {method, "timeout_ms"}) : 1000;
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
     "with the GIL released. Raises Timeout when none comes, Cancelled when another thread stops or closes "
     "the camera meanwhile. Frames the library refuses are skipped and counted in refused."},
    {"get_expected_frame", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(camera_get_expected_frame)),
     METH_FASTCALL | METH_KEYWORDS,
     "get_expected_frame($self, /, timeout_ms=1000)\n--\n\nLike get_frame, keeping only the frames "
     "set_frame_drop lets through."},
};

/* ---- class definitions ---- */

void add_camera_controls(py::class_<PyCamera> &camera)
{
    for (const NumberControl &control : kNumberControls) {
        camera.def_property(
            control.name,
            [&control](py::handle self) { return read_control(camera_of(self).core->handle(), control); },
            [&control](py::handle self, py::handle value) {
                PyCamera &c = camera_of(self);
                const std::string property = std::string("Camera.") + control.name;
                const auto [minimum, maximum] = writable_range(c.node(), control.id, control_maximum(control));
                write_control(c.core->handle(), control, integer(value, {property.c_str(), nullptr}, minimum, maximum));
            },
            control.doc);
    }
    camera.def_property(
        "denoise",
        [](py::handle self) {
            uint32_t luma = 0, chroma = 0;
            check(isp_camera_get_denoise(camera_of(self).handle("isp_camera_get_denoise"), &luma, &chroma),
                  "isp_camera_get_denoise");
            return std::make_tuple(luma, chroma);
        },
        [](py::handle self, py::handle value) {
            PyCamera &c = camera_of(self);
            std::vector<py::object> pair = items(value, {"Camera.denoise", nullptr}, 2);
            const auto [luma_minimum, luma_maximum] = writable_range(c.node(), kLumaDenoiseId, UINT32_MAX);
            const auto [chroma_minimum, chroma_maximum] = writable_range(c.node(), kChromaDenoiseId, UINT32_MAX);
            const auto luma = uint32_t(integer(pair[0], {"Camera.denoise", nullptr}, luma_minimum, luma_maximum));
            const auto chroma =
                uint32_t(integer(pair[1], {"Camera.denoise", nullptr}, chroma_minimum, chroma_maximum));
            check(isp_camera_set_denoise(c.handle("isp_camera_set_denoise"), luma, chroma), "isp_camera_set_denoise");
        },
        "(luma, chroma) denoise strengths, read from and written to the driver each time.");
    camera.def(
        "_controls",
        [](py::handle self) {
            PyCamera &c = camera_of(self);
            const int node = c.open_core("isp_camera_get_native_fd").fileno();
            py::dict controls;
            for (const NumberControl &control : kNumberControls) {
                if (auto range = driver_range(node, control.id))
                    controls[control.name] = py::make_tuple(range->minimum, range->maximum, range->default_value,
                                                            read_control(c.core->handle(), control));
            }
            auto luma = driver_range(node, kLumaDenoiseId);
            auto chroma = driver_range(node, kChromaDenoiseId);
            if (luma && chroma) {
                uint32_t luma_now = 0, chroma_now = 0;
                check(isp_camera_get_denoise(c.core->handle(), &luma_now, &chroma_now), "isp_camera_get_denoise");
                controls["denoise"] = py::make_tuple(py::make_tuple(luma->minimum, chroma->minimum),
                                                     py::make_tuple(luma->maximum, chroma->maximum),
                                                     py::make_tuple(luma->default_value, chroma->default_value),
                                                     py::make_tuple(luma_now, chroma_now));
            }
            return controls;
        },
        "Backs Camera.controls: name -> (minimum, maximum, default, current).");
}

void add_camera(py::module_ &m)
{
    py::class_<PyCamera> camera(m, "Camera", py::dynamic_attr(),
                                "One camera. Camera(index, mode=1) opens /dev/video<index> (mode 2: "
                                "/dev/video<index+12>, one plane). A context manager that closes on exit.");
    camera
        .def(py::init([](py::handle index, py::handle mode) {
                 const auto number = uint32_t(integer(index, {"Camera", "index"}, 0, 11));
                 const int open_mode = zelpy::open_mode(mode, {"Camera", "mode"});
                 return PyCamera{CameraCore::open(number, open_mode), nullptr, int(number), open_mode};
             }),
             "index"_a, "mode"_a = 1)
        .def_property_readonly(
            "index", [](py::handle self) { return camera_of(self).index; }, "The camera number.")
        .def_property_readonly(
            "mode", [](py::handle self) { return camera_of(self).mode; }, "The open mode, 1 or 2.")
        .def_property_readonly(
            "closed", [](py::handle self) { return !camera_of(self).core->is_open(); }, "True after close().")
        .def_property_readonly(
            "refused", [](py::handle self) { return camera_of(self).core->refused(); },
            "Frames the library refused (their number or time did not follow the last frame) and get_frame "
            "skipped.")
        .def(
            "configure",
            [](py::handle self, py::handle views, py::handle buffers, py::handle resize) {
                PyCamera &c = camera_of(self);
                const uint32_t mask = view_mask(views, {"Camera.configure", "views"});
                const auto count = int(integer(buffers, {"Camera.configure", "buffers"}, INT32_MIN, INT32_MAX));
                if (resize.is_none()) {
                    c.open_core("isp_init_video").configure(mask, count, nullptr);
                    return;
                }
                const zelvideo::_resize_param_t param = resize_record(resize);
                c.open_core("isp_init_video").configure(mask, count, &param);
            },
            "views"_a = py::make_tuple(0), "buffers"_a = 4, "resize"_a = py::none(),
            "Sets up the stream: the views to deliver (any of 0, 1, 2), the number of buffers (3..8) and an "
            "optional resize dict with crop_before (x, y, w, h), scale (w, h), crop_after (x, y, w, h) and "
            "sel. Refused with BadState while frames are out.")
        .def(
            "start", [](py::handle self) { camera_of(self).open_core("isp_start_capture").start(); },
            "Hands every buffer to the driver and starts streaming.")
        .def(
            "stop", [](py::handle self) { camera_of(self).open_core("isp_stop_capture").stop(); },
            "Stops streaming. Threads waiting for a frame of this camera raise Cancelled first. Frames still "
            "out stay readable; release them before start().")
        .def(
            "close", [](py::handle self) { camera_of(self).core->close(); },
            "Closes the camera, after threads waiting for its frames raised Cancelled. Raises BadState, "
            "leaving it open, while frames or their arrays are out.")
        .def("__enter__", [](py::handle self) { return py::reinterpret_borrow<py::object>(self); })
        .def(
            "__exit__",
            [](py::handle self, py::handle type, py::handle, py::handle) {
                PyCamera &c = camera_of(self);
                if (c.group)
                    return;
                try {
                    c.core->close();
                } catch (const CallError &) {
                    // Leaving the block on an exception: do not hide it. A
                    // camera with frames out closes itself when the last
                    // frame and array of it are gone.
                    if (type.is_none())
                        throw;
                }
            },
            "exc_type"_a, "exc"_a, "traceback"_a)
        .def(
            "fileno", [](py::handle self) { return camera_of(self).open_core("isp_camera_get_native_fd").fileno(); },
            "The video node's descriptor, readable while a filled buffer waits (for selectors/asyncio). "
            "The camera owns it.")
        .def_property_readonly(
            "view_formats",
            [](py::handle self) {
                std::vector<std::tuple<std::string, uint32_t, uint32_t>> formats;
                for (const ViewFormat &f : camera_of(self).open_core("isp_get_view_format").view_formats())
                    formats.emplace_back(fourcc_text(f.fourcc), f.width, f.height);
                return formats;
            },
            "(fourcc, width, height) of each configured view, read from the driver.")
        .def(
            "set_frame_drop",
            [](py::handle self, py::handle total, py::handle drop) {
                PyCamera &c = camera_of(self);
                const auto cycle = int32_t(integer(total, {"Camera.set_frame_drop", "total"}, INT32_MIN, INT32_MAX));
                const auto dropped = int32_t(integer(drop, {"Camera.set_frame_drop", "drop"}, INT32_MIN, INT32_MAX));
                check(isp_set_frame_drop_num(c.handle("isp_set_frame_drop_num"), cycle, dropped),
                      "isp_set_frame_drop_num");
            },
            "total"_a, "drop"_a, "Drops drop frames out of every total for get_expected_frame (drop 0: none).")
        .def(
            "set_mwb",
            [](py::handle self, py::handle g1, py::handle g2, py::handle g3) {
                PyCamera &c = camera_of(self);
                const uint32_t gains[] = {unsigned_word(g1, {"Camera.set_mwb", "g1"}),
                                          unsigned_word(g2, {"Camera.set_mwb", "g2"}),
                                          unsigned_word(g3, {"Camera.set_mwb", "g3"})};
                check(isp_camera_set_mwb(c.handle("isp_camera_set_mwb"), gains[0], gains[1], gains[2]),
                      "isp_camera_set_mwb");
            },
            "g1"_a, "g2"_a, "g3"_a, "Manual white balance gains.")
        .def(
            "set_mec",
            [](py::handle self, py::handle params) {
                PyCamera &c = camera_of(self);
                std::vector<py::object> numbers = items(params, {"Camera.set_mec", "params"}, 6);
                zelvideo::_mec_param_t mec{};
                for (size_t i = 0; i < 6; ++i)
                    mec.param[i] = unsigned_word(numbers[i], {"Camera.set_mec", "params"});
                check(isp_camera_set_mec(c.handle("isp_camera_set_mec"), &mec), "isp_camera_set_mec");
            },
            "params"_a, "Manual exposure: six numbers, each sent as its low 16 bits.")
        .def(
            "abnormal_info",
            [](py::handle self) {
                char info[14]{};
                check(isp_camera_get_abnormal_info(camera_of(self).handle("isp_camera_get_abnormal_info"), info),
                      "isp_camera_get_abnormal_info");
                return py::bytes(info, sizeof info);
            },
            "The driver's 14 bytes of abnormal-state information.")
        .def("__repr__", [](py::handle self) {
            const PyCamera *c = wrapper_of<PyCamera>(self);
            if (c == nullptr)
                return std::string("Camera(not initialised)");
            return "Camera(" + std::to_string(c->index) + ", mode=" + std::to_string(c->mode) +
                   (c->core->is_open() ? ")" : ", closed)");
        });
    add_camera_controls(camera);

    for (PyMethodDef &method : camera_frame_methods) {
        PyObject *descriptor = PyDescr_NewMethod(reinterpret_cast<PyTypeObject *>(camera.ptr()), &method);
        if (descriptor == nullptr)
            throw py::error_already_set();
        camera.attr(method.ml_name) = py::reinterpret_steal<py::object>(descriptor);
    }
}

void add_group(py::module_ &m)
{
    py::class_<PyGroup>(m, "Group", py::dynamic_attr(),
                        "A synchronized group of up to 8 cameras: Group(cameras, name='group', group_type=0) "
                        "creates it; open(), configure(), start(), get_frame_set(), stop(), close(), "
                        "destroy().")
        .def(py::init([](py::handle cameras, py::handle name, py::handle group_type) {
                 std::vector<int> members;
                 for (const py::object &camera : items(cameras, {"Group", "cameras"}))
                     members.push_back(int(integer(camera, {"Group", "cameras"}, INT32_MIN, INT32_MAX)));
                 std::string label = text(name, {"Group", "name"});
                 const uint32_t type = unsigned_word(group_type, {"Group", "group_type"});
                 return PyGroup{GroupCore::create(members, label, type), label};
             }),
             "cameras"_a, "name"_a = "group", "group_type"_a = 0)
        .def_property_readonly(
            "members", [](py::handle self) { return group_of(self).core->members(); },
            "The member camera numbers, in order.")
        .def(
            "open",
            [](py::handle self, py::handle mode) {
                PyGroup &g = group_of(self);
                g.core->open(open_mode(mode, {"Group.open", "mode"}));
            },
            "mode"_a = 1, "Opens every member (mode 1 or 2). Raises Error -9 naming the members that failed.")
        .def(
            "configure",
            [](py::handle self, py::handle views, py::handle buffers) {
                PyGroup &g = group_of(self);
                const uint32_t mask = view_mask(views, {"Group.configure", "views"});
                g.core->configure(mask, unsigned_word(buffers, {"Group.configure", "buffers"}));
            },
            "views"_a = py::make_tuple(0), "buffers"_a = 4,
            "Sets up every member's stream: the views to deliver and the buffer count (3..8).")
        .def(
            "set_view_format",
            [](py::handle self, py::handle view, py::handle fourcc, py::handle width, py::handle height) {
                PyGroup &g = group_of(self);
                const char *call = "Group.set_view_format";
                const auto number = int(integer(view, {call, "view"}, INT32_MIN, INT32_MAX));
                const ViewFormat format{fourcc_value(text(fourcc, {call, "fourcc"})),
                                        unsigned_word(width, {call, "width"}), unsigned_word(height, {call, "height"})};
                g.core->set_view_format(number, format);
            },
            "view"_a, "fourcc"_a, "width"_a, "height"_a,
            "Sets one view's format on every member (before start), fourcc as four characters.")
        .def(
            "start", [](py::handle self) { group_of(self).core->start(); }, "Starts every member's stream.")
        .def(
            "stop", [](py::handle self) { group_of(self).core->stop(); },
            "Stops every member's stream, after threads waiting on the group or a member raised Cancelled.")
        .def(
            "close", [](py::handle self) { group_of(self).core->close(); },
            "Closes every member, after threads waiting on the group or a member raised Cancelled. Raises "
            "BadState while frames of a member are out.")
        .def(
            "destroy", [](py::handle self) { group_of(self).core->destroy(); },
            "Frees the group (closing open members), after threads waiting on the group or a member raised "
            "Cancelled; its borrowed cameras are closed afterwards. Leaving a with block does this.")
        .def_property_readonly(
            "destroyed", [](py::handle self) { return group_of(self).core->destroyed(); }, "True after destroy().")
        .def(
            "trigger_internal",
            [](py::handle self, py::handle p1, py::handle p2, py::handle p3) {
                PyGroup &g = group_of(self);
                const char *call = "Group.trigger_internal";
                g.core->trigger(false, unsigned_word(p1, {call, "p1"}), unsigned_word(p2, {call, "p2"}),
                                unsigned_word(p3, {call, "p3"}));
            },
            "p1"_a, "p2"_a, "p3"_a, "Puts the group's cameras on the ISP's internal trigger.")
        .def(
            "trigger_external",
            [](py::handle self, py::handle p1, py::handle p2, py::handle p3) {
                PyGroup &g = group_of(self);
                const char *call = "Group.trigger_external";
                g.core->trigger(true, unsigned_word(p1, {call, "p1"}), unsigned_word(p2, {call, "p2"}),
                                unsigned_word(p3, {call, "p3"}));
            },
            "p1"_a, "p2"_a, "p3"_a, "Puts the group's cameras on an external trigger.")
        .def(
            "camera",
            [](py::handle self, py::handle index) {
                PyGroup &g = group_of(self);
                const auto number = int(integer(index, {"Group.camera", "index"}, INT32_MIN, INT32_MAX));
                return PyCamera{g.core->camera(number), g.core, number, 1};
            },
            "index"_a,
            "The member camera number index, borrowed for its controls, fileno() and wait(); the group "
            "opens, sets up and closes it.")
        .def(
            "_get_frame_set",
            [](py::handle self, py::handle timeout) {
                PyGroup &g = group_of(self);
                const int timeout_ms = zelpy::timeout_ms(timeout, {"Group.get_frame_set", "timeout_ms"});
                std::vector<std::shared_ptr<FrameCore>> set = g.core->take_frame_set(timeout_ms);
                py::list frames;
                for (auto &frame : set)
                    frames.append(make_frame(frame));
                return frames;
            },
            "timeout_ms"_a, "Backs Group.get_frame_set: the frames of one set, as a list.")
        .def("__repr__", [](py::handle self) {
            const PyGroup *g = wrapper_of<PyGroup>(self);
            if (g == nullptr)
                return std::string("Group(not initialised)");
            std::string members;
            for (int member : g->core->members())
                members += (members.empty() ? "" : ", ") + std::to_string(member);
            return "Group([" + members + "], name=" + py::repr(py::str(g->name)).cast<std::string>() +
                   (g->core->destroyed() ? ", destroyed)" : ")");
        });
}

void add_functions(py::module_ &m)
{
    m.def("version", [] { return std::string(isp_get_sdk_version()); },
          "The library's version string, such as 'zelisp:v1.3.0'.");
    m.def(
        "_camera_records",
        [] {
            // The platform refuses to hand out more records than it has:
            // ask for the count first (a table holds at most 12).
            zelvideo::_camera_info_t infos[12]{};
            uint32_t count = 0;
            check(isp_get_valid_camera_info(infos, 0, &count), "isp_get_valid_camera_info");
            count = count < 12 ? count : 12;
            check(isp_get_valid_camera_info(infos, count, &count), "isp_get_valid_camera_info");
            py::list records;
            for (uint32_t i = 0; i < count && i < 12; ++i)
                records.append(py::bytes(reinterpret_cast<const char *>(&infos[i]), sizeof infos[i]));
            return records;
        },
        "Backs zelisp.cameras: the 40-byte records of the platform's valid-camera table.");
    m.def(
        "set_i2c_ctrl",
        [](py::handle camera, py::handle owner) {
            check(isp_set_i2c_ctrl(unsigned_word(camera, {"set_i2c_ctrl", "camera"}),
                                   unsigned_word(owner, {"set_i2c_ctrl", "owner"})),
                  "isp_set_i2c_ctrl");
        },
        "camera"_a, "owner"_a,
        "Hands the sensor bus of camera (0..11) to the ISP (owner 0) or to the Arm cores (owner 1).");
    m.def(
        "_wait",
        [](py::handle cameras, py::handle timeout) {
            // cameras: the list zelisp.wait made, which outlives this call.
            const int timeout_ms = zelpy::timeout_ms(timeout, {"wait", "timeout_ms"});
            std::vector<std::shared_ptr<CameraCore>> cores;
            for (py::handle item : cameras) {
                PyCamera *camera = wrapper_of<PyCamera>(item);
                if (camera == nullptr)
                    throw py::type_error(std::string("wait(): cameras must hold initialised zelisp.Camera "
                                                     "objects, not ") +
                                         Py_TYPE(item.ptr())->tp_name);
                camera->open_core("isp_camera_wait_for_data");
                cores.push_back(camera->core);
            }
            if (cores.empty())
                fail(ISP_ERR_INVALID, "wait", "cameras is empty: there is nothing to wait for");
            py::list ready;
            for (size_t i : wait_any(cores, timeout_ms))
                ready.append(py::reinterpret_borrow<py::list>(cameras)[i]);
            return ready;
        },
        "cameras"_a, "timeout_ms"_a, "Backs zelisp.wait.");
}

} // namespace

void raise_call_error(const CallError &error)
{
    py::object errors = py::module_::import("zelisp._errors");
    py::object exception = errors.attr("error_for")(error.code, isp_get_result_text(error.code), error.call,
                                                    error.detail, error.cancelled);
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

    route_library_lines(py::module_::import("logging").attr("getLogger")("zelisp"));
    add_functions(m);
    add_frame_types(m);
    add_camera(m);
    add_group(m);
}
