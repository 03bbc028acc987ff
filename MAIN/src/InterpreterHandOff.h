#pragma once

#include <cstdint>
#include <string>

namespace Launcher {

/// What the executable carries for the interpreter.
struct EmbeddedApplication {
    const unsigned char* code;  ///< code object, marshalled by the same version of the interpreter
    std::uint32_t codeLength;   ///< bytes
    const char* buildTime;      ///< zero-terminated UTF-8
};

/// Starts the interpreter, runs the application in it as `__main__` until it ends, and finalises
/// it. Main thread, once in a process. Nothing stops it early: a failure inside the application
/// becomes an exit status, after the interpreter has reported it on standard error.
///
/// `sys.argv` shows all arguments behind the script's path, `sys.tavrel_BUILD_TIME` the build time,
/// `sys.tavrel_verbosityLevel` the verbosity.
///
/// @param argv the process's own argument array; its element 0 is replaced and must not be read
///        after the return
/// @param rootPath install root, see UTIL::InitPython
/// @return exit status of the process: 0 to 255, or -1 for an exception other than SystemExit; 255
///         in place of 0 for a batch or a script whose standard output could not be written
int runApplication(int argc, char* argv[], const std::string& rootPath, std::int32_t verbosity,
                   const EmbeddedApplication& application);

}  // namespace Launcher
