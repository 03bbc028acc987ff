#include "process/SystemMetrics.h"

#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>
#include <boost/thread/thread.hpp>
#include <dlfcn.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>

#include "process/ProcFiles.h"
#include "process/SystemMetricsText.h"

namespace Plexum3::Base {
namespace {

constexpr std::uint64_t microsecondsPerSecond = 1'000'000;

// Calls `takeLine(text)` for each line of the file until that returns false. A file that can't be
// read has no lines.
template <class TakeLine>
void readLines(const char* path, TakeLine takeLine) {
    std::istringstream lines(readSmallFile(path));
    for (std::string line; std::getline(lines, line) && takeLine(line.c_str());) {
    }
}

// Fills a record from every line of a source.
template <class Record, class ParseLine>
Record readRecord(const char* path, ParseLine parseLine) {
    Record record;
    readLines(path, [&](const char* line) {
        parseLine(line, record);
        return true;
    });
    return record;
}

// The value of a file that holds one number of kilohertz, in hertz.
std::optional<std::int64_t> readKilohertz(const char* path) {
    long kilohertz = 0;
    if (std::sscanf(readSmallFile(path).c_str(), "%ld", &kilohertz) != 1) {
        return std::nullopt;
    }
    return kilohertz * std::int64_t{1000};
}

std::optional<cpu_set_t> getAffinity() {
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    return sched_getaffinity(getpid(), sizeof allowed, &allowed) == 0 ? std::optional(allowed)
                                                                      : std::nullopt;
}

std::uint64_t inMicroseconds(const timeval& time) {
    return static_cast<std::uint64_t>(time.tv_sec) * microsecondsPerSecond +
           static_cast<std::uint64_t>(time.tv_usec);
}

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

std::int64_t getCpuFrequency() {
    std::optional<std::int64_t> hertz;
    for (const char* const file : {"tsc_freq_khz", "cpufreq/cpuinfo_max_freq"}) {
        hertz = readKilohertz((std::string("/sys/devices/system/cpu/cpu0/") + file).c_str());
        if (hertz) {
            return *hertz;
        }
    }
    readLines("/proc/cpuinfo", [&hertz](const char* line) {
        hertz = parseCpuInfoLine(line);
        return !hertz;
    });
    return hertz.value_or(0);
}

SystemMemory getSystemMemory() {
    return readRecord<SystemMemory>("/proc/meminfo", parseSystemMemoryLine);
}

ProcessMemory getProcessMemory() {
    return readRecord<ProcessMemory>("/proc/self/status", parseProcessMemoryLine);
}

LoadCounts getLoadCounts() {
    return parseLoadCounts(readSmallFile("/proc/loadavg").c_str());
}

ProcessIo getProcessIo() {
    return readRecord<ProcessIo>("/proc/self/io", parseProcessIoLine);
}

ProcessCpuTime getProcessCpuTime() {
    rusage usage{};
    if (getrusage(RUSAGE_SELF, &usage) != 0) {
        return {};
    }
    return {inMicroseconds(usage.ru_utime), inMicroseconds(usage.ru_stime)};
}

CpuTimes getCpuTimes() {
    const std::optional<cpu_set_t> allowed = getAffinity();
    if (!allowed) {
        return {};
    }
    const std::uint64_t tickMicroseconds =
        microsecondsPerSecond / static_cast<std::uint64_t>(sysconf(_SC_CLK_TCK));
    return readRecord<CpuTimes>("/proc/stat", [&](const char* line, CpuTimes& times) {
        parseCpuTimesLine(line, *allowed, tickMicroseconds, times);
    });
}

int getStackUsage(std::uint64_t& stackSize, std::uint64_t& stackUsed) {
    stackSize = 0;
    stackUsed = 0;
    pthread_attr_t attributes;
    const int error = pthread_getattr_np(pthread_self(), &attributes);
    if (error != 0) {
        return error;
    }
    void* lowest = nullptr;
    std::size_t size = 0;
    if (pthread_attr_getstack(&attributes, &lowest, &size) == 0) {
        const auto end = reinterpret_cast<std::uintptr_t>(lowest) + size;
        const auto here = reinterpret_cast<std::uintptr_t>(&size);
        stackSize = size;
        stackUsed = end > here ? end - here : here - end;
    }
    return pthread_attr_destroy(&attributes);
}

ThreadCounts getThreadCounts() {
    ThreadCounts counts;
    for (const auto& thread : boost::filesystem::directory_iterator("/proc/self/task")) {
        // No text and so no letter: the thread has gone meanwhile.
        const char state =
            parseThreadState(readSmallFile((thread.path() / "stat").string()).c_str());
        if (state != '\0') {
            ++counts.threads;
            counts.runningThreads += state == 'R' ? 1 : 0;
        }
    }
    return counts;
}

int getOpenDescriptorCount() {
    const boost::filesystem::directory_iterator descriptors("/proc/self/fd");
    return static_cast<int>(
        std::distance(begin(descriptors), boost::filesystem::directory_iterator()));
}

std::vector<int> getAllowedCpus() {
    std::vector<int> numbers;
    const std::optional<cpu_set_t> allowed = getAffinity();
    const unsigned online = boost::thread::hardware_concurrency();
    if (!allowed) {
        return numbers;
    }
    const int end = static_cast<int>(std::min<unsigned>(online, CPU_SETSIZE));
    for (int cpu = 0; cpu < end; ++cpu) {
        if (CPU_ISSET(cpu, &*allowed)) {
            numbers.push_back(cpu);
        }
    }
    return numbers;
}

int getProcessId() {
    return getpid();
}

std::int64_t getThreadId() {
    return syscall(SYS_gettid);
}

std::string getModulePath(const void* address) {
    Dl_info module{};
    if (dladdr(address, &module) == 0 || module.dli_fname == nullptr || *module.dli_fname == '\0') {
        return {};
    }
    return boost::filesystem::canonical(module.dli_fname, boost::filesystem::current_path())
        .string();
}

}  // namespace Plexum3::Base
