/*
 * arguments.h - what a Python caller hands the package, turned into the
 * C types of the library's functions.
 *
 * Two kinds of refusal, each naming the parameter: a value of the wrong
 * Python type raises TypeError, a number that does not fit the C type the
 * library takes raises zelisp.InvalidArgument (-15). Ranges the library
 * checks itself (buffer counts, view numbers of a format, frame drop
 * rates) are left to it, so that its own code and words reach the caller.
 * Anything with __index__ counts as an integer (numpy's integers too), a
 * float never does.
 */
#ifndef ZELISP_PYTHON_ARGUMENTS_H
#define ZELISP_PYTHON_ARGUMENTS_H

#include <pybind11/pybind11.h>

#include <cstdint>
#include <string>
#include <vector>

namespace zelpy {

/* The Python call being checked ("Camera.configure") and the parameter;
 * a property ("Camera.brightness") has no parameter name. */
struct Parameter {
    const char *call;
    const char *name;
};

int64_t integer(pybind11::handle value, Parameter parameter, int64_t minimum, int64_t maximum);
uint32_t unsigned_word(pybind11::handle value, Parameter parameter);
uint8_t unsigned_byte(pybind11::handle value, Parameter parameter);
/* An open mode: 1 (/dev/videoN, three views) or 2 (/dev/video<N+12>, one plane). */
int open_mode(pybind11::handle value, Parameter parameter);
/* A time limit in milliseconds, 0 and up; None waits without a limit (-1). */
int timeout_ms(pybind11::handle value, Parameter parameter);
std::string text(pybind11::handle value, Parameter parameter);
/* A list or tuple of exactly `count` items (any iterable when count is 0). */
std::vector<pybind11::object> items(pybind11::handle value, Parameter parameter, size_t count = 0);
/* Views 0, 1 and 2, as the library's view mask. */
uint32_t view_mask(pybind11::handle views, Parameter parameter);

} // namespace zelpy

#endif
