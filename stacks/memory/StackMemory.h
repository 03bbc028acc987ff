#pragma once

#include <string>
#include <vector>

#include "stacks/memory/Mappings.h"
#include "stacks/memory/ProcessMemory.h"
#include "stacks/record/StackCapture.h"

namespace Zendrik::Stacks {

/// Copies into `capture.memory` what the stacks of its threads can be read from: of each the used
/// part, from below the stack pointer (a function may use 128 bytes there) to the end of the
/// mapping, 1 MiB at most. Of a thread in a signal handler with a stack of its own, both stacks. Of
/// a stack pointer that has left its stack at the lower end, the stack that it has left.
///
/// All together are 64 MiB at most: the crashed thread's first, then the smaller ones.
/// @param capture of a process that is held; the registers are there
/// @return a sentence about what was cut; empty if nothing was
std::string copyStacks(StackCapture& capture, const std::vector<Mapping>& mappings,
                       const MemoryReader& memory);

/// Copies into `capture.memory` the code that can't be had from files later: 128 bytes on either
/// side of the crashed thread's instruction, and of files that have been deleted or replaced since
/// they were loaded, up to 1 MiB each and 8 MiB together.
void copyCode(StackCapture& capture, const std::vector<Mapping>& mappings,
              const MemoryReader& memory);

}  // namespace Zendrik::Stacks
