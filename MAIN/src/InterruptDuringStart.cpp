#include "MAIN/src/InterruptDuringStart.h"

#include <Python.h>  // first: it settles feature macros of the system's headers
#include <unistd.h>

#include <csignal>
#include <utility>

#include "UTIL/src/PythonReference.h"

namespace Launcher {

namespace {

using UTIL::PythonReference;

volatile std::sig_atomic_t hasCome = 0;
void (*pythonsHandler)(int) = nullptr;

// Installed to serve once: what it raises has the default action.
void end(int number) {
    raise(number);
    _exit(128 + number);  // the kernel dropped it: the first process of a container
}

// Stays for the rest of the run. Nothing has to be changed once the application may have installed
// a handler of its own.
void noteAndForward(int number) {
    hasCome = 1;
    pythonsHandler(number);
}

PyObject* checkInterrupt(PyObject* /*module*/, PyObject* /*arguments*/) {
    if (PyErr_CheckSignals() == 0) {
        if (hasCome == 0) {
            Py_RETURN_NONE;
        }
        PyErr_SetNone(PyExc_KeyboardInterrupt);
    }
    return nullptr;
}

PyMethodDef checkInterruptMethod = {"checkInterrupt", checkInterrupt, METH_NOARGS, nullptr};

}  // namespace

// sigaction fails for bad arguments alone, here and below.
void endOnInterrupt() {
    struct sigaction action = {};
    sigaction(SIGINT, nullptr, &action);
    if (action.sa_handler == SIG_DFL) {
        action.sa_handler = end;
        action.sa_flags = static_cast<int>(SA_RESETHAND | SA_NODEFER);
        sigaction(SIGINT, &action, nullptr);
    }
}

bool handInterruptsToPython() {
    UTIL::SetSysAttribute("tavrel_checkInterrupt",
                          PythonReference(PyCFunction_New(&checkInterruptMethod, nullptr)));
    struct sigaction action = {};
    sigaction(SIGINT, nullptr, &action);
    if (action.sa_handler != end) {
        return true;
    }
    const PythonReference module(PyImport_ImportModule("_signal"));
    const PythonReference handler(
        module ? PyObject_GetAttrString(module.get(), "default_int_handler") : nullptr);
    const PythonReference previous(
        PyObject_CallMethod(module.get(), "signal", "iO", SIGINT, handler.get()));
    sigaction(SIGINT, nullptr, &action);
    pythonsHandler = std::exchange(action.sa_handler, noteAndForward);
    sigaction(SIGINT, &action, nullptr);
    return previous && PyErr_CheckSignals() == 0;
}

}  // namespace Launcher
