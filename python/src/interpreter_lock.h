/*
 * interpreter_lock.h - giving the Python interpreter lock (GIL) up around
 * a wait, and taking it back without ever aborting the process.
 *
 * CPython ends a thread that asks for the lock while the interpreter
 * finalizes (a daemon thread woken at exit or after Ctrl-C) with
 * pthread_exit. Its forced unwinding calls std::terminate when it meets a
 * noexcept frame, such as a destructor that re-takes the lock. So a thread
 * other than the main one never asks once finalization has begun: it parks
 * until the process is gone, touching nothing. The main thread is the one
 * that finalizes and takes the lock back as usual. A thread that asked just
 * before finalization began can still be ended by CPython: the callers keep
 * every frame between here and the interpreter free of noexcept functions
 * and of Python references, and never take the lock back in a destructor.
 */
#ifndef ZELISP_PYTHON_INTERPRETER_LOCK_H
#define ZELISP_PYTHON_INTERPRETER_LOCK_H

#include <Python.h>

namespace zelpy {

/* True once the interpreter has begun to shut down; needs no lock. */
bool interpreter_finalizing();
/* True on the process's main thread, where the interpreter finalizes. */
bool on_main_thread();

/* Gives the lock up; the caller must hold it. */
PyThreadState *release_interpreter();
/* Takes the lock back, or parks this thread for good while the
 * interpreter finalizes (see above). */
void reacquire_interpreter(PyThreadState *state);

} // namespace zelpy

#endif
