#pragma once

#include <cstdint>
#include <string>

namespace Launcher {

/// The embedded interpreter, from its start to its end:
///
///     if (!startInterpreter(rootPath)) return 1;
///     return runApplication(argc, argv, verbosity);
///
/// Main thread, once in a process.

/// Starts the interpreter in the tree, with the built-in module vendorid. One that can't start ends
/// the process in its own way.
/// @param rootPath install root, see UTIL::InitPython
/// @return false, after a log line, if the tree has no standard library
bool startInterpreter(const std::string& rootPath);

/// Runs the embedded application as `__main__` until it ends, and finalises the interpreter.
/// Nothing stops it early: a failure inside the application becomes an exit status, after the
/// interpreter has reported it on standard error.
///
/// `sys.argv` shows all arguments behind the script's path, `sys.tavrel_BUILD_TIME` the build time,
/// `sys.tavrel_verbosityLevel` the verbosity.
///
/// @param argv the process's own argument array; its element 0 is replaced and must not be read
///        after the return
/// @return exit status of the process: 0 to 255, or -1 for an exception other than SystemExit; 255
///         in place of 0 for a batch or a script whose standard output could not be written
int runApplication(int argc, char* argv[], std::int32_t verbosity);

}  // namespace Launcher
