#include "process/SystemMetricsText.h"

#include <cstdio>
#include <string_view>

namespace Plexum3::Base {
namespace {

// Stores the number behind a label such as "MemFree: %ld", times 2 to the `shift`.
void scanCount(const char* line, const char* format, unsigned shift, std::uint64_t& count) {
    long value = 0;
    if (std::sscanf(line, format, &value) == 1) {
        count = static_cast<std::uint64_t>(value) << shift;
    }
}

constexpr unsigned kibibytes = 10;
constexpr unsigned bytes = 0;

bool isAllowed(int cpu, const cpu_set_t& allowed) {
    if (cpu >= CPU_SETSIZE) {
        return true;
    }
    return cpu >= 0 && CPU_ISSET(cpu, &allowed);
}

}  // namespace

void parseSystemMemoryLine(const char* line, SystemMemory& memory) {
    scanCount(line, "MemTotal: %ld", kibibytes, memory.total);
    scanCount(line, "MemFree: %ld", kibibytes, memory.free);
    scanCount(line, "SwapTotal: %ld", kibibytes, memory.swapTotal);
    scanCount(line, "SwapFree: %ld", kibibytes, memory.swapFree);
}

void parseProcessMemoryLine(const char* line, ProcessMemory& memory) {
    scanCount(line, "VmRSS: %ld", kibibytes, memory.resident);
    scanCount(line, "VmHWM: %ld", kibibytes, memory.peakResident);
    scanCount(line, "VmSwap: %ld", kibibytes, memory.swap);
}

void parseProcessIoLine(const char* line, ProcessIo& io) {
    scanCount(line, "rchar: %ld", bytes, io.bytesRead);
    scanCount(line, "wchar: %ld", bytes, io.bytesWritten);
}

void parseCpuTimesLine(const char* line, const cpu_set_t& allowed, std::uint64_t tickMicroseconds,
                       CpuTimes& times) {
    int cpu = 0;
    long user = 0;
    long nice = 0;
    long system = 0;
    long idle = 0;
    long iowait = 0;
    long irq = 0;
    long softirq = 0;
    long steal = 0;
    constexpr int columns = 9;
    // The summary line "cpu  1 2 ..." would be taken for a processor of the number 1.
    const bool isSummary = std::string_view(line).substr(0, 4) == "cpu ";
    if (isSummary || std::sscanf(line, "cpu%d %ld %ld %ld %ld %ld %ld %ld %ld", &cpu, &user, &nice,
                                 &system, &idle, &iowait, &irq, &softirq, &steal) != columns) {
        return;
    }
    const auto inTime = [=](std::uint64_t ticks) { return ticks * tickMicroseconds; };
    const std::uint64_t userTime = inTime(std::uint64_t(user) + nice);
    const std::uint64_t systemTime = inTime(std::uint64_t(system) + irq + softirq + steal);
    const std::uint64_t idleTime = inTime(std::uint64_t(idle) + iowait);
    times.allUser += userTime;
    times.allSystem += systemTime;
    times.allIdle += idleTime;
    if (isAllowed(cpu, allowed)) {
        times.user += userTime;
        times.system += systemTime;
        times.idle += idleTime;
    }
}

std::optional<std::int64_t> parseCpuInfoLine(const char* line) {
    float megahertz = 0;
    const int matched = std::sscanf(line, "cpu MHz : %f", &megahertz);
    if (matched == 0) {
        return std::nullopt;
    }
    // An empty line gives EOF: the block of the first processor is over, without a clock. The
    // product is in single precision, and guarded: a conversion that does not fit is undefined.
    const float value = megahertz * 1000.0F * 1000.0F;
    constexpr float limit = 9.2e18F;
    const bool fits = matched == 1 && value > -limit && value < limit;
    return fits ? static_cast<std::int64_t>(value) : 0;
}

LoadCounts parseLoadCounts(const char* text) {
    LoadCounts counts;
    // Whatever did not match stays 0.
    static_cast<void>(
        std::sscanf(text, "%*f %*f %*f %d/%d", &counts.runnableTasks, &counts.totalTasks));
    return counts;
}

char parseThreadState(const char* text) {
    char state = 0;
    return std::sscanf(text, "%*d %*s %c", &state) == 1 ? state : '\0';
}

}  // namespace Plexum3::Base
