#pragma once

#include <vector>

#include "stacks/Mappings.h"
#include "stacks/ProcessMemory.h"
#include "stacks/StackCapture.h"

namespace Zendrik::Stacks {

/// Copies the used part of each thread's stack into `capture.memory`: from below the stack pointer
/// (a function may use 128 bytes there) to the end of the mapping, 1 MiB at most, 64 MiB of all. Of
/// a thread in a signal handler with a stack of its own, both stacks. A stack pointer that has left
/// its stack at the lower end, by 256 KiB at most, has overflowed it.
/// @param capture of a process that is held; the registers are there
void copyStacks(StackCapture& capture, const std::vector<Mapping>& mappings,
                const MemoryReader& memory);

}  // namespace Zendrik::Stacks
