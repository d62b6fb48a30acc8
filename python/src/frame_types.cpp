/*
 * frame_types.cpp - the per-frame objects: Frame, View and the lease an
 * array holds on its frame's buffer.
 *
 * Ownership: a Frame object, its View objects and every lease share one
 * FrameCore (core.h). The buffer goes back to the driver when the frame was
 * released, or its object dropped, and no lease is left; that is, no array
 * over one of its planes is alive. Views hold the FrameCore rather than the
 * Frame object, so the frame's cached dict of views makes no reference cycle
 * and a frame is given back as soon as its last reference goes, with or
 * without the garbage collector.
 */
#define NPY_NO_DEPRECATED_API NPY_1_7_API_VERSION
#include "frame_types.h"

#include <numpy/arrayobject.h>

#include <cstddef>
#include <string>
#include <utility>

namespace py = pybind11;

namespace zelpy {
namespace {

constexpr uint32_t fourcc(char a, char b, char c, char d)
{
    return uint32_t(uint8_t(a)) | uint32_t(uint8_t(b)) << 8 | uint32_t(uint8_t(c)) << 16 |
           uint32_t(uint8_t(d)) << 24;
}

PyTypeObject *frame_type = nullptr;
PyTypeObject *view_type = nullptr;
PyTypeObject *lease_type = nullptr;
PyObject *timeout_name = nullptr; /* the interned keyword "timeout_ms" */

struct FrameObject {
    PyObject_HEAD
    std::shared_ptr<FrameCore> core;
    PyObject *views; /* dict view number -> View, made on first use */
};

struct ViewObject {
    PyObject_HEAD
    std::shared_ptr<FrameCore> frame;
    int view;
};

/* The base object of one numpy array: keeps the buffer out of the driver's
 * hands until numpy frees the array. */
struct LeaseObject {
    PyObject_HEAD
    std::shared_ptr<FrameCore> frame;
};

FrameCore &core_of(PyObject *self) { return *reinterpret_cast<FrameObject *>(self)->core; }
ViewObject &view_of(PyObject *self) { return *reinterpret_cast<ViewObject *>(self); }

void require_unreleased(const FrameCore &frame, const char *what)
{
    if (frame.released())
        fail(ISP_ERR_STATE, what, "the frame was released; take the arrays before releasing it");
}

/* Allocates an object of a type made here and constructs its C++ members. */
template <typename Object>
Object *allocate(PyTypeObject *type)
{
    PyObject *object = type->tp_alloc(type, 0);
    if (object == nullptr)
        throw py::error_already_set();
    return reinterpret_cast<Object *>(object);
}

template <typename Object>
void deallocate(PyObject *self)
{
    PyTypeObject *type = Py_TYPE(self);
    reinterpret_cast<Object *>(self)->~Object();
    type->tp_free(self);
    Py_DECREF(type);
}

/* ---- numpy, loaded on the first array rather than on import ---- */

void load_numpy()
{
    if (PyArray_API == nullptr && _import_array() < 0)
        throw py::error_already_set();
}

/* The shape numpy sees for one plane of a view; 1 to 3 dimensions. */
int plane_shape(const ViewFormat &format, size_t length, npy_intp *shape)
{
    const npy_intp w = format.width;
    const npy_intp h = format.height;
    int dimensions;
    switch (format.fourcc) {
    case fourcc('N', 'V', '1', '2'):
    case fourcc('N', 'V', '2', '1'):
        shape[0] = h * 3 / 2, shape[1] = w, dimensions = 2;
        break;
    case fourcc('Y', 'U', 'Y', 'V'):
        shape[0] = h, shape[1] = w, shape[2] = 2, dimensions = 3;
        break;
    case fourcc('G', 'R', 'E', 'Y'):
        shape[0] = h, shape[1] = w, dimensions = 2;
        break;
    case fourcc('R', 'G', 'B', '3'):
        shape[0] = h, shape[1] = w, shape[2] = 3, dimensions = 3;
        break;
    default:
        shape[0] = npy_intp(length);
        return 1;
    }
    npy_intp bytes = 1;
    for (int i = 0; i < dimensions; ++i)
        bytes *= shape[i];
    if (size_t(bytes) > length)
        fail(ISP_ERR_MISSING, "View.array",
             "the plane holds " + std::to_string(length) + " bytes, a " + std::to_string(w) + "x" +
                 std::to_string(h) + " " + fourcc_text(format.fourcc) + " image needs " + std::to_string(bytes));
    return dimensions;
}

PyObject *make_array(const std::shared_ptr<FrameCore> &frame, int view)
{
    require_unreleased(*frame, "View.array");
    load_numpy();
    const zelvideo::_isp_view_buf_t &plane = frame->record().views[view];
    npy_intp shape[3];
    const int dimensions = plane_shape(frame->format(view), plane.length, shape);
    PyObject *array = PyArray_New(&PyArray_Type, dimensions, shape, NPY_UINT8, nullptr, plane.addr, 0,
                                  NPY_ARRAY_CARRAY, nullptr);
    if (array == nullptr)
        throw py::error_already_set();
    LeaseObject *lease;
    try {
        lease = allocate<LeaseObject>(lease_type);
    } catch (...) {
        Py_DECREF(array);
        throw;
    }
    new (&lease->frame) std::shared_ptr<FrameCore>(frame);
    frame->array_made();
    // Steals the lease, also when it fails (the lease then goes at once).
    if (PyArray_SetBaseObject(reinterpret_cast<PyArrayObject *>(array), reinterpret_cast<PyObject *>(lease)) < 0) {
        Py_DECREF(array);
        throw py::error_already_set();
    }
    return array;
}

/* ---- lease ---- */

void lease_dealloc(PyObject *self)
{
    reinterpret_cast<LeaseObject *>(self)->frame->array_gone();
    deallocate<LeaseObject>(self);
}

PyType_Slot lease_slots[] = {
    {Py_tp_dealloc, reinterpret_cast<void *>(lease_dealloc)},
    {Py_tp_doc, const_cast<char *>("Keeps a frame's buffer from the driver while a numpy array over it lives.")},
    {0, nullptr},
};

/* ---- View ---- */

PyObject *view_get_view(PyObject *self, void *) { return PyLong_FromLong(view_of(self).view); }

PyObject *view_get_array(PyObject *self, void *)
{
    return guarded([&] { return make_array(view_of(self).frame, view_of(self).view); });
}

const zelvideo::_isp_view_buf_t &plane_of(PyObject *self)
{
    return view_of(self).frame->record().views[view_of(self).view];
}

ViewFormat format_of(PyObject *self) { return view_of(self).frame->format(view_of(self).view); }

PyObject *view_get_fd(PyObject *self, void *)
{
    return guarded([&] {
        // Closing or re-configuring the camera closes these descriptors:
        // after that the number may be any other file of the process.
        if (!view_of(self).frame->descriptors_open())
            fail(ISP_ERR_STATE, "View.fd",
                 "the camera was closed or re-configured, and the descriptor with it; os.dup the fd first");
        return PyLong_FromLong(plane_of(self).fd);
    });
}
PyObject *view_get_length(PyObject *self, void *) { return PyLong_FromUnsignedLong(plane_of(self).length); }
PyObject *view_get_width(PyObject *self, void *) { return PyLong_FromUnsignedLong(format_of(self).width); }
PyObject *view_get_height(PyObject *self, void *) { return PyLong_FromUnsignedLong(format_of(self).height); }

PyObject *view_get_format(PyObject *self, void *)
{
    const std::string text = fourcc_text(format_of(self).fourcc);
    return PyUnicode_FromStringAndSize(text.data(), Py_ssize_t(text.size()));
}

PyObject *view_repr(PyObject *self)
{
    const ViewFormat f = format_of(self);
    return PyUnicode_FromFormat("View(%d, '%s', %ux%u)", view_of(self).view, fourcc_text(f.fourcc).c_str(),
                                unsigned(f.width), unsigned(f.height));
}

void view_dealloc(PyObject *self) { deallocate<ViewObject>(self); }

PyGetSetDef view_getset[] = {
    {"view", view_get_view, nullptr, "The view number, 0..2.", nullptr},
    {"array", view_get_array, nullptr,
     "A uint8 numpy array over the mapped plane, without a copy: NV12/NV21 (h*3//2, w), YUYV (h, w, 2), "
     "GREY (h, w), RGB3 (h, w, 3). It keeps the frame's buffer from the driver while it lives. Each access "
     "makes a new array over the same memory.",
     nullptr},
    {"fd", view_get_fd, nullptr,
     "The plane's DMA-buf descriptor. The camera owns it: duplicate it (os.dup) to keep it past close(); "
     "once the camera (or its group) is closed, BadState.",
     nullptr},
    {"length", view_get_length, nullptr, "Bytes of the plane the driver filled.", nullptr},
    {"format", view_get_format, nullptr, "The pixel format as four characters, such as 'NV12'.", nullptr},
    {"width", view_get_width, nullptr, "Width in pixels.", nullptr},
    {"height", view_get_height, nullptr, "Height in pixels.", nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyType_Slot view_slots[] = {
    {Py_tp_dealloc, reinterpret_cast<void *>(view_dealloc)},
    {Py_tp_repr, reinterpret_cast<void *>(view_repr)},
    {Py_tp_getset, view_getset},
    {Py_tp_doc, const_cast<char *>("One ISP output image of a frame.")},
    {0, nullptr},
};

/* ---- Frame ---- */

PyObject *frame_get_index(PyObject *self, void *) { return PyLong_FromUnsignedLong(core_of(self).record().index); }

/* The first enabled view's plane record: the numbers all views share. */
const zelvideo::_isp_view_buf_t *first_plane(const FrameCore &frame)
{
    for (int view = 0; view < 3; ++view)
        if (frame.view_mask() & (1u << view))
            return &frame.record().views[view];
    return nullptr;
}

PyObject *frame_get_sequence(PyObject *self, void *)
{
    const auto *plane = first_plane(core_of(self));
    return PyLong_FromUnsignedLong(plane ? plane->sequence : 0);
}

PyObject *frame_get_timestamp(PyObject *self, void *)
{
    const auto *plane = first_plane(core_of(self));
    return PyLong_FromUnsignedLongLong(plane ? plane->timestamp : 0);
}

PyObject *frame_get_views(PyObject *self, void *)
{
    return guarded([&]() -> PyObject * {
        auto *frame = reinterpret_cast<FrameObject *>(self);
        require_unreleased(*frame->core, "Frame.views");
        if (frame->views == nullptr) {
            py::dict views;
            for (int view = 0; view < 3; ++view) {
                if (!(frame->core->view_mask() & (1u << view)))
                    continue;
                auto *object = allocate<ViewObject>(view_type);
                new (&object->frame) std::shared_ptr<FrameCore>(frame->core);
                object->view = view;
                views[py::int_(view)] = py::reinterpret_steal<py::object>(reinterpret_cast<PyObject *>(object));
            }
            frame->views = views.release().ptr();
        }
        Py_INCREF(frame->views);
        return frame->views;
    });
}

PyObject *frame_get_released(PyObject *self, void *) { return PyBool_FromLong(core_of(self).released()); }
PyObject *frame_get_returned(PyObject *self, void *) { return PyBool_FromLong(core_of(self).returned()); }

PyObject *frame_release(PyObject *self, PyObject *)
{
    return guarded([&] {
        core_of(self).release();
        Py_RETURN_NONE;
    });
}

PyObject *frame_enter(PyObject *self, PyObject *)
{
    Py_INCREF(self);
    return self;
}

PyObject *frame_exit(PyObject *self, PyObject *const *, Py_ssize_t)
{
    return guarded([&] {
        core_of(self).release();
        Py_RETURN_NONE;
    });
}

PyObject *frame_repr(PyObject *self)
{
    const FrameCore &frame = core_of(self);
    return PyUnicode_FromFormat("Frame(index=%u%s", unsigned(frame.record().index),
                                frame.released() ? ", released)" : ")");
}

/* The views dict is the user's to fill (frame.views["me"] = frame makes a
 * cycle), so frames take part in garbage collection: a frame kept only by
 * a cycle is collected and its buffer goes back. */
int frame_traverse(PyObject *self, visitproc visit, void *arg)
{
    Py_VISIT(Py_TYPE(self));
    Py_VISIT(reinterpret_cast<FrameObject *>(self)->views);
    return 0;
}

int frame_clear(PyObject *self)
{
    Py_CLEAR(reinterpret_cast<FrameObject *>(self)->views);
    return 0;
}

void frame_dealloc(PyObject *self)
{
    PyObject_GC_UnTrack(self);
    // The views first: the frame's last owner may be this object, and its
    // buffer goes back (FrameCore's destructor) once they are gone too.
    frame_clear(self);
    deallocate<FrameObject>(self);
}

PyGetSetDef frame_getset[] = {
    {"index", frame_get_index, nullptr, "The buffer's index.", nullptr},
    {"sequence", frame_get_sequence, nullptr, "The driver's frame number (the simulator stamps it into the image).",
     nullptr},
    {"timestamp_us", frame_get_timestamp, nullptr, "Capture time in microseconds.", nullptr},
    {"views", frame_get_views, nullptr, "dict of view number -> View, for the enabled views.", nullptr},
    {"released", frame_get_released, nullptr, "True once release() was called.", nullptr},
    {"returned", frame_get_returned, nullptr,
     "True once the buffer is back with the driver (release() and no array alive).", nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyMethodDef frame_methods[] = {
    {"release", frame_release, METH_NOARGS,
     "release($self, /)\n--\n\nHands the buffer back to the driver, at once or, while arrays of it live, when the "
     "last one goes. Releasing twice does nothing."},
    {"__enter__", frame_enter, METH_NOARGS, "__enter__($self, /)\n--\n\nReturns the frame."},
    {"__exit__", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(frame_exit)), METH_FASTCALL,
     "__exit__($self, /, *exc)\n--\n\nReleases the frame."},
    {nullptr, nullptr, 0, nullptr},
};

PyType_Slot frame_slots[] = {
    {Py_tp_dealloc, reinterpret_cast<void *>(frame_dealloc)},
    {Py_tp_traverse, reinterpret_cast<void *>(frame_traverse)},
    {Py_tp_clear, reinterpret_cast<void *>(frame_clear)},
    {Py_tp_repr, reinterpret_cast<void *>(frame_repr)},
    {Py_tp_getset, frame_getset},
    {Py_tp_methods, frame_methods},
    {Py_tp_doc, const_cast<char *>("One captured buffer. Release it (or leave its with block) to hand the buffer "
                                   "back; arrays taken from it keep the buffer until they are gone.")},
    {0, nullptr},
};

PyTypeObject *make_type(const char *name, Py_ssize_t size, PyType_Slot *slots, unsigned long flags = 0)
{
    // Not instantiable from Python: frames come from a camera. Not immutable:
    // the package adds View.to_bgr in Python.
    PyType_Spec type_description{name, int(size), 0,
                                 unsigned(Py_TPFLAGS_DEFAULT | Py_TPFLAGS_DISALLOW_INSTANTIATION | flags), slots};
    PyObject *type = PyType_FromSpec(&type_description);
    if (type == nullptr)
        throw py::error_already_set();
    return reinterpret_cast<PyTypeObject *>(type);
}

} // namespace

void add_frame_types(py::module_ &module)
{
    lease_type = make_type("zelisp._zelisp.ArrayLease", sizeof(LeaseObject), lease_slots);
    view_type = make_type("zelisp._zelisp.View", sizeof(ViewObject), view_slots);
    frame_type = make_type("zelisp._zelisp.Frame", sizeof(FrameObject), frame_slots, Py_TPFLAGS_HAVE_GC);
    timeout_name = PyUnicode_InternFromString("timeout_ms");
    if (timeout_name == nullptr)
        throw py::error_already_set();
    // The module keeps the types (and so the static pointers) alive.
    module.add_object("_ArrayLease", reinterpret_cast<PyObject *>(lease_type));
    module.add_object("View", reinterpret_cast<PyObject *>(view_type));
    module.add_object("Frame", reinterpret_cast<PyObject *>(frame_type));
}

py::object make_frame(std::shared_ptr<FrameCore> core)
{
    auto *frame = allocate<FrameObject>(frame_type);
    new (&frame->core) std::shared_ptr<FrameCore>(std::move(core));
    frame->views = nullptr;
    return py::reinterpret_steal<py::object>(reinterpret_cast<PyObject *>(frame));
}

bool timeout_argument(const char *method, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames,
                      PyObject **timeout)
{
    *timeout = nargs > 0 ? args[0] : nullptr;
    if (nargs > 1) {
        PyErr_Format(PyExc_TypeError, "%s() takes at most 1 argument (%zd given)", method, nargs);
        return false;
    }
    const Py_ssize_t keywords = kwnames ? PyTuple_GET_SIZE(kwnames) : 0;
    for (Py_ssize_t i = 0; i < keywords; ++i) {
        PyObject *name = PyTuple_GET_ITEM(kwnames, i);
        if (name != timeout_name && PyUnicode_Compare(name, timeout_name) != 0) {
            PyErr_Format(PyExc_TypeError, "%s() got an unexpected keyword argument '%U'", method, name);
            return false;
        }
        if (*timeout != nullptr) {
            PyErr_Format(PyExc_TypeError, "%s() got multiple values for argument 'timeout_ms'", method);
            return false;
        }
        *timeout = args[nargs + i];
    }
    return true;
}

} // namespace zelpy
