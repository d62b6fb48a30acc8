/*
 * library_lines.cpp - the library's message handler: its lines into
 * logging.getLogger("zelisp").
 */
#include "library_lines.h"

#include "interpreter_lock.h"

#include <zelisp.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace py = pybind11;

namespace zelpy {
namespace {

constexpr int kDebug = 10;   /* logging.DEBUG */
constexpr int kWarning = 30; /* logging.WARNING */

PyObject *logger = nullptr;          /* logging.getLogger("zelisp"), for the life of the process */
std::atomic<bool> python_gone{false}; /* the interpreter has finalized */

/* A line kept until the library call that made it has returned. */
struct KeptLine {
    int32_t kind;
    int32_t error_number;
    std::string text;
    std::string dev_path;
    bool has_dev_path;
};
thread_local std::vector<KeptLine> kept_lines;

struct LinesOfCall {
    bool failure = false;
    bool dequeue_failed = false;
};
thread_local LinesOfCall lines_of_call;

bool ends_with(const char *text, const char *tail)
{
    const size_t length = std::strlen(text);
    const size_t tail_length = std::strlen(tail);
    return length >= tail_length && std::strcmp(text + length - tail_length, tail) == 0;
}

/* logger.log(level, "%s", text, extra={"errno": ..., "dev_path": ...}), with
 * the lock held. A line can come while an exception is on its way (a call
 * that failed prints before it returns): that exception is kept aside. */
void log_line(const KeptLine &line)
{
    PyObject *type, *value, *traceback;
    PyErr_Fetch(&type, &value, &traceback);
    const int level = line.kind == ISP_MESSAGE_PROGRESS ? kDebug : kWarning;
    PyObject *result = nullptr;
    PyObject *method = PyObject_GetAttrString(logger, "log");
    PyObject *arguments = Py_BuildValue("(iss)", level, "%s", line.text.c_str());
    PyObject *keywords = Py_BuildValue("{s:{s:i,s:z}}", "extra", "errno", line.error_number, "dev_path",
                                       line.has_dev_path ? line.dev_path.c_str() : nullptr);
    if (method && arguments && keywords)
        result = PyObject_Call(method, arguments, keywords);
    if (!result)
        PyErr_WriteUnraisable(logger); // a broken logging set-up must not break the camera call
    Py_XDECREF(result);
    Py_XDECREF(keywords);
    Py_XDECREF(arguments);
    Py_XDECREF(method);
    PyErr_Restore(type, value, traceback);
}

void handle_line(const zelvideo::_isp_message_t *message, void *)
{
    if (message->kind == ISP_MESSAGE_FAILURE) {
        lines_of_call.failure = true;
        lines_of_call.dequeue_failed |= ends_with(message->text, " get frame failed");
    }
    if (python_gone || interpreter_finalizing()) {
        // Neither logging nor the lock can be had: keep what matters,
        // away from the program's output.
        if (message->kind != ISP_MESSAGE_PROGRESS)
            std::fprintf(stderr, "%s\n", message->text);
        return;
    }
    KeptLine line{message->kind, message->error_number, message->text, message->dev_path ? message->dev_path : "",
                  message->dev_path != nullptr};
    if (PyGILState_Check()) {
        // A call of this package, which holds the lock. Logging runs Python
        // code, which lets other threads run, and one of them could then
        // enter the library on the same camera, or close it, while this
        // call is still inside: the line waits until the call has returned.
        kept_lines.push_back(std::move(line));
        return;
    }
    const PyGILState_STATE state = PyGILState_Ensure();
    log_line(line);
    PyGILState_Release(state);
}

void forget_python() { python_gone = true; }

} // namespace

void route_library_lines(py::object zelisp_logger)
{
    logger = zelisp_logger.release().ptr();
    // After the interpreter is gone (an embedding program may go on calling
    // the library), lines must not reach it. Py_AtExit fails only when its
    // table is full; the finalizing check still covers the shutdown itself.
    if (Py_AtExit(forget_python) != 0)
        if (PyErr_WarnEx(PyExc_RuntimeWarning, "zelisp: no room left in Py_AtExit", 1) < 0)
            throw py::error_already_set(); // warnings made errors (-W error)
    // A handler call in progress on another thread is waited for, and it
    // may be waiting for the lock.
    PyThreadState *state = release_interpreter();
    isp_set_message_handler(handle_line, nullptr);
    reacquire_interpreter(state);
}

void log_library_lines()
{
    if (kept_lines.empty())
        return;
    std::vector<KeptLine> lines;
    lines.swap(kept_lines);
    for (const KeptLine &line : lines)
        log_line(line);
}

CallLines::CallLines() { lines_of_call = LinesOfCall{}; }

bool CallLines::frame_refused() const { return lines_of_call.failure && !lines_of_call.dequeue_failed; }

} // namespace zelpy
