/*
 * arguments.cpp - type and range checks of the arguments Python passes.
 */
#include "arguments.h"

#include "core.h"

#include <climits>

namespace py = pybind11;

namespace zelpy {
namespace {

/* "Camera.configure(): buffers must be an int, not str"; a property:
 * "Camera.brightness must be an int, not str". */
[[noreturn]] void wrong_type(py::handle value, Parameter parameter, const std::string &wanted)
{
    const std::string subject = parameter.name ? std::string(parameter.call) + "(): " + parameter.name
                                               : std::string(parameter.call);
    throw py::type_error(subject + " " + wanted + ", not " + Py_TYPE(value.ptr())->tp_name);
}

/* "buffers=-1", or "-1" for a property. */
std::string shown(py::handle value, Parameter parameter)
{
    const std::string text = py::repr(value).cast<std::string>();
    return parameter.name ? std::string(parameter.name) + "=" + text : text;
}

[[noreturn]] void out_of_range(py::handle value, Parameter parameter, int64_t minimum, int64_t maximum)
{
    fail(ISP_ERR_INVALID, parameter.call,
         shown(value, parameter) + " is outside " + std::to_string(minimum) + ".." + std::to_string(maximum));
}

bool is_text(py::handle value) { return PyUnicode_Check(value.ptr()) || PyBytes_Check(value.ptr()); }

} // namespace

int64_t integer(py::handle value, Parameter parameter, int64_t minimum, int64_t maximum)
{
    if (!PyIndex_Check(value.ptr()))
        wrong_type(value, parameter, "must be an int");
    py::object number = py::reinterpret_steal<py::object>(PyNumber_Index(value.ptr()));
    if (!number)
        throw py::error_already_set();
    int overflow = 0;
    long long result = PyLong_AsLongLongAndOverflow(number.ptr(), &overflow);
    if (result == -1 && PyErr_Occurred())
        throw py::error_already_set();
    if (overflow != 0) // beyond 64 bits: only its sign matters to the ranges asked for here
        result = overflow < 0 ? INT64_MIN : INT64_MAX;
    if (result < minimum || result > maximum)
        out_of_range(value, parameter, minimum, maximum);
    return result;
}

uint32_t unsigned_word(py::handle value, Parameter parameter)
{
    return uint32_t(integer(value, parameter, 0, UINT32_MAX));
}

uint8_t unsigned_byte(py::handle value, Parameter parameter) { return uint8_t(integer(value, parameter, 0, 255)); }

int open_mode(py::handle value, Parameter parameter)
{
    const int64_t mode = integer(value, parameter, INT32_MIN, INT32_MAX);
    if (mode != 1 && mode != 2)
        fail(ISP_ERR_INVALID, parameter.call,
             shown(value, parameter) + ": 1 opens /dev/videoN with three views, 2 opens /dev/video<N+12> with one "
                                       "plane");
    return int(mode);
}

int timeout_ms(py::handle value, Parameter parameter)
{
    if (value.is_none())
        return -1;
    if (!PyIndex_Check(value.ptr()))
        wrong_type(value, parameter, "must be an int of milliseconds or None");
    // C programs pass -1 for "no limit"; here that is None, and a negative
    // number is a mistake rather than a wait without end.
    if (integer(value, parameter, INT64_MIN, INT64_MAX) < 0)
        fail(ISP_ERR_INVALID, parameter.call,
             shown(value, parameter) + " is negative: give None to wait without a limit");
    return int(integer(value, parameter, 0, INT_MAX));
}

std::string text(py::handle value, Parameter parameter)
{
    if (!PyUnicode_Check(value.ptr()))
        wrong_type(value, parameter, "must be a str");
    std::string result = value.cast<std::string>();
    if (result.find('\0') != std::string::npos)
        fail(ISP_ERR_INVALID, parameter.call, shown(value, parameter) + " holds a NUL character");
    return result;
}

std::vector<py::object> items(py::handle value, Parameter parameter, size_t count)
{
    std::vector<py::object> result;
    if (count != 0) {
        if (!PyList_Check(value.ptr()) && !PyTuple_Check(value.ptr()))
            wrong_type(value, parameter, "must be a tuple of " + std::to_string(count) + " numbers");
        py::sequence sequence = py::reinterpret_borrow<py::sequence>(value);
        if (sequence.size() != count)
            fail(ISP_ERR_INVALID, parameter.call,
                 shown(value, parameter) + " does not hold " + std::to_string(count) + " numbers");
        for (py::handle item : sequence)
            result.push_back(py::reinterpret_borrow<py::object>(item));
        return result;
    }
    if (is_text(value) || !py::isinstance<py::iterable>(value))
        wrong_type(value, parameter, "must be an iterable");
    for (py::handle item : value)
        result.push_back(py::reinterpret_borrow<py::object>(item));
    return result;
}

uint32_t view_mask(py::handle views, Parameter parameter)
{
    uint32_t mask = 0;
    for (const py::object &item : items(views, parameter)) {
        if (!PyIndex_Check(item.ptr()))
            wrong_type(item, parameter, "must hold view numbers (ints)");
        const int64_t view = integer(item, parameter, INT64_MIN, INT64_MAX);
        if (view < 0 || view > 2)
            fail(ISP_ERR_INVALID, parameter.call, "views are 0, 1 and 2; got " + std::to_string(view));
        mask |= 1u << view;
    }
    return mask;
}

} // namespace zelpy
