#pragma once

// What a running process is doing, at one moment, while it goes on:
//
//     const LiveCapture live = captureProcess(4711);
//     if (!live.failure.empty()) ...       // "process 4711 " + failure
//     findNativeFrames(live.capture, ...); // from here on nothing waits

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

#include "stacks/memory/HeldThreads.h"
#include "stacks/record/PythonStacks.h"
#include "stacks/record/StackCapture.h"

namespace Zendrik::Stacks {

struct LiveCapture {
    /// Why there is nothing, as a clause whose subject is the process; empty if there is.
    std::string failure;
    StackCapture capture;
    PythonStacks python;
    /// Sentences about what is missing.
    std::vector<std::string> notes;
    /// How long the process stood still.
    std::chrono::microseconds held{};
};

/// Holds all threads of a process, copies what their stacks can be found from, and lets them go.
/// Stopped processes stay stopped, no signal is lost, and should this process die meanwhile the
/// other one goes on.
///
/// A thread that can't be stopped, as it waits for a disk or a server, is named in the notes after
/// 200 ms; its Python frames are there. A process whose memory can't be read for 5 s, for the same
/// reason, is a failure. The thread that reads it is then left behind, and holds what it holds
/// until this process ends: which should be soon.
///
/// @param pid a process, or any thread of it
/// @throw std::system_error if no thread can be started
LiveCapture captureProcess(pid_t pid);

/// Reads what has to be read while `threads` are held: registers, files, stacks, Python. Of a
/// process that could not be held, the files alone.
/// @param live which has the process id and the failure to hold it; of a crashed process also the
///     crashed thread with the registers that the signal met
void captureContent(const HeldThreads& threads, LiveCapture& live);

/// Adds the names of the threads, and a note for each that could not be stopped. They need not be
/// held any more.
void nameThreads(const HeldThreads& threads, LiveCapture& live);

}  // namespace Zendrik::Stacks
