#include "process/SystemMetrics.h"

#include <dlfcn.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string_view>

#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>
#include <boost/thread/thread.hpp>

namespace Plexum3::Base {
namespace {

constexpr std::uint64_t MICROSECONDS_PER_SECOND = 1'000'000;

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
struct Freer {
    void operator()(char* memory) const { std::free(memory); }
};

// Calls `takeLine(text)` for each line of the file, without its newline, until that returns false.
// A file that can't be opened has no lines.
template <class TakeLine>
void readLines(const char* path, TakeLine takeLine) {
    // "e": not to be inherited by what another thread executes meanwhile.
    const std::unique_ptr<std::FILE, FileCloser> file(std::fopen(path, "re"));
    if (file == nullptr) {
        return;
    }
    std::unique_ptr<char, Freer> buffer;
    std::size_t capacity = 0;
    for (;;) {
        char* raw = buffer.release();
        const ssize_t length = ::getline(&raw, &capacity, file.get());
        buffer.reset(raw);
        if (length == -1) {
            return;
        }
        if (length > 0 && raw[length - 1] == '\n') {
            raw[length - 1] = '\0';
        }
        if (!takeLine(static_cast<const char*>(raw))) {
            return;
        }
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

std::string readFirstLine(const char* path) {
    std::string first;
    readLines(path, [&](const char* line) {
        first = line;
        return false;
    });
    return first;
}

// Stores the number behind a label such as "MemFree: %ld", times 2 to the `shift`.
void scanCount(const char* line, const char* format, unsigned shift, std::uint64_t& count) {
    long value = 0;
    if (std::sscanf(line, format, &value) == 1) {
        count = static_cast<std::uint64_t>(value) << shift;
    }
}

constexpr unsigned KIBIBYTES = 10;
constexpr unsigned BYTES = 0;

// The value of a file that holds one number of kilohertz, in hertz.
bool readKilohertz(const char* path, std::int64_t& hertz) {
    long kilohertz = 0;
    if (std::sscanf(readFirstLine(path).c_str(), "%ld", &kilohertz) != 1) {
        return false;
    }
    hertz = kilohertz * std::int64_t{1000};
    return true;
}

bool isAllowed(int cpu, const cpu_set_t& allowed) {
    if (cpu >= CPU_SETSIZE) {
        return true;
    }
    return cpu >= 0 && CPU_ISSET(cpu, &allowed);
}

bool getAffinity(cpu_set_t& allowed) {
    CPU_ZERO(&allowed);
    return ::sched_getaffinity(::getpid(), sizeof allowed, &allowed) == 0;
}

std::uint64_t inMicroseconds(const timeval& time) {
    return static_cast<std::uint64_t>(time.tv_sec) * MICROSECONDS_PER_SECOND +
           static_cast<std::uint64_t>(time.tv_usec);
}

}  // namespace

void parseSystemMemoryLine(const char* line, SystemMemory& memory) {
    scanCount(line, "MemTotal: %ld", KIBIBYTES, memory.total);
    scanCount(line, "MemFree: %ld", KIBIBYTES, memory.free);
    scanCount(line, "SwapTotal: %ld", KIBIBYTES, memory.swapTotal);
    scanCount(line, "SwapFree: %ld", KIBIBYTES, memory.swapFree);
}

void parseProcessMemoryLine(const char* line, ProcessMemory& memory) {
    scanCount(line, "VmRSS: %ld", KIBIBYTES, memory.resident);
    scanCount(line, "VmHWM: %ld", KIBIBYTES, memory.peakResident);
    scanCount(line, "VmSwap: %ld", KIBIBYTES, memory.swap);
}

void parseProcessIoLine(const char* line, ProcessIo& io) {
    scanCount(line, "rchar: %ld", BYTES, io.bytesRead);
    scanCount(line, "wchar: %ld", BYTES, io.bytesWritten);
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
    constexpr int COLUMNS = 9;
    // The summary line "cpu  1 2 ..." would be taken for a processor of the number 1.
    const bool isSummary = std::string_view(line).substr(0, 4) == "cpu ";
    if (isSummary || std::sscanf(line, "cpu%d %ld %ld %ld %ld %ld %ld %ld %ld", &cpu, &user, &nice,
                                 &system, &idle, &iowait, &irq, &softirq, &steal) != COLUMNS) {
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

bool parseCpuInfoLine(const char* line, std::int64_t& hertz) {
    float megahertz = 0;
    const int matched = std::sscanf(line, "cpu MHz : %f", &megahertz);
    if (matched == 1) {
        // In single precision, and guarded: a conversion that does not fit is undefined.
        const float value = megahertz * 1000.0F * 1000.0F;
        constexpr float LIMIT = 9.2e18F;
        hertz = value > -LIMIT && value < LIMIT ? static_cast<std::int64_t>(value) : 0;
    }
    // Below 0 for an empty line: the block of the first processor is over.
    return matched != 0;
}

LoadCounts parseLoadCounts(const char* text) {
    LoadCounts counts;
    // Whatever did not match stays 0.
    (void)std::sscanf(text, "%*f %*f %*f %d/%d", &counts.runnableTasks, &counts.totalTasks);
    return counts;
}

char parseThreadState(const char* text) {
    char state = 0;
    return std::sscanf(text, "%*d %*s %c", &state) == 1 ? state : '\0';
}

std::int64_t getCpuFrequency() {
    std::int64_t hertz = 0;
    if (readKilohertz("/sys/devices/system/cpu/cpu0/tsc_freq_khz", hertz) ||
        readKilohertz("/sys/devices/system/cpu/cpu0/cpufreq/cpuinfo_max_freq", hertz)) {
        return hertz;
    }
    readLines("/proc/cpuinfo",
              [&hertz](const char* line) { return !parseCpuInfoLine(line, hertz); });
    return hertz;
}

SystemMemory getSystemMemory() {
    return readRecord<SystemMemory>("/proc/meminfo", parseSystemMemoryLine);
}

ProcessMemory getProcessMemory() {
    return readRecord<ProcessMemory>("/proc/self/status", parseProcessMemoryLine);
}

LoadCounts getLoadCounts() {
    return parseLoadCounts(readFirstLine("/proc/loadavg").c_str());
}

ProcessIo getProcessIo() {
    return readRecord<ProcessIo>("/proc/self/io", parseProcessIoLine);
}

ProcessCpuTime getProcessCpuTime() {
    rusage usage{};
    if (::getrusage(RUSAGE_SELF, &usage) != 0) {
        return {};
    }
    return {inMicroseconds(usage.ru_utime), inMicroseconds(usage.ru_stime)};
}

CpuTimes getCpuTimes() {
    cpu_set_t allowed;
    if (!getAffinity(allowed)) {
        return {};
    }
    const std::uint64_t tickMicroseconds =
        MICROSECONDS_PER_SECOND / static_cast<std::uint64_t>(::sysconf(_SC_CLK_TCK));
    return readRecord<CpuTimes>("/proc/stat", [&](const char* line, CpuTimes& times) {
        parseCpuTimesLine(line, allowed, tickMicroseconds, times);
    });
}

int getStackUsage(std::uint64_t& stackSize, std::uint64_t& stackUsed) {
    stackSize = 0;
    stackUsed = 0;
    pthread_attr_t attributes;
    const int error = ::pthread_getattr_np(::pthread_self(), &attributes);
    if (error != 0) {
        return error;
    }
    void* lowest = nullptr;
    std::size_t size = 0;
    if (::pthread_attr_getstack(&attributes, &lowest, &size) == 0) {
        const auto end = reinterpret_cast<std::uintptr_t>(lowest) + size;
        const auto here = reinterpret_cast<std::uintptr_t>(&size);
        stackSize = size;
        stackUsed = end > here ? end - here : here - end;
    }
    return ::pthread_attr_destroy(&attributes);
}

ThreadCounts getThreadCounts() {
    ThreadCounts counts;
    for (const auto& thread : boost::filesystem::directory_iterator("/proc/self/task")) {
        // No text and so no letter: the thread has gone meanwhile.
        const char state =
            parseThreadState(readFirstLine((thread.path() / "stat").c_str()).c_str());
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
    cpu_set_t allowed;
    const unsigned online = boost::thread::hardware_concurrency();
    if (!getAffinity(allowed)) {
        return numbers;
    }
    const int end = static_cast<int>(std::min<unsigned>(online, CPU_SETSIZE));
    for (int cpu = 0; cpu < end; ++cpu) {
        if (CPU_ISSET(cpu, &allowed)) {
            numbers.push_back(cpu);
        }
    }
    return numbers;
}

int getProcessId() {
    return ::getpid();
}

std::int64_t getThreadId() {
    return ::syscall(SYS_gettid);
}

std::string getModulePath(const void* address) {
    Dl_info module{};
    if (::dladdr(address, &module) == 0 || module.dli_fname == nullptr ||
        *module.dli_fname == '\0') {
        return {};
    }
    return boost::filesystem::canonical(module.dli_fname, boost::filesystem::current_path())
        .string();
}

}  // namespace Plexum3::Base
