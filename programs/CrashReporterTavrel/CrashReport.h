#pragma once

#include <cstdio>
#include <ctime>
#include <string>

#include "programs/CrashReporterTavrel/ProcessSnapshot.h"

namespace Zendrik::Reporter {

struct CrashFacts {
    const ProcessSnapshot& process;
    std::string sessionId;  // empty: none
    std::string dumpPath;   // for people
    time_t time;            // of the crash, UTC seconds since the epoch
};

// Writes the whole report into `out`. What the kernel told comes first and is flushed before the
// dump is looked at: a damaged dump that fells the stack walk still leaves that much. `dumpFile` is
// the dump as this process can open it.
// False when the dump could not be read or something could not be written; the report says so
// itself as far as it can.
bool writeReport(std::FILE* out, const CrashFacts& facts, const std::string& dumpFile);

// The session identifier that the launcher handed over: it appends ZK_SESSION_ID to the
// environment without merging, so the last entry of that name is the launcher's.
std::string sessionIdOf(const char* const* environment);

}  // namespace Zendrik::Reporter
