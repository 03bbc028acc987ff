#pragma once

#include <string>
#include <vector>

namespace UTIL {

/// Where the tree keeps the interpreter and the Python modules, from the install root alone:
///
///     const PythonLayout layout(rootPath);
///     Py_SetPythonHome(decoded(layout.home));
///
/// All paths are absolute. None is looked at: a folder that is missing is listed all the same.
struct PythonLayout {
    /// @param root install root, without a separator at the end
    explicit PythonLayout(const std::string& root);

    std::string home;                  ///< what Py_SetPythonHome is given
    std::string executable;            ///< the interpreter's program, for sys.executable
    std::string sitePackages;          ///< folder of the packages added to the interpreter
    std::vector<std::string> folders;  ///< the tree's part of sys.path, first searched first
};

}  // namespace UTIL
