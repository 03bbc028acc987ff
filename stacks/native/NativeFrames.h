#pragma once

// The native frames of captured threads: where each stands, and who called it.
//
//     const NativeStacks stacks = findNativeFrames(capture, framesProgram(),
//                                                  std::chrono::milliseconds(5000));
//     for (const ThreadFrames& thread : stacks.threads) ...
//
// The work is done by the program tavrelFrames, the only one that loads the library which reads
// modules and their debug information (libdw). A module may be damaged, and such a library may then
// assert, crash or never come back: that costs this process nothing but the frames that had not
// come yet.

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "stacks/record/StackCapture.h"

namespace Zendrik::Stacks {

struct NativeFrame {
    /// The instruction that is being executed, or that a call returns to.
    std::uint64_t pc = 0;
    /// Path of the file that it lies in; empty: in none.
    std::string module;
    /// From the module's start; 0 without one.
    std::uint64_t moduleOffset = 0;
    /// Demangled; empty: not known.
    std::string function;
    /// From the function's start; 0 for an inlined one.
    std::uint64_t functionOffset = 0;
    /// Of the call or instruction; empty: no debug information.
    std::string file;
    int line = 0;
    /// The function has no frame of its own: it is part of the next one that isn't inlined.
    bool inlined = false;
    /// Found by looking for something like a return address, or called by such a frame.
    bool guessed = false;
};

struct ThreadFrames {
    pid_t tid = 0;
    /// Innermost first.
    std::vector<NativeFrame> frames;
    /// Whether the last frame is the one that the thread began with.
    bool whole = false;
};

struct NativeStacks {
    /// One for each thread of the capture, in its order.
    std::vector<ThreadFrames> threads;
    /// Why nothing or not everything could be found, in sentences; empty if all was.
    std::vector<std::string> notes;
};

/// The path of tavrelFrames beside the running program. Not for two threads at the same time.
std::string framesProgram();

/// The frames of all threads of `capture`. Never fails: what the program can't find any more, or in
/// the time, is made of the capture alone (module and offset, along the frame pointers).
/// @param program path of tavrelFrames
/// @param limit for all threads together; the program is killed and reaped when it is over
NativeStacks findNativeFrames(const StackCapture& capture, const std::string& program,
                              std::chrono::milliseconds limit);

}  // namespace Zendrik::Stacks
