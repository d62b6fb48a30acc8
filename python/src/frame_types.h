/*
 * frame_types.h - Frame and View as plain CPython types.
 *
 * Every captured frame passes through these objects, so they are written
 * against the interpreter's own C API rather than through pybind11's generic
 * dispatch: a method call is a direct C call, an array is one numpy call over
 * the mapped plane, and nothing is looked up by C++ type name per frame.
 * Cameras, groups and everything else called once per stream stay pybind11
 * classes (module.cpp).
 */
#ifndef ZELISP_PYTHON_FRAME_TYPES_H
#define ZELISP_PYTHON_FRAME_TYPES_H

#include "core.h"

#include <pybind11/pybind11.h>

#include <exception>
#include <memory>
#include <new>

namespace zelpy {

/* Sets the Python exception (zelisp.Error or a subclass) for a failed call. */
void raise_call_error(const CallError &error);

/* Creates the Frame, View and array-lease types and adds Frame and View to
 * the module. */
void add_frame_types(pybind11::module_ &module);

/* A new Python Frame over a buffer taken from the driver. */
pybind11::object make_frame(std::shared_ptr<FrameCore> core);

/* Finds a method's only argument, timeout_ms, in a vectorcall: the object
 * given, or nullptr for the default; false with a TypeError set when the
 * arguments do not fit. */
bool timeout_argument(const char *method, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames,
                      PyObject **timeout);

/* Runs body, turning a C++ exception into the Python one: the shape of every
 * C-level method of the package. Not noexcept: a thread that CPython ends
 * during a wait (interpreter_lock.h) unwinds through it. */
template <typename Body>
PyObject *guarded(Body &&body)
{
    try {
        return body();
    } catch (const CallError &error) {
        raise_call_error(error);
    } catch (pybind11::error_already_set &error) {
        error.restore();
    } catch (const pybind11::builtin_exception &error) {
        error.set_error();
    } catch (const std::bad_alloc &) {
        PyErr_NoMemory();
    } catch (const std::exception &error) {
        PyErr_SetString(PyExc_RuntimeError, error.what());
    }
    return nullptr;
}

} // namespace zelpy

#endif
