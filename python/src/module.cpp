/*
 * module.cpp - the Python face of libzelisp: classes, properties and
 * exceptions over the lifetimes kept in core.cpp. The pure-Python parts
 * (exception classes, Camera.frames, View.to_bgr) live in the package's
 * __init__.py and _errors.py.
 */
#include "core.h"

#include <pybind11/numpy.h>
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

struct PyFrame {
    std::shared_ptr<FrameCore> core;
    py::object views; /* dict, made on first use */
};

struct PyGroup {
    std::shared_ptr<GroupCore> core;
};

struct PyView {
    std::shared_ptr<FrameCore> frame;
    int view;
};

/* Keeps a frame's buffer out of the driver's hands while a numpy array of
 * it lives; the array's base object owns one. */
struct ArrayLease {
    explicit ArrayLease(std::shared_ptr<FrameCore> frame) : frame(std::move(frame)) { this->frame->array_made(); }
    ~ArrayLease() { frame->array_gone(); }
    ArrayLease(const ArrayLease &) = delete;
    ArrayLease &operator=(const ArrayLease &) = delete;
    std::shared_ptr<FrameCore> frame;
};

void require_unreleased(const FrameCore &frame, const char *what)
{
    if (frame.released())
        fail(ISP_ERR_STATE, what, "the frame was released; take the arrays before releasing it");
}

/* The shape numpy sees for one plane of a view. */
std::vector<py::ssize_t> plane_shape(const ViewFormat &format, size_t length, const char *call)
{
    const std::string fourcc = fourcc_text(format.fourcc);
    const py::ssize_t w = format.width;
    const py::ssize_t h = format.height;
    std::vector<py::ssize_t> shape;
    if (fourcc == "NV12" || fourcc == "NV21")
        shape = {h * 3 / 2, w};
    else if (fourcc == "YUYV")
        shape = {h, w, 2};
    else if (fourcc == "GREY")
        shape = {h, w};
    else if (fourcc == "RGB3")
        shape = {h, w, 3};
    else
        return {py::ssize_t(length)};
    py::ssize_t bytes = 1;
    for (py::ssize_t n : shape)
        bytes *= n;
    if (size_t(bytes) > length)
        fail(ISP_ERR_MISSING, call,
             "the plane holds " + std::to_string(length) + " bytes, a " + std::to_string(w) + "x" +
                 std::to_string(h) + " " + fourcc + " image needs " + std::to_string(bytes));
    return shape;
}

py::array view_array(const PyView &view)
{
    const FrameCore &frame = *view.frame;
    require_unreleased(frame, "View.array");
    const zelvideo::_isp_view_buf_t &plane = frame.record().views[view.view];
    std::vector<py::ssize_t> shape = plane_shape(frame.format(view.view), plane.length, "View.array");
    py::capsule lease(new ArrayLease(view.frame), [](void *lease) { delete static_cast<ArrayLease *>(lease); });
    return py::array(py::dtype::of<uint8_t>(), shape, std::vector<py::ssize_t>{}, plane.addr, lease);
}

py::dict frame_views(PyFrame &frame)
{
    require_unreleased(*frame.core, "Frame.views");
    if (!frame.views) {
        py::dict views;
        for (int view = 0; view < 3; ++view)
            if (frame.core->view_mask() & (1u << view))
                views[py::int_(view)] = PyView{frame.core, view};
        frame.views = views;
    }
    return frame.views.cast<py::dict>();
}

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

/* Picture controls that read and write one word. */
template <typename T>
void bind_control(py::class_<PyCamera> &camera, const char *name, int (*get)(unsigned long, T *),
                  int (*set)(unsigned long, T), const char *get_name, const char *set_name, const char *doc)
{
    camera.def_property(
        name,
        [get, get_name](const PyCamera &self) {
            T value{};
            check(get(self.handle(get_name), &value), get_name);
            return int64_t(value);
        },
        [set, set_name](const PyCamera &self, int64_t value) {
            if (value < 0 || uint64_t(value) > uint64_t(T(~T(0))))
                fail(ISP_ERR_INVALID, set_name, "value " + std::to_string(value) + " does not fit the control");
            check(set(self.handle(set_name), T(value)), set_name);
        },
        doc);
}

