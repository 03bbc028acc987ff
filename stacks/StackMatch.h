#pragma once

#include <map>
#include <vector>

#include "stacks/native/NativeFrames.h"
#include "stacks/record/PythonStacks.h"

namespace Zendrik::Stacks {

/// One thread's Python functions, laid over its native frames.
struct StackMatch {
    /// Index of a native frame of the interpreter, and the Python function that it executes. Empty
    /// where the two don't add up: they then stand one after the other.
    std::map<std::size_t, const PythonFrame*> functions;
    /// Outermost functions whose native frames were not reached.
    std::vector<const PythonFrame*> rest;
};

/// Every Python function is executed by one frame of the interpreter's, so they are matched from
/// the innermost on if there are as many, or if a list that is shorter was cut at its outer end.
/// @param python the thread's own; kept by pointer in the result
StackMatch matchFrames(const ThreadFrames& native, const PythonThread& python);

/// Whether the frame is one of the interpreter's own ways to call a function.
bool isCallMachinery(const NativeFrame& frame);

/// What the interpreter's own frames say of a thread.
bool waitsForLock(const ThreadFrames& native);
bool collectsGarbage(const ThreadFrames& native);

}  // namespace Zendrik::Stacks
