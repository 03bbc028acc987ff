#pragma once

// A minidump read back: what stacks can be found from, long after the process has gone.
//
//     const std::optional<DumpContents> contents = readDump(file);
//
// A dump may be damaged, or made so with intent: what can't be read is left out.
// While it is read, std::clog and std::cerr say nothing: not for a process with other threads that
// do.

#include <istream>
#include <optional>

#include "stacks/record/PythonStacks.h"
#include "stacks/record/StackCapture.h"

namespace Zendrik::Stacks {

struct DumpContents {
    /// Thread pointers are those of the Python stream; without one there are none. Modules without
    /// a build identifier may have one of 32 digits that Breakpad made from their code.
    StackCapture capture;
    PythonStacks python;
};

/// @param dump a seekable stream at its beginning
/// @return none if that is no minidump
std::optional<DumpContents> readDump(std::istream& dump);

}  // namespace Zendrik::Stacks
