#include "MAIN/src/ApplicationEnd.h"

#include <Python.h>  // first: it settles feature macros of the system's headers
#include <ZkConfiguration/Configuration.h>
#include <boost/python/errors.hpp>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>

namespace Launcher {

namespace {

using Plexum3::ZkConfiguration::v1::Config;
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

// The pending exception, taken as it is: the value may be an instance or the bare argument.
struct TakenException {
    PythonReference type, value, traceback;

    explicit TakenException(bool isNormalized) {
        PyObject* fetched[3] = {};
        PyErr_Fetch(&fetched[0], &fetched[1], &fetched[2]);
        if (isNormalized) {
            PyErr_NormalizeException(&fetched[0], &fetched[1], &fetched[2]);
        }
        type.reset(fetched[0]);
        value.reset(fetched[1]);
        traceback.reset(fetched[2]);
    }
};

int takeSystemExit() {
    TakenException taken(/*isNormalized=*/false);
    if (!taken.type) {
        boost::python::throw_error_already_set();
    }
    PythonReference& value = taken.value;
    if (value && PyObject_IsInstance(value.get(), PyExc_SystemExit) != 0) {
        value.reset(PyObject_GetAttrString(value.get(), "code"));
    }
    return value ? statusOfExitValue(value.get()) : 0;
}

int takeFailureStatus() {
    if (PyErr_ExceptionMatches(PyExc_SystemExit) == 0) {
        PyErr_Print();
        return unhandledExceptionStatus;
    }
    return takeSystemExit();
}

constexpr int unknownError = -1;
int flushError = 0;  // errno's value, or unknownError

// What the pending exception says of the output: an OSError's number, EINTR for one that ends the
// run; 0 for any other, such as a closed stream's.
int takeErrorNumber() {
    const TakenException taken(/*isNormalized=*/true);
    PyObject* const value = taken.value.get();
    if (value == nullptr || PyObject_IsInstance(value, PyExc_Exception) == 0) {
        return EINTR;
    }
    if (PyObject_IsInstance(value, PyExc_OSError) != 1) {
        return 0;
    }
    const PythonReference number(PyObject_GetAttrString(value, "errno"));
    const long error = number ? PyLong_AsLong(number.get()) : -1;
    PyErr_Clear();
    return error > 0 ? static_cast<int>(error) : unknownError;
}

// The interpreter would try again, and wait again where a pipe is full. The descriptor stays open.
void dropBuffered(PyObject* stream) {
    const PythonReference buffer(PyObject_GetAttrString(stream, "buffer"));
    const PythonReference raw(buffer ? PyObject_GetAttrString(buffer.get(), "raw") : nullptr);
    PyErr_Clear();
    const PythonReference closed(PyObject_CallMethod(raw ? raw.get() : stream, "close", nullptr));
    PyErr_Clear();
}

void flushStream(PyObject* stream) {
    if (stream == nullptr || stream == Py_None) {
        return;
    }
    if (const PythonReference flushed(PyObject_CallMethod(stream, "flush", nullptr)); flushed) {
        return;
    }
    if (const int error = takeErrorNumber(); error != 0) {
        flushError = error;
        dropBuffered(stream);
    }
}

bool isOutputTheResult() {
    return Config().get("TAVREL_BATCH_MODE") == "1" || Config().get("TAVREL_SCRIPT_MODE") == "1";
}

PyObject* flushOutput(PyObject* /*module*/, PyObject* /*arguments*/) {
    for (const char* const name : {"stdout", "__stdout__"}) {
        PyObject* const stream = PySys_GetObject(name);
        Py_XINCREF(stream);  // a flush may replace it
        const PythonReference owner(stream);
        flushStream(stream);
    }
    Py_RETURN_NONE;
}

PyMethodDef flushOutputMethod = {"flushOutput", flushOutput, METH_NOARGS, nullptr};

}  // namespace

void flushOutputAtExit() {
    const PythonReference atexit(PyImport_ImportModule("atexit"));
    const PythonReference function(PyCFunction_New(&flushOutputMethod, nullptr));
    if (atexit && function) {
        const PythonReference registered(
            PyObject_CallMethod(atexit.get(), "register", "O", function.get()));
    }
    // Fails only for want of memory, which the application's first line would meet as well.
    PyErr_Clear();
}

int takeApplicationStatus(PythonReference module) {
    const int status = module ? 0 : takeFailureStatus();
    module.reset();
    if (PyErr_Occurred() != nullptr) {
        PyErr_Print();
    }
    return status;
}

int statusAfterOutput(int status) {
    if (std::fflush(stdout) != 0) {
        flushError = errno;
    }
    if (flushError == 0 && std::ferror(stdout) != 0) {
        flushError = unknownError;  // the code that wrote has known it
    }
    if (flushError == 0) {
        return status;
    }
    const std::string reason = flushError > 0 ? std::string(": ") + std::strerror(flushError) : "";
    std::cerr << "tavrel: standard output could not be written" + reason + '\n';
    return status == 0 && isOutputTheResult() ? lostStatus : status;
}

}  // namespace Launcher
