#pragma once

#include <cstdint>
#include <string>

namespace Launcher {

// Both: main thread, once in a process, in this order.

/// Starts the interpreter in the tree, with the built-in module vendorid. One that can't start ends
/// the process in its own way.
/// @param rootPath install root, see UTIL::InitPython
/// @return false, after a log line, if the tree has no standard library
bool startInterpreter(const std::string& rootPath);

/// Runs the embedded application as `__main__` with all arguments until it ends, and finalises the
/// interpreter. A failure inside the application becomes an exit status.
/// @param argv the process's own; its element 0 is replaced and must not be read afterwards
/// @return 0 to 255, or -1 for an exception other than SystemExit
int runApplication(int argc, char* argv[], std::int32_t verbosity);

}  // namespace Launcher
