#pragma once

#include <string>
#include <vector>

namespace UTIL {

/// Has the interpreter work out its search path with the tree's folders in front of PYTHONPATH.
///
/// `Py_Initialize` imports a dozen modules of the standard library (encodings, io, os, site...) and
/// looks for them in PYTHONPATH before it looks into its own home. The path that it searches is
/// worked out and kept by the first call that asks for it, which is made here while the variable
/// begins with the tree's folders. The user's value is back when this returns, so that site code,
/// the programs that it starts and the application see nothing else.
///
/// Without a PYTHONPATH, or with an empty one, nothing is done; without memory for the longer value
/// the user's entries are searched first. To be called between
/// Py_SetPythonHome and Py_Initialize, on the main thread, while no other reads the environment.
/// @param treeFolders absolute, in the order in which they are to be searched
void SettleInterpreterSearchPath(const std::vector<std::string>& treeFolders);

}  // namespace UTIL
