#include "process/SystemMetrics.h"

#include <alloca.h>
#include <unistd.h>
#include <sstream>
#include <thread>

#include <boost/filesystem/operations.hpp>

#include "tests/process/ProcessFixture.h"

namespace Plexum3::Base {
namespace {

class SystemMetricsTest : public ProcessFixture {};

// What a parser makes of the lines of a text.
template <class Record, class ParseLine>
Record parsed(const std::string& text, ParseLine parseLine) {
    Record record;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        parseLine(line.c_str(), record);
    }
    return record;
}

TEST_F(SystemMetricsTest, MemoryTextsAreInKibibytes) {
    const auto memory = parsed<SystemMemory>(
        "MemTotal:       24684096 kB\nMemFree:   100 kB\nMemFree:   200 kB\nMemAvailable: 7 kB\n"
        "SwapCached: 5 kB\nSwapTotal: 8 kB\nSwapFree: none\n",
        parseSystemMemoryLine);
    EXPECT_EQ(memory.total, 24684096ULL * 1024);
    EXPECT_EQ(memory.free, 200ULL * 1024) << "the last match counts";
    EXPECT_EQ(memory.swapTotal, 8U * 1024);
    EXPECT_EQ(memory.swapFree, 0U);

    const auto process = parsed<ProcessMemory>("Name:\tVmRSS: 9\nVmHWM:\t 12 kB\nVmRSS:\t 11 kB\n",
                                               parseProcessMemoryLine);
    EXPECT_EQ(process.resident, 11U * 1024);
    EXPECT_EQ(process.peakResident, 12U * 1024);
    EXPECT_EQ(process.swap, 0U) << "a kernel without VmSwap";
    EXPECT_EQ(parsed<ProcessMemory>("VmSwap: 3 kB", parseProcessMemoryLine).swap, 3U * 1024);

    const auto io = parsed<ProcessIo>(
        "rchar: 323934931\nwchar: 5\nread_bytes: 9\nwrite_bytes: 10\n", parseProcessIoLine);
    EXPECT_EQ(io.bytesRead, 323934931U);
    EXPECT_EQ(io.bytesWritten, 5U);
}

TEST_F(SystemMetricsTest, ProcessorLinesAreSummedByAffinity) {
    // Processor 1 is the only one allowed; 0 and 2 are offline.
    const std::vector<std::pair<std::string, CpuTimes>> cases{
        {"cpu1 1 20 300 4000 50000 600000 7000000 80000000 9 9",
         {21, 87'600'300, 54'000, 21, 87'600'300, 54'000}},
        {"cpu3 1 0 3 4 0 0 0 0", {0, 0, 0, 1, 3, 4}},
        {"cpu1 1 0 3 4 0 0 0 0\ncpu3 1 0 3 4 0 0 0 0", {1, 3, 4, 2, 6, 8}},
        {"cpu1024 1 0 3 4 0 0 0 0 9", {1, 3, 4, 1, 3, 4}},
        {"cpu-1 1 0 3 4 0 0 0 0", {0, 0, 0, 1, 3, 4}},
        {"cpu1 1 20 300 4000 50000 600000 7000000", {}},
        {"cpu  1 1 20 300 4000 50000 600000 7000000 80000000 9", {}},
        {"intr 1 1 20 300 4000 50000 600000 7000000 80000000 9\n", {}}};
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    CPU_SET(1, &allowed);
    const auto fields = [](const CpuTimes& times, std::uint64_t factor) {
        return std::vector<std::uint64_t>{times.user * factor,      times.system * factor,
                                          times.idle * factor,      times.allUser * factor,
                                          times.allSystem * factor, times.allIdle * factor};
    };
    for (const auto& [text, ticks] : cases) {
        const auto times = parsed<CpuTimes>(text, [&](const char* line, CpuTimes& record) {
            parseCpuTimesLine(line, allowed, 10'000, record);
        });
        EXPECT_EQ(fields(times, 1), fields(ticks, 10'000)) << text;
    }
}

TEST_F(SystemMetricsTest, ClockIsSoughtInTheFirstBlockOnly) {
    const std::vector<std::pair<std::string, std::int64_t>> cases{
        {"processor\t: 0\ncpu MHz\t\t: 2445.424\n\ncpu MHz\t\t: 9\n", 2445424128},
        {"processor\t: 0\nBogoMIPS\t: 50.00\n\nprocessor\t: 1\ncpu MHz\t\t: 2445.424\n", 0},
        {"cpu MHz\t\t: inf\n", 0},
        {"cpu MHz\t\t: \ncpu MHz\t\t: 5\n", 0},
        {"", 0}};
    for (const auto& [text, expected] : cases) {
        std::int64_t hertz = 0;
        std::istringstream lines(text);
        for (std::string line;
             std::getline(lines, line) && !parseCpuInfoLine(line.c_str(), hertz);) {
        }
        EXPECT_EQ(hertz, expected) << text;
    }
}

TEST_F(SystemMetricsTest, LoadAndThreadTexts) {
    EXPECT_EQ(parseLoadCounts("0.20 0.18 0.12 3/145 16954\n").runnableTasks, 3);
    EXPECT_EQ(parseLoadCounts("0.20 0.18 0.12 3/145 16954\n").totalTasks, 145);
    EXPECT_EQ(parseLoadCounts("").totalTasks, 0);
    EXPECT_EQ(parseThreadState("12 (name) R 1 1"), 'R');
    EXPECT_EQ(parseThreadState("12 (a name) R 1 1"), 'n');
    EXPECT_EQ(parseThreadState(""), '\0');
}

TEST_F(SystemMetricsTest, MachineAndProcessAreSeen) {
    EXPECT_GT(getSystemMemory().total, getSystemMemory().free);
    EXPECT_GT(getProcessMemory().resident, 0U);
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
    EXPECT_EQ(static_cast<std::size_t>(getOpenDescriptorCount()), openDescriptors().size() + 1);
    const auto self = boost::filesystem::read_symlink("/proc/self/exe").string();
    EXPECT_EQ(getModulePath(reinterpret_cast<const void*>(&openDescriptors)), self);
    EXPECT_EQ(getModulePath(reinterpret_cast<const void*>(&::getppid)).substr(0, 1), "/");
    EXPECT_EQ(getModulePath(nullptr), "");
}

TEST_F(SystemMetricsTest, PinnedThreadSeesItsProcessorAlone) {
    cpu_set_t old;
    ASSERT_EQ(::sched_getaffinity(::getpid(), sizeof old, &old), 0);
    const std::vector<int> all = getAllowedCpus();
    ASSERT_FALSE(all.empty());
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

TEST_F(SystemMetricsTest, ThreadsAreCountedAndTheirStacksMeasured) {
    const ThreadCounts before = getThreadCounts();
    EXPECT_GE(before.runningThreads, 1);
    std::thread([&before] {
        EXPECT_EQ(getThreadCounts().threads, before.threads + 1);
        std::uint64_t size = 0;
        std::uint64_t shallow = 0;
        std::uint64_t deep = 0;
        EXPECT_EQ(getStackUsage(size, shallow), 0);
        volatile char* const ballast = static_cast<char*>(::alloca(65'536));
        ballast[0] = 0;
        EXPECT_EQ(getStackUsage(size, deep), 0);
        EXPECT_GT(shallow, 0U);
        EXPECT_GE(deep, shallow + 65'536);
        EXPECT_LT(deep, size);
    }).join();
}

}  // namespace
}  // namespace Plexum3::Base
