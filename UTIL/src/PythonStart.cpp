#include <Python.h>  // first: it settles feature macros of the system's headers
#include <ZkConfiguration/Configuration.h>
#include <boost/thread/once.hpp>

#include <cstdlib>

#include "UTIL/src/InterpreterSearchPath.h"
#include "UTIL/src/PythonLayout.h"
#include "UTIL/src/PythonReference.h"
#include "UTIL/src/PythonSearchPath.h"
#include "UTIL/src/TavrelBootstrap.h"
#include "UTIL/src/TextLocale.h"

namespace UTIL {

namespace {

using Plexum3::ZkConfiguration::v1::Config;

std::vector<std::string> configuredList(const std::string& key) {
    std::vector<std::string> list;
    if (Config().has(key)) {
        SplitPathList(Config().get(key), list);
    }
    return list;
}

// Home and search path of the interpreter, before it starts.
void settlePaths(const PythonLayout& layout) {
    const char* const pythonPath = std::getenv("PYTHONPATH");
    const TextLocale locale(layout.home + (pythonPath != nullptr ? pythonPath : ""));
    // Never freed: by the end of the start PYTHONMALLOC may have replaced the allocator that the
    // text came from.
    const wchar_t* const wideHome = Py_DecodeLocale(layout.home.c_str(), nullptr);
    Config().set("TAVREL_INTERNAL_PYTHONHOME", layout.home);
    Py_SetPythonHome(wideHome);
    SettleInterpreterSearchPath(layout.folders);
}

void startInTree(const std::string& root) {
    const PythonLayout layout(root);
    settlePaths(layout);
    std::vector<std::string> headEntries = configuredList("TAVREL_DEBUG_PRE_PYTHONPATH");
    headEntries.insert(headEntries.end(), layout.folders.begin(), layout.folders.end());
    Config().set("TAVREL_INTERNAL_PYTHON_SITEPACKAGES", layout.sitePackages);
    Py_Initialize();
    SetSysAttribute("executable", PythonText(layout.executable));
    // Until the launcher sets the real level.
    SetSysAttribute("tavrel_verbosityLevel", PythonReference(PyLong_FromLong(1)));
    PublishSearchPath(BuildSearchPath(headEntries, configuredList("TAVREL_POST_PYTHONPATH")));
}

}  // namespace

void InitPython(std::string installRoot) {
    static boost::once_flag once = BOOST_ONCE_INIT;
    boost::call_once(once, [&installRoot] { startInTree(installRoot); });
}

}  // namespace UTIL
