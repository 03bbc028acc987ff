#pragma once

/// The texts of /proc behind SystemMetrics.h, apart from where they are read. Functions that take
/// one line of a source store what they find in it and pass over other lines; lines come without
/// their newline. No state, no allocation; any thread.

#include <sched.h>

#include <cstdint>
#include <optional>

#include "process/SystemMetrics.h"

namespace Plexum3::Base {

void parseSystemMemoryLine(const char* line, SystemMemory& memory);
void parseProcessMemoryLine(const char* line, ProcessMemory& memory);
void parseProcessIoLine(const char* line, ProcessIo& io);
/// `tickMicroseconds`: how long a tick of the source is. `allowed`: see getCpuTimes.
void parseCpuTimesLine(const char* line, const cpu_set_t& allowed, std::uint64_t tickMicroseconds,
                       CpuTimes& times);
/// Hertz, 0 once it is certain that nothing will be found; nothing as long as the search goes on.
std::optional<std::int64_t> parseCpuInfoLine(const char* line);
LoadCounts parseLoadCounts(const char* text);
/// The state letter of the text of a /proc/PID/stat, 0 if there is none.
char parseThreadState(const char* text);

}  // namespace Plexum3::Base
