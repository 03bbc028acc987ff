#include "MAIN/src/ApplicationStatus.h"

#include <Python.h>  // first: it settles feature macros of the system's headers
#include <boost/python/errors.hpp>

#include <cstdio>

namespace Launcher {

namespace {

using UTIL::PythonReference;

constexpr int unhandledExceptionStatus = -1;
constexpr int printedObjectStatus = 1;
constexpr int lostStatus = 255;

// Of an integer the process can hand on eight bits. What would look like success is made a failure.
int statusOfInteger(PyObject* value) {
    constexpr unsigned long statusBits = 0xff;
    const auto requested = static_cast<unsigned long>(PyLong_AsLong(value));
    const auto status = static_cast<int>(requested & statusBits);
    return requested != 0 && status == 0 ? lostStatus : status;
}

int statusOfExitValue(PyObject* value) {
    if (PyLong_Check(value)) {
        return statusOfInteger(value);
    }
    if (value == Py_None) {
        return 0;
    }
    // If the object can't be printed, its exception stays pending and is reported by the caller.
    static_cast<void>(PyObject_Print(value, stderr, Py_PRINT_RAW));
    std::fputc('\n', stderr);
    return printedObjectStatus;
}

// The pending SystemExit is taken as it is: its value may be an instance or still the bare argument
// of sys.exit.
int takeSystemExit() {
    PyObject* type = nullptr;
    PyObject* value = nullptr;
    PyObject* traceback = nullptr;
    PyErr_Fetch(&type, &value, &traceback);
    const PythonReference typeOwner(type);
    PythonReference valueOwner(value);
    const PythonReference tracebackOwner(traceback);
    if (!typeOwner) {
        boost::python::throw_error_already_set();
    }
    if (valueOwner && PyObject_IsInstance(valueOwner.get(), PyExc_SystemExit) != 0) {
        valueOwner.reset(PyObject_GetAttrString(valueOwner.get(), "code"));
    }
    return valueOwner ? statusOfExitValue(valueOwner.get()) : 0;
}

int takeFailureStatus() {
    if (PyErr_ExceptionMatches(PyExc_SystemExit) == 0) {
        PyErr_Print();
        return unhandledExceptionStatus;
    }
    return takeSystemExit();
}

}  // namespace

int takeApplicationStatus(PythonReference module) {
    const int status = module ? 0 : takeFailureStatus();
    module.reset();
    if (PyErr_Occurred() != nullptr) {
        PyErr_Print();
    }
    return status;
}

}  // namespace Launcher
