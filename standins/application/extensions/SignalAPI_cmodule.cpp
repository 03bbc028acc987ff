// What Python's module signal lacks: a handler that the kernel itself takes away,
// and a default that does no harm to what is under way.
#define PY_SSIZE_T_CLEAN
#include <Python.h>
#include <signal.h>

#include "standins/application/extensions/ModuleOfFunctions.h"

namespace {

PyObject* handleOnce(PyObject* /*module*/, PyObject* number) {
    const long signalNumber = PyLong_AsLong(number);
    if (signalNumber == -1 && PyErr_Occurred() != nullptr) {
        return nullptr;
    }
    struct sigaction action = {};
    if (sigaction(static_cast<int>(signalNumber), nullptr, &action) == 0) {
        action.sa_flags |= SA_RESETHAND;
        if (sigaction(static_cast<int>(signalNumber), &action, nullptr) == 0) {
            Py_RETURN_NONE;
        }
    }
    return PyErr_SetFromErrno(PyExc_OSError);
}

PyObject* setDefault(PyObject* /*module*/, PyObject* number) {
    const long signalNumber = PyLong_AsLong(number);
    if (signalNumber == -1 && PyErr_Occurred() != nullptr) {
        return nullptr;
    }
    struct sigaction action = {};
    action.sa_handler = SIG_DFL;
    if (sigaction(static_cast<int>(signalNumber), &action, nullptr) == 0) {
        Py_RETURN_NONE;
    }
    return PyErr_SetFromErrno(PyExc_OSError);
}

PyMethodDef methods[] = {
    {"handleOnce", handleOnce, METH_O,
     "handleOnce(number): has the handler that signal.signal has set for the signal serve once.\n"
     "The next one acts as if none were set, even if the first has not reached Python yet because\n"
     "native code is at work. OSError for a number that is no signal or can't be handled."},
    {"setDefault", setDefault, METH_O,
     "setDefault(number): has the signal act as if no handler were set. Unlike with "
     "signal.signal,\n"
     "Python keeps its handler for one that has arrived already; without, it would call SIG_DFL."},
    {nullptr, nullptr, 0, nullptr}};

PyModuleDef definition = moduleOfFunctions(
    "SignalAPI_cmodule", "Signal handling that Python's own module does not offer", methods);

}  // namespace

PyMODINIT_FUNC PyInit_SignalAPI_cmodule() {
    return PyModule_Create(&definition);
}
