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
#include <cstdlib>
#include <iterator>
#include <memory>
#include <optional>
#include <string>

#include "process/SystemMetricsText.h"

namespace Plexum3::Base {
namespace {

constexpr std::uint64_t microsecondsPerSecond = 1'000'000;

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
        const ssize_t length = getline(&raw, &capacity, file.get());
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

// All of a file that is short; empty if it can't be opened.
std::string readText(const char* path) {
    std::string text;
    readLines(path, [&](const char* line) {
        text.append(line).append(1, '\n');
        return true;
    });
    return text;
}

// The value of a file that holds one number of kilohertz, in hertz.
std::optional<std::int64_t> readKilohertz(const char* path) {
    long kilohertz = 0;
    if (std::sscanf(readText(path).c_str(), "%ld", &kilohertz) != 1) {
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

}  // namespace

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
    return parseLoadCounts(readText("/proc/loadavg").c_str());
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
        const char state = parseThreadState(readText((thread.path() / "stat").c_str()).c_str());
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