void translate(const CallError &error)
{
    py::object errors = py::module_::import("zelisp._errors");
    py::object exception = errors.attr("error_for")(error.code, isp_get_result_text(error.code), error.call,
                                                    error.detail);
    PyErr_SetObject(reinterpret_cast<PyObject *>(Py_TYPE(exception.ptr())), exception.ptr());
}

} // namespace
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
            translate(error);
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

    /* ---- View ---- */
    py::class_<PyView>(m, "View", "One ISP output image of a frame.")
        .def_property_readonly("view", [](const PyView &v) { return v.view; }, "The view number, 0..2.")
        .def_property_readonly("array", &view_array,
                               "A uint8 numpy array over the mapped plane, without a copy: NV12/NV21 "
                               "(h*3//2, w), YUYV (h, w, 2), GREY (h, w), RGB3 (h, w, 3). It keeps the "
                               "frame's buffer from the driver while it lives. Each access makes a new "
                               "array over the same memory.")
        .def_property_readonly(
            "fd", [](const PyView &v) { return v.frame->record().views[v.view].fd; },
            "The plane's DMA-buf descriptor. The camera owns it: duplicate it (os.dup) to keep it past close().")
        .def_property_readonly(
            "length", [](const PyView &v) { return v.frame->record().views[v.view].length; },
            "Bytes of the plane the driver filled.")
        .def_property_readonly(
            "format", [](const PyView &v) { return fourcc_text(v.frame->format(v.view).fourcc); },
            "The pixel format as four characters, such as 'NV12'.")
        .def_property_readonly(
            "width", [](const PyView &v) { return v.frame->format(v.view).width; }, "Width in pixels.")
        .def_property_readonly(
            "height", [](const PyView &v) { return v.frame->format(v.view).height; }, "Height in pixels.")
        .def("__repr__", [](const PyView &v) {
            ViewFormat f = v.frame->format(v.view);
            return "View(" + std::to_string(v.view) + ", '" + fourcc_text(f.fourcc) + "', " +
                   std::to_string(f.width) + "x" + std::to_string(f.height) + ")";
        });

    /* ---- Frame ---- */
    py::class_<PyFrame>(m, "Frame",
                        "One captured buffer. Release it (or leave its with block) to hand the buffer back; "
                        "arrays taken from it keep the buffer until they are gone.")
        .def_property_readonly(
            "index", [](const PyFrame &f) { return f.core->record().index; }, "The buffer's index.")
        .def_property_readonly(
            "sequence",
            [](const PyFrame &f) {
                for (int view = 0; view < 3; ++view)
                    if (f.core->view_mask() & (1u << view))
                        return f.core->record().views[view].sequence;
                return uint32_t(0);
            },
            "The driver's frame number (the simulator stamps it into the image).")
        .def_property_readonly(
            "timestamp_us",
            [](const PyFrame &f) {
                for (int view = 0; view < 3; ++view)
                    if (f.core->view_mask() & (1u << view))
                        return f.core->record().views[view].timestamp;
                return uint64_t(0);
            },
            "Capture time in microseconds.")
        .def_property_readonly("views", &frame_views, "dict of view number -> View, for the enabled views.")
        .def_property_readonly(
            "released", [](const PyFrame &f) { return f.core->released(); }, "True once release() was called.")
        .def_property_readonly(
            "returned", [](const PyFrame &f) { return f.core->returned(); },
            "True once the buffer is back with the driver (release() and no array alive).")
        .def(
            "release", [](PyFrame &f) { f.core->release(); },
            "Hands the buffer back to the driver, at once or, while arrays of it live, when the last one "
            "goes. Releasing twice does nothing.")
        .def("__enter__", [](py::object self) { return self; })
        .def("__exit__", [](PyFrame &f, py::args) {
            f.core->release();
            return false;
        })
        .def("__repr__", [](const PyFrame &f) {
            return "Frame(index=" + std::to_string(f.core->record().index) +
                   (f.core->released() ? ", released)" : ")");
        });

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
            "get_frame",
            [](PyCamera &c, std::optional<int> timeout_ms) {
                auto &core = c.open_core("isp_get_frame_buf");
                auto buf = core.take_frame(timeout_value(timeout_ms), false);
                return PyFrame{std::make_shared<FrameCore>(c.core, buf, c.group), py::object()};
            },
            "timeout_ms"_a = 1000,
            "Waits up to timeout_ms (None: no limit) for the next frame, with the GIL released. Raises "
            "Timeout when none comes.")
        .def(
            "get_expected_frame",
            [](PyCamera &c, std::optional<int> timeout_ms) {
                auto &core = c.open_core("isp_get_expected_frame");
                auto buf = core.take_frame(timeout_value(timeout_ms), true);
                return PyFrame{std::make_shared<FrameCore>(c.core, buf, c.group), py::object()};
            },
            "timeout_ms"_a = 1000, "Like get_frame, keeping only the frames set_frame_drop lets through.")
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
                           "isp_camera_get_brightness", "isp_camera_set_brightness", "Brightness, 0..255.");
    bind_control<uint32_t>(camera, "contrast", isp_camera_get_contrast, isp_camera_set_contrast,
                           "isp_camera_get_contrast", "isp_camera_set_contrast", "Contrast, 0..255.");
    bind_control<uint32_t>(camera, "saturation", isp_camera_get_saturation, isp_camera_set_saturation,
                           "isp_camera_get_saturation", "isp_camera_set_saturation", "Saturation, 0..255.");
    bind_control<uint32_t>(camera, "hue", isp_camera_get_hue, isp_camera_set_hue, "isp_camera_get_hue",
                           "isp_camera_set_hue", "Hue, 0..255.");
    bind_control<uint32_t>(camera, "gamma", isp_camera_get_gamma, isp_camera_set_gamma, "isp_camera_get_gamma",
                           "isp_camera_set_gamma", "Gamma, a 32-bit word for the ISP firmware.");
    bind_control<uint32_t>(camera, "sharpness", isp_camera_get_sharpness, isp_camera_set_sharpness,
                           "isp_camera_get_sharpness", "isp_camera_set_sharpness", "Sharpness, 0..10.");
    bind_control<uint8_t>(camera, "awb", isp_camera_get_awb, isp_camera_set_awb, "isp_camera_get_awb",
                          "isp_camera_set_awb", "Automatic white balance, 1 on, 0 off.");
    bind_control<uint8_t>(camera, "aec", isp_camera_get_aec, isp_camera_set_aec, "isp_camera_get_aec",
                          "isp_camera_set_aec", "Exposure mode: 0 automatic, 1 manual, ...");

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
                    frames.append(PyFrame{frame, py::object()});
                return frames;
            },
            "timeout_ms"_a = 1000, "The frames of one set, as a list (the package wraps it in a FrameSet).");
}
