#include "process/SystemMetrics.h"

#include <fcntl.h>
#include <unistd.h>
#include <algorithm>
#include <numeric>
#include <sstream>
#include <thread>

#include <boost/filesystem/operations.hpp>

#include "tests/process/ProcessFixture.h"

namespace Plexum3::Base {
namespace {

class SystemMetricsTest : public ProcessFixture {};

// Feeds a text to a parser of lines; stops early if that says so.
template <class ParseLine>
void feed(const std::string& text, ParseLine parseLine) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line) && !parseLine(line.c_str());) {
    }
}

TEST_F(SystemMetricsTest, MemoryTextsAreInKibibytes) {
    SystemMemory memory;
    feed(
        "MemTotal:       24684096 kB\nMemFree:   100 kB\nMemFree:   200 kB\nMemAvailable: 7 kB\n"
        "SwapCached: 5 kB\nSwapTotal: 0 kB\nSwapFree: none\n",
        [&](const char* line) { return parseSystemMemoryLine(line, memory), false; });
    EXPECT_EQ(memory.total, 24684096ULL * 1024);
    EXPECT_EQ(memory.free, 200ULL * 1024) << "the last match counts";
    EXPECT_EQ(memory.swapTotal, 0U);
    EXPECT_EQ(memory.swapFree, 0U);

    ProcessMemory process;
    feed("Name:\tVmRSS: 9\nVmHWM:\t 12 kB\nVmRSS:\t 11 kB\n",
         [&](const char* line) { return parseProcessMemoryLine(line, process), false; });
    EXPECT_EQ(process.resident, 11U * 1024);
    EXPECT_EQ(process.peakResident, 12U * 1024);
    EXPECT_EQ(process.swap, 0U) << "a kernel without VmSwap";

    ProcessIo io;
    feed("rchar: 323934931\nwchar: 5\nsyscr: 7\nread_bytes: 9\nwrite_bytes: 10\n",
         [&](const char* line) { return parseProcessIoLine(line, io), false; });
    EXPECT_EQ(io.bytesRead, 323934931U);
    EXPECT_EQ(io.bytesWritten, 5U);
}

