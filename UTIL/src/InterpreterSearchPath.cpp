#include "UTIL/src/InterpreterSearchPath.h"

#include <Python.h>  // first: it settles feature macros of the system's headers
#include <ZkPlexumSDK/pystring.h>

#include <cstdlib>

namespace UTIL {

void SettleInterpreterSearchPath(const std::vector<std::string>& treeFolders) {
    constexpr char variable[] = "PYTHONPATH";
    const char* const value = std::getenv(variable);
    if (value == nullptr || *value == '\0') {
        return;
    }
    const std::string usersValue = value;
    const std::string inFront = Plexum3::internal::pystring_v1::join(":", treeFolders) + ":";
    // Without memory for it the interpreter starts with the user's entries in front.
    if (setenv(variable, (inFront + usersValue).c_str(), /*overwrite=*/1) == 0) {
        static_cast<void>(Py_GetPath());
        static_cast<void>(setenv(variable, usersValue.c_str(), /*overwrite=*/1));
    }
}

}  // namespace UTIL
