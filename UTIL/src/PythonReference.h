#pragma once

#include <Python.h>

#include <memory>

/// Gives one reference back to the interpreter; nothing for a null object.
struct PythonReferenceReleaser {
    void operator()(PyObject* object) const { Py_XDECREF(object); }
};

/// Owns one reference to a Python object, or none. The interpreter lock must be held wherever it is
/// assigned or destroyed, and Py_Finalize must come later.
using PythonReference = std::unique_ptr<PyObject, PythonReferenceReleaser>;
