#pragma once

// What Python is doing in another process, read from the interpreter's own records. Nothing of it
// has to be prepared in that process, and nothing is run there.
//
//     const PythonStacks stacks = readPythonStacks(capture.files, processMemory(capture.pid));
//
// The process's threads stand still meanwhile, at whatever place: in the middle of a change, after
// one of them has overwritten the interpreter's records, before there is an interpreter or after.
// So any pointer may be rubbish. Every list has a bound, a ring is noticed, and what can't be read
// is said in the result. The bounds: 4,096 threads, 1,000 functions of each, 64 MiB in all.
//
// A page is read once: two threads with 17 functions take 47 reads, 200 with 3,600 take 620.

#include <vector>

#include "stacks/memory/ProcessMemory.h"
#include "stacks/record/PythonStacks.h"
#include "stacks/record/StackCapture.h"

namespace Zendrik::Stacks {

/// All threads of all interpreters of a process.
/// @param files what is mapped there. The interpreter is the library libpython3.7m.so.1.0, which
///     has to be of the same build as the one that this was compiled for.
/// @return nothing at all, and no note either, for a process without an interpreter: one that
///     doesn't have the library, or hasn't started it yet, or has finalised it
PythonStacks readPythonStacks(const std::vector<MappedFile>& files, const MemoryReader& memory);

}  // namespace Zendrik::Stacks
