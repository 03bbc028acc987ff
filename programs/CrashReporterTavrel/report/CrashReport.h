#pragma once

// The report on a crash, from what was taken while the crashed process was held:
//
//     const int error = writeReport(staging.fd(), "report", facts, capture, python,
//                                   Stacks::framesProgram());
//
// It is written twice. The draft has what is known by then: the facts, the signal, Python's stacks.
// Then the native frames are looked for, which takes its time and may go wrong, and the whole
// report takes the draft's place. So whenever this process dies, a report is there.

#include <ctime>
#include <string>

#include "programs/CrashReporterTavrel/dump/ProcessSnapshot.h"
#include "stacks/NativeFrames.h"
#include "stacks/PythonStacks.h"
#include "stacks/StackCapture.h"

namespace Zendrik::Reporter {

struct CrashFacts {
    const ProcessSnapshot& process;
    std::string sessionId;  ///< empty: none
    std::string dump;       ///< for people: its path, or why there is none
    time_t time;            ///< of the crash, UTC seconds since the epoch
    /// What else there is to say, such as why there are no stacks; a sentence, or empty.
    std::string note;
};

/// The first of the two. Facts that are not known say so.
std::string draftText(const CrashFacts& facts, const Stacks::StackCapture& capture,
                      const Stacks::PythonStacks& python);

std::string reportText(const CrashFacts& facts, const Stacks::StackCapture& capture,
                       const Stacks::PythonStacks& python, const Stacks::NativeStacks& native);

/// Writes both, one after the other, as the file `name` (mode 0600) of the open folder `folder`.
/// Takes up to 10 s over the native frames.
/// @param framesProgram see Stacks::findNativeFrames
/// @return 0, or the errno of a failure, after which the draft or nothing is there
int writeReport(int folder, const std::string& name, const CrashFacts& facts,
                const Stacks::StackCapture& capture, const Stacks::PythonStacks& python,
                const std::string& framesProgram);

/// The session identifier that the launcher handed over: it appends ZK_SESSION_ID to the
/// environment without merging, so the last entry of that name is the launcher's.
std::string sessionIdOf(const char* const* environment);

}  // namespace Zendrik::Reporter
