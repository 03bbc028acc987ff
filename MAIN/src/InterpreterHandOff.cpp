#include <Python.h>  // first: it settles feature macros of the system's headers

#include "MAIN/src/InterpreterHandOff.h"

#include <ZkConfiguration/Configuration.h>
#include <marshal.h>

#include <boost/python/errors.hpp>
#include <cstdio>

#include "MAIN/src/ConfigurationAndEnvironment.h"
#include "MAIN/src/MainLog.h"
#include "MAIN/src/VendorIdModule.h"
#include "UTIL/src/PythonReference.h"
#include "UTIL/src/TavrelBootstrap.h"
#include "crash/src/pythonStackLog.h"

using Plexum3::ZkConfiguration::v1::Config;

namespace {

constexpr wchar_t programName[] = L"tavrel";
constexpr int unhandledExceptionStatus = -1;
constexpr int printedObjectStatus = 1;
constexpr int lostStatus = 255;

void startInterpreter(const std::string& rootPath) {
    Py_SetProgramName(programName);
    RegisterVendorIdModule();
    UTIL::InitPython(rootPath);
    LOG_DEBUG("TAVREL_INTERNAL_PYTHONPATH = " << Config().get("TAVREL_INTERNAL_PYTHONPATH"));
}

wchar_t** toWideStrings(int argc, char* const* argv) {
    auto** wide = new wchar_t*[static_cast<std::size_t>(argc)];
    for (int i = 0; i < argc; ++i) {
        wide[i] = Py_DecodeLocale(argv[i], nullptr);
    }
    return wide;
}

void releaseWideStrings(int argc, wchar_t** wide) {
    for (int i = 0; i < argc; ++i) {
        PyMem_RawFree(wide[i]);
    }
    delete[] wide;
}

void setInterpreterArguments(int argc, char* const* argv) {
    wchar_t** wide = toWideStrings(argc, argv);
    PySys_SetArgvEx(argc, wide, /*updatepath=*/0);
    releaseWideStrings(argc, wide);
}

void setSysAttribute(const char* name, PythonReference value) {
    // Fails only for want of memory, which the application's first line would meet as well.
    static_cast<void>(PySys_SetObject(name, value.get()));
}

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

int applicationStatus(const PythonReference& module) {
    if (module) {
        return 0;
    }
    if (PyErr_ExceptionMatches(PyExc_SystemExit) == 0) {
        PyErr_Print();
        return unhandledExceptionStatus;
    }
    return takeSystemExit();
}

void startStackLogIfWanted() {
    if (getEnvironmentVariable("TAVREL_PYTHON_STACK_LOG", "") == "1") {
        // Without it the application runs as well.
        static_cast<void>(Zendrik::Breakpad::startPythonStackLog());
    }
}

PythonReference runEntryScript(const EmbeddedApplication& application) {
    // The code object is kept for the life of the interpreter: the running application is inside
    // it.
    PyObject* code = PyMarshal_ReadObjectFromString(reinterpret_cast<const char*>(application.code),
                                                    application.codeLength);
    return PythonReference(PyImport_ExecCodeModule("__main__", code));
}

int runAndTakeStatus(std::int32_t verbosity, const EmbeddedApplication& application) {
    if (verbosity > 1) {
        LOG_INFO("Executing Tavrel Python application...");
    }
    startStackLogIfWanted();
    PythonReference module = runEntryScript(application);
    if (verbosity > 1) {
        LOG_INFO("Tavrel Python application exited.");
    }
    const int status = applicationStatus(module);
    module.reset();
    if (PyErr_Occurred() != nullptr) {
        PyErr_Print();
    }
    return status;
}

}  // namespace

int runApplication(int argc, char* argv[], const std::string& rootPath, std::int32_t verbosity,
                   const EmbeddedApplication& application) {
    startInterpreter(rootPath);
    std::string scriptPath = Config().get("TAVREL_ROOT") + "/bin/python/Main/Main.pyc";
    argv[0] = scriptPath.data();
    setInterpreterArguments(argc, argv);
    setSysAttribute("tavrel_BUILD_TIME",
                    PythonReference(PyUnicode_FromString(application.buildTime)));
    setSysAttribute("tavrel_verbosityLevel", PythonReference(PyLong_FromLong(verbosity)));
    const int status = runAndTakeStatus(verbosity, application);
    Py_Finalize();
    return status;
}
