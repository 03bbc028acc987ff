#pragma once

// The stacks of a process as text for people, each thread with one stack, native and in Python:
//
//     Crashed thread 4711, worker, holds the interpreter's lock
//       #0   libc.so.6  __strlen_avx2 + 0x19  at ../sysdeps/x86_64/multiarch/strlen-avx2.S:76
//       ...
//       #8   /show/tools/publish.py:27 in readHeader
//       #11  /show/tools/publish.py:31 in publish
//
// The interpreter's own functions between a Python function and what it has called are left out,
// and the gaps in the numbers show where.

#include <string>

#include "stacks/native/NativeFrames.h"
#include "stacks/record/PythonStacks.h"
#include "stacks/record/StackCapture.h"

namespace Zendrik::Stacks {

/// The stacks of one capture. References are kept.
struct StackText {
    const StackCapture& capture;
    const PythonStacks& python;
    const NativeStacks& native;
    /// Every native frame, the interpreter's own, too.
    bool allFrames = false;

    /// All threads, the crashed one first; then what is to be said about frames and names that are
    /// missing.
    std::string write() const;
};

/// Where each thread stands, module and offset alone, a line each under a heading, the crashed one
/// first. It needs neither time nor files.
std::string placesText(const StackCapture& capture);

/// The Python functions of one native thread, innermost first, a line for each, indented; empty if
/// there are none.
/// @param threadPointer 0 has none
std::string pythonText(const PythonStacks& python, std::uint64_t threadPointer);

/// All threads that are in Python, in the form of `pythonText` under a heading each.
std::string pythonText(const StackCapture& capture, const PythonStacks& python);

}  // namespace Zendrik::Stacks
