#include "MAIN/src/InterpreterHandOff.h"

#include <Python.h>  // first: it settles feature macros of the system's headers
#include <ZkConfiguration/Configuration.h>
#include <marshal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <iostream>
#include <utility>

#include "MAIN/src/ApplicationEnd.h"
#include "MAIN/src/ConfigurationAndEnvironment.h"
#include "MAIN/src/Embedded.h"
#include "MAIN/src/InterruptDuringStart.h"
#include "MAIN/src/MainLog.h"
#include "MAIN/src/VendorIdModule.h"
#include "UTIL/src/PythonReference.h"
#include "UTIL/src/TavrelBootstrap.h"
#include "crash/src/pythonStackLog.h"

namespace Launcher {

namespace {

using Plexum3::ZkConfiguration::v1::Config;
using UTIL::PythonReference;

constexpr wchar_t programName[] = L"tavrel";

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

void startStackLogIfWanted() {
    if (getEnvironmentVariable("TAVREL_PYTHON_STACK_LOG", "") == "1") {
        // Without it the application runs as well.
        static_cast<void>(Zendrik::Breakpad::startPythonStackLog());
    }
}

PythonReference runEntryScript() {
    if (!handInterruptsToPython()) {
        return nullptr;
    }
    // The code object is kept for the life of the interpreter: the running application is inside
    // it.
    PyObject* code = PyMarshal_ReadObjectFromString(reinterpret_cast<const char*>(entryScript),
                                                    entryScriptLength);
    return PythonReference(PyImport_ExecCodeModule("__main__", code));
}

int runToItsEnd(std::int32_t verbosity) {
    LOG_INFO_ABOVE(1, verbosity, "Executing Tavrel Python application...");
    startStackLogIfWanted();
    PythonReference module = runEntryScript();
    LOG_INFO_ABOVE(1, verbosity, "Tavrel Python application exited.");
    return takeApplicationStatus(std::move(module));
}

void warnOfFolderAsInput() {
    struct stat status = {};
    if (fstat(STDIN_FILENO, &status) == 0 && S_ISDIR(status.st_mode)) {
        std::cerr << "tavrel: standard input is a folder, with which Python can't start\n";
    }
}

}  // namespace

bool startInterpreter(const std::string& rootPath) {
    if (const std::string missing = UTIL::FindMissingLibrary(rootPath); !missing.empty()) {
        LOG_ERROR("Unable to start Python: its standard library is missing in \"" << missing
                                                                                  << '"');
        return false;
    }
    warnOfFolderAsInput();
    Py_SetProgramName(programName);
    RegisterVendorIdModule();
    UTIL::InitPython(rootPath);
    LOG_DEBUG("TAVREL_INTERNAL_PYTHONPATH = " << Config().get("TAVREL_INTERNAL_PYTHONPATH"));
    return true;
}

int runApplication(int argc, char* argv[], std::int32_t verbosity) {
    std::string scriptPath = Config().get("TAVREL_ROOT") + "/bin/python/Main/Main.pyc";
    argv[0] = scriptPath.data();
    setInterpreterArguments(argc, argv);
    UTIL::SetSysAttribute("tavrel_BUILD_TIME", PythonReference(PyUnicode_FromString(buildTime)));
    UTIL::SetSysAttribute("tavrel_verbosityLevel", PythonReference(PyLong_FromLong(verbosity)));
    flushOutputAtExit();
    const int status = runToItsEnd(verbosity);
    Py_Finalize();
    return statusAfterOutput(status);
}

}  // namespace Launcher
