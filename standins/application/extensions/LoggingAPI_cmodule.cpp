// The launcher's log for Python's logging: one level and one destination for both.
#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <string>

#include "ZkLoggingHost/LogLines.h"
#include "standins/application/extensions/ModuleOfFunctions.h"

namespace {

PyObject* level(PyObject* /*module*/, PyObject* /*unused*/) {
    // The module logging counts from DEBUG, 10, in tens; beyond CRITICAL nothing is left.
    constexpr long ofDebug = 10;
    constexpr long ofOff = 1000;
    const ZkLoggingHost::Level least = ZkLoggingHost::logLevel();
    return PyLong_FromLong(
        least == ZkLoggingHost::Level::Off ? ofOff : ofDebug * (static_cast<long>(least) + 1));
}

PyObject* file(PyObject* /*module*/, PyObject* /*unused*/) {
    const std::string path = ZkLoggingHost::logFile();
    return PyUnicode_DecodeFSDefaultAndSize(path.data(), static_cast<Py_ssize_t>(path.size()));
}

PyObject* write(PyObject* /*module*/, PyObject* line) {
    // What came in as undecodable bytes is shown, not refused: it may be the point of the line.
    PyObject* const bytes = PyUnicode_AsEncodedString(line, "utf-8", "backslashreplace");
    if (bytes == nullptr) {
        return nullptr;
    }
    const std::string_view text(PyBytes_AS_STRING(bytes),
                                static_cast<std::size_t>(PyBytes_GET_SIZE(bytes)));
    // A disk may be slow.
    Py_BEGIN_ALLOW_THREADS ZkLoggingHost::writeLine(text);
    Py_END_ALLOW_THREADS Py_DECREF(bytes);
    Py_RETURN_NONE;
}

PyMethodDef methods[] = {
    {"level", level, METH_NOARGS,
     "level() -> int: the least level that is written, in the numbers of the module logging"},
    {"file", file, METH_NOARGS,
     "file() -> str: absolute path of the file that lines go to; empty for standard error"},
    {"write", write, METH_O,
     "write(line): writes the line as it is, whatever its level; in a file behind time and PID"},
    {nullptr, nullptr, 0, nullptr}};

PyModuleDef definition = moduleOfFunctions(
    "LoggingAPI_cmodule", "The log that this process shares with the launcher", methods);

}  // namespace

PyMODINIT_FUNC PyInit_LoggingAPI_cmodule() {
    return PyModule_Create(&definition);
}
