#pragma once

#include <Python.h>

#include <memory>

namespace UTIL {

/// Gives one reference back to the interpreter; nothing for a null object.
struct PythonReferenceReleaser {
    void operator()(PyObject* object) const { Py_XDECREF(object); }
};

/// Owns one reference to a Python object, or none. The interpreter lock must be held wherever it is
/// assigned or destroyed, and Py_Finalize must come later.
using PythonReference = std::unique_ptr<PyObject, PythonReferenceReleaser>;

/// Sets the attribute `name` of the module sys; a null value takes it away. Fails only for want of
/// memory, which the application's first line would meet as well.
inline void SetSysAttribute(const char* name, const PythonReference& value) {
    static_cast<void>(PySys_SetObject(name, value.get()));
}

}  // namespace UTIL
