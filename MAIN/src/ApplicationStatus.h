#pragma once

#include "UTIL/src/PythonReference.h"

namespace Launcher {

/// Turns the way the entry script ended into the exit status of the process, and reports on
/// standard error what the user has to know of it. To be called with the interpreter lock held,
/// right after the script, with its exception still pending if it raised one.
/// @param module what running the script returned: null if it raised an exception
/// @return 0 to 255, or -1 for an exception other than SystemExit; no exception is pending then
int takeApplicationStatus(UTIL::PythonReference module);

}  // namespace Launcher
