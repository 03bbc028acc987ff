// The launcher's configuration store for Python. Outside the launcher the store starts empty.
#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <optional>
#include <string>

#include "ZkConfiguration/Configuration.h"
#include "standins/application/extensions/ModuleOfFunctions.h"

namespace {

using Plexum3::ZkConfiguration::v1::Config;

// The bytes that the text has in the environment; without a value an exception is set.
std::optional<std::string> toBytes(PyObject* text) {
    if (!PyUnicode_Check(text)) {
        PyErr_Format(PyExc_TypeError, "keys and values are str, not %.100s",
                     Py_TYPE(text)->tp_name);
        return std::nullopt;
    }
    PyObject* const bytes = PyUnicode_EncodeFSDefault(text);
    if (bytes == nullptr) {
        return std::nullopt;
    }
    std::string result(PyBytes_AS_STRING(bytes), static_cast<std::size_t>(PyBytes_GET_SIZE(bytes)));
    Py_DECREF(bytes);
    if (result.find('\0') != std::string::npos) {
        PyErr_SetString(PyExc_ValueError, "keys and values hold no null character");
        return std::nullopt;
    }
    return result;
}

PyObject* has(PyObject* /*module*/, PyObject* key) {
    const auto name = toBytes(key);
    return name ? PyBool_FromLong(Config().has(*name) ? 1 : 0) : nullptr;
}

PyObject* get(PyObject* /*module*/, PyObject* key) {
    const auto name = toBytes(key);
    if (!name) {
        return nullptr;
    }
    const std::string value = Config().get(*name);
    return PyUnicode_DecodeFSDefaultAndSize(value.data(), static_cast<Py_ssize_t>(value.size()));
}

PyObject* set(PyObject* /*module*/, PyObject* arguments) {
    PyObject* key = nullptr;
    PyObject* value = nullptr;
    if (PyArg_UnpackTuple(arguments, "set", 2, 2, &key, &value) == 0) {
        return nullptr;
    }
    const auto name = toBytes(key);
    const auto text = name ? toBytes(value) : std::nullopt;
    if (!text) {
        return nullptr;
    }
    Config().set(*name, *text);
    Py_RETURN_NONE;
}

PyMethodDef methods[] = {
    {"has", has, METH_O, "has(key) -> bool: whether the key holds anything but the empty string"},
    {"get", get, METH_O, "get(key) -> str: the value, empty for a key that isn't set"},
    {"set", set, METH_VARARGS, "set(key, value): sets the value; the empty string clears the key"},
    {nullptr, nullptr, 0, nullptr}};

PyModuleDef definition =
    moduleOfFunctions("ConfigurationAPI_cmodule",
                      "The store of settings that this process shares with the launcher", methods);

}  // namespace

PyMODINIT_FUNC PyInit_ConfigurationAPI_cmodule() {
    return PyModule_Create(&definition);
}
