/*
 * interpreter_lock.cpp - the interpreter lock around waits, safe at exit.
 */
#include "interpreter_lock.h"

#include <sys/syscall.h>
#include <unistd.h>

namespace zelpy {

bool interpreter_finalizing()
{
#if PY_VERSION_HEX >= 0x030D0000
    return Py_IsFinalizing() != 0;
#else
    return _Py_IsFinalizing() != 0;
#endif
}

bool on_main_thread() { return syscall(SYS_gettid) == getpid(); }

PyThreadState *release_interpreter() { return PyEval_SaveThread(); }

void reacquire_interpreter(PyThreadState *state)
{
    if (interpreter_finalizing() && !on_main_thread()) {
        // The process is on its way out; this thread holds nothing another
        // one needs (it left its wait before coming here).
        for (;;)
            pause();
    }
    PyEval_RestoreThread(state);
}

} // namespace zelpy
