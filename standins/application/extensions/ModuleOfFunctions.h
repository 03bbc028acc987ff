#pragma once

// What every extension module here is: functions, and no state of its own.

#include <Python.h>

/// The definition of a module that holds functions alone, for PyModule_Create:
///
///     PyModuleDef definition = moduleOfFunctions("SignalAPI_cmodule", "What it is for", methods);
///
/// @param name, documentation, methods  have to outlive the result; a null entry ends the methods
inline PyModuleDef moduleOfFunctions(const char* name, const char* documentation,
                                     PyMethodDef* methods) {
    PyModuleDef definition = {};
    definition.m_base = PyModuleDef_HEAD_INIT;
    definition.m_name = name;
    definition.m_doc = documentation;
    definition.m_methods = methods;
    return definition;
}
