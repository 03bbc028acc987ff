#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace Zendrik::Reporter {

// Breakpad saves a stack from its stack pointer upwards, and saves nothing when the pointer lies
// below the stack: there it stands when a function was entered that needs more than was left. Such
// a dump leads no further than the first frame.
//
// Writes the dump once more, to the new file `path`, with the 128 KiB of stack that come next above
// the pointer of the crashing thread. `context` is the CrashContext that `client` sent. Call it
// while `client` is held. False, with or without a file at `path`, when the pointer stands on the
// stack as it should, when no stack begins within 256 KiB above it, or when writing fails.
bool writeDumpOfOverflow(pid_t client, const std::vector<char>& context, const std::string& path);

// One byte of another process's memory, which disturbs it in no way (process_vm_readv): 0, or the
// errno of the failure. EPERM: the process may not be traced either.
int readingError(pid_t pid, uintptr_t address);

}  // namespace Zendrik::Reporter
