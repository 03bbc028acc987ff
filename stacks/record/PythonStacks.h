#pragma once

// What the threads of a process were doing in Python: plain records, filled by PythonReader while
// the threads stand still, or read back from a dump. They hold no values of variables, which no one
// would want to send.
//
// A Python thread belongs to the native one with the same thread pointer. It needn't be one to one:
// - a native thread may have none, or several: one for each interpreter that it has entered, the
//   interpreter's youngest first;
// - a Python thread may have no native one: its thread has ended without a word to the interpreter,
//   or is of the process that this one was forked from.

#include <cstdint>
#include <string>
#include <vector>

namespace Zendrik::Stacks {

/// One function under way. The texts are UTF-8 and complete but for their length, which is bounded;
/// control characters are as the script had them: printing masks them.
struct PythonFrame {
    std::string file;
    std::string function;
    int line = 0;
};

/// One thread state of one interpreter.
struct PythonThread {
    std::uint64_t threadPointer = 0;
    /// Whether it holds the interpreter's lock.
    bool holdsLock = false;
    /// Innermost first. Empty for a thread that is in no Python function.
    std::vector<PythonFrame> frames;
    /// Why `frames` ends early, as the end of a sentence; empty if it is whole.
    std::string cutShort;
};

/// All of a process. Without an interpreter there are no threads and there is no note.
struct PythonStacks {
    std::vector<PythonThread> threads;
    /// Why nothing or not everything could be read, as a clause; empty if all was.
    std::string note;
};

}  // namespace Zendrik::Stacks