TEST_F(SystemMetricsTest, ProcessorLinesAreSummedByAffinity) {
    struct Case {
        const char* what;
        const char* line;
        bool counted;
        bool allowed;
    };
    const std::vector<Case> cases{
        {"allowed", "cpu1 1 20 300 4000 50000 600000 7000000 80000000 9 9", true, true},
        {"not allowed", "cpu3 1 20 300 4000 50000 600000 7000000 80000000", true, false},
        {"beyond the set", "cpu1024 1 20 300 4000 50000 600000 7000000 80000000 9 9", true, true},
        {"negative", "cpu-1 1 20 300 4000 50000 600000 7000000 80000000", true, false},
        {"eight values", "cpu1 1 20 300 4000 50000 600000 7000000", false, false},
        {"summary", "cpu  1 1 20 300 4000 50000 600000 7000000 80000000 9", false, false},
        {"another line", "intr 1 1 20 300 4000 50000 600000 7000000 80000000 9", false, false},
        {"empty", "", false, false},
    };
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    CPU_SET(1, &allowed);
    CpuTimes all;
    std::uint64_t counted = 0;
    for (const Case& each : cases) {
        SCOPED_TRACE(each.what);
        CpuTimes times;
        parseCpuTimesLine(each.line, allowed, 10'000, times);
        parseCpuTimesLine(each.line, allowed, 10'000, all);
        counted += each.counted ? 1 : 0;
        EXPECT_EQ(times.allUser, each.counted ? 21U * 10'000 : 0);
        EXPECT_EQ(times.allSystem, each.counted ? 87'600'300ULL * 10'000 : 0);
        EXPECT_EQ(times.allIdle, each.counted ? 54'000ULL * 10'000 : 0);
        EXPECT_EQ(times.user, each.allowed ? times.allUser : 0);
        EXPECT_EQ(times.system, each.allowed ? times.allSystem : 0);
        EXPECT_EQ(times.idle, each.allowed ? times.allIdle : 0);
    }
    EXPECT_EQ(all.allUser, counted * 21 * 10'000);
    EXPECT_EQ(all.user, 2U * 21 * 10'000);
}

TEST_F(SystemMetricsTest, ClockIsSoughtInTheFirstBlockOnly) {
    const std::vector<std::pair<std::string, std::int64_t>> cases{
        {"processor\t: 0\ncpu MHz\t\t: 2445.424\n\ncpu MHz\t\t: 9\n", 2445424128},
        {"cpu MHz: 1000\n", 1000000000},
        {"processor\t: 0\nBogoMIPS\t: 50.00\n\nprocessor\t: 1\ncpu MHz\t\t: 2445.424\n", 0},
        {"cpu MHz\t\t: inf\n", 0},
        {"cpu MHz\t\t: \ncpu MHz\t\t: 5\n", 0},
        {"", 0}};
    for (const auto& [text, expected] : cases) {
        SCOPED_TRACE(text);
        std::int64_t hertz = 0;
        feed(text, [&hertz](const char* line) { return parseCpuInfoLine(line, hertz); });
        EXPECT_EQ(hertz, expected);
    }
}

TEST_F(SystemMetricsTest, LoadAndThreadTexts) {
    EXPECT_EQ(parseLoadCounts("0.20 0.18 0.12 3/145 16954\n").runnableTasks, 3);
    EXPECT_EQ(parseLoadCounts("0.20 0.18 0.12 3/145 16954\n").totalTasks, 145);
    EXPECT_EQ(parseLoadCounts("").totalTasks, 0);
    EXPECT_EQ(parseThreadState("12 (name) R 1 1"), 'R');
    EXPECT_EQ(parseThreadState("12 (a name) R 1 1"), 'n');
    EXPECT_EQ(parseThreadState("12 (name)"), '\0');
    EXPECT_EQ(parseThreadState(""), '\0');
}

TEST_F(SystemMetricsTest, MachineAndProcessAreSeen) {
    const SystemMemory memory = getSystemMemory();
    EXPECT_GT(memory.total, memory.free);
    EXPECT_GE(memory.swapTotal, memory.swapFree);
    const ProcessMemory process = getProcessMemory();
    EXPECT_GT(process.resident, 0U);
    EXPECT_GE(process.peakResident, process.resident / 2);
    EXPECT_GE(getLoadCounts().totalTasks, 1);
    EXPECT_GT(getProcessIo().bytesRead, 0U);
    EXPECT_GE(getCpuFrequency(), 0);
    EXPECT_EQ(getProcessId(), ::getpid());
    EXPECT_EQ(getThreadId(), ::gettid());

    const ProcessCpuTime before = getProcessCpuTime();
    ProcessCpuTime after = before;
    while (after.user + after.system <= before.user + before.system) {
        after = getProcessCpuTime();
    }
    EXPECT_GE(after.user, before.user);

    const int open = getOpenDescriptorCount();
    EXPECT_EQ(static_cast<std::size_t>(open), openDescriptors().size() + 1);
    const ScopedFd another(::dup(STDIN_FILENO));
    EXPECT_EQ(getOpenDescriptorCount(), open + 1);
}

TEST_F(SystemMetricsTest, PinnedThreadSeesItsProcessorAlone) {
    cpu_set_t old;
    ASSERT_EQ(::sched_getaffinity(::getpid(), sizeof old, &old), 0);
    const std::vector<int> all = getAllowedCpus();
    ASSERT_FALSE(all.empty());
    EXPECT_TRUE(std::is_sorted(all.begin(), all.end()));
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(all.back(), &one);
    ASSERT_EQ(::sched_setaffinity(::getpid(), sizeof one, &one), 0);
    const std::vector<int> pinned = getAllowedCpus();
    const CpuTimes times = getCpuTimes();
    ::sched_setaffinity(::getpid(), sizeof old, &old);
    EXPECT_EQ(pinned, std::vector<int>{all.back()});
    EXPECT_GT(times.idle, 0U);
    EXPECT_EQ(times.allIdle > times.idle, all.size() > 1);
}

TEST_F(SystemMetricsTest, ThreadsAreCountedWhileTheyLast) {
    const ThreadCounts before = getThreadCounts();
    EXPECT_GE(before.runningThreads, 1);
    ScopedFd readEnd;
    ScopedFd writeEnd;
    createPipe(readEnd, writeEnd);
    std::thread other([&readEnd] { readToEnd(readEnd.get()); });
    EXPECT_EQ(getThreadCounts().threads, before.threads + 1);
    writeEnd.reset();
    other.join();
}

std::uint64_t stackUsedAt(int depth, std::uint64_t& stackSize) {
    volatile char ballast[4096];
    ballast[0] = static_cast<char>(depth);
    std::uint64_t used = 0;
    if (depth == 0) {
        EXPECT_EQ(getStackUsage(stackSize, used), 0);
        return used;
    }
    used = stackUsedAt(depth - 1, stackSize);
    ballast[1] = ballast[0];
    return used;
}

TEST_F(SystemMetricsTest, StackInUseGrowsWithDepth) {
    std::thread([] {
        std::uint64_t size = 0;
        const std::uint64_t shallow = stackUsedAt(0, size);
        const std::uint64_t deep = stackUsedAt(20, size);
        EXPECT_GT(shallow, 0U);
        EXPECT_GE(deep, shallow + 20ULL * 4096);
        EXPECT_LT(deep, size);
    }).join();
}

TEST_F(SystemMetricsTest, ModuleOfAnAddressIsNamedInFull) {
    const auto self = boost::filesystem::read_symlink("/proc/self/exe").string();
    EXPECT_EQ(getModulePath(reinterpret_cast<const void*>(&stackUsedAt)), self);
    const std::string library = getModulePath(reinterpret_cast<const void*>(&::getppid));
    EXPECT_EQ(library.substr(0, 1), "/");
    EXPECT_NE(library, self);
    EXPECT_EQ(getModulePath(nullptr), "");
}

}  // namespace
}  // namespace Plexum3::Base
