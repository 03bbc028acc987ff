#pragma once

#include "process/ProcessEnd.h"
#include "programs/CrashReporterTavrel/channel/ReportChannel.h"
#include "programs/CrashReporterTavrel/folder/DumpFolder.h"

namespace Zendrik::Reporter {

/// What the launcher has asked for: the same for every process of the reporter, for its whole run.
struct Service {
    ReportChannel channel;
    Plexum3::Base::ProcessEnd launcher;
    bool prompt;        ///< ask the user about each report
    NameSeed nameSeed;  ///< a guardian that serves a request anew gives it the name that it had
};

/// For how long a crashed process is held at most, whatever becomes of those who work on it. Before
/// that the guardian has given up on the dump, then on the report.
constexpr std::chrono::milliseconds holdLimit(8000);

}  // namespace Zendrik::Reporter
