#pragma once

// The report on a crash, from what was taken while the crashed process was held. The first text has
// what is known at once, and gets its name before anything else is tried. Then the native frames
// are looked for, which takes its time and may go wrong, and the whole text takes its place.

#include <ctime>
#include <string>

#include "programs/CrashReporterTavrel/report/ProcessSnapshot.h"
#include "stacks/native/NativeFrames.h"
#include "stacks/record/PythonStacks.h"
#include "stacks/record/StackCapture.h"

namespace Zendrik::Reporter {

struct CrashFacts {
    const ProcessSnapshot& process;
    std::string dump;  ///< for people: its path, or why there is none
    time_t time;       ///< of the crash, UTC seconds since the epoch
    /// What else there is to say, such as why there are no stacks; a sentence, or empty.
    std::string note;
};

/// The first of the two. Facts that are not known are named so.
std::string firstText(const CrashFacts& facts, const Stacks::StackCapture& capture,
                      const Stacks::PythonStacks& python);

std::string wholeText(const CrashFacts& facts, const Stacks::StackCapture& capture,
                      const Stacks::PythonStacks& python, const Stacks::NativeStacks& native);

/// The signal that a process crashed by, in one line: "SIGSEGV (SEGV_MAPERR) at 0x10". One that a
/// process has sent says so. The processor reports no address for an access to one that can't be:
/// the registers that hold such a value are named instead.
/// @param capture its `pid` is the crashed process's
std::string signalText(const Stacks::StackCapture& capture);

}  // namespace Zendrik::Reporter
