// Faults of native code, for trying out what becomes of them.
#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <cstdlib>
#include <stdexcept>

#include "standins/application/extensions/ModuleOfFunctions.h"

namespace {

// The sanitizer would end the process in front of the fault.
__attribute__((no_sanitize("undefined"))) PyObject* segv(PyObject* /*module*/,
                                                         PyObject* /*unused*/) {
    // volatile: the compiler may not take away what is undefined.
    volatile int* volatile nowhere = nullptr;
    *nowhere = 1;
    Py_RETURN_NONE;
}

PyObject* abortProcess(PyObject* /*module*/, PyObject* /*unused*/) {
    std::abort();
}

PyObject* throwException(PyObject* /*module*/, PyObject* /*unused*/) {
    // No handler up to main catches it.
    throw std::runtime_error("test of an uncaught exception");
}

PyMethodDef methods[] = {
    {"segv", segv, METH_NOARGS, "segv(): writes to address 0"},
    {"abort", abortProcess, METH_NOARGS, "abort(): ends the process as a failed assertion does"},
    {"throwException", throwException, METH_NOARGS,
     "throwException(): throws a C++ exception that isn't caught"},
    {nullptr, nullptr, 0, nullptr}};

PyModuleDef definition =
    moduleOfFunctions("CrashAPI_cmodule", "Faults of native code, on purpose", methods);

}  // namespace

PyMODINIT_FUNC PyInit_CrashAPI_cmodule() {
    return PyModule_Create(&definition);
}
