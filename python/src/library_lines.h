/*
 * library_lines.h - the library's console lines, sent to Python's logging.
 *
 * The library hands every line it would print to one process-wide message
 * handler, on the thread of the call that made it. The package's handler
 * logs it on logging.getLogger("zelisp"): failures and system errors (the
 * latter with their errno text) at WARNING, progress at DEBUG, so nothing
 * reaches standard output. The handler takes the interpreter lock, which
 * the caller may have released, except while the interpreter finalizes:
 * failure lines then go to standard error as they are, progress lines are
 * dropped. A line of a call this package made with the lock held is logged
 * once that call has returned (log_library_lines), never from inside the
 * library: logging runs Python code, which lets other threads run.
 */
#ifndef ZELISP_PYTHON_LIBRARY_LINES_H
#define ZELISP_PYTHON_LIBRARY_LINES_H

#include <pybind11/pybind11.h>

namespace zelpy {

/* Installs the handler; logger: logging.getLogger("zelisp"), kept. */
void route_library_lines(pybind11::object logger);

/* Logs the lines the library gave this thread during its last calls; run
 * with the lock held once the call has returned (check() and fail() do). */
void log_library_lines();

/*
 * What the library said on this thread during one call: a refused frame
 * and a failed dequeue both return -11, and only the line tells them apart.
 */
class CallLines {
public:
    CallLines(); /* forgets earlier lines of this thread */
    /* A failure line came, and it was not the node's " get frame failed". */
    bool frame_refused() const;
};

} // namespace zelpy

#endif
