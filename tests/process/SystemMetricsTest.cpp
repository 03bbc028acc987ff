#include <alloca.h>

#include <sstream>

#include "process/SystemMetricsText.h"
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
    EXPECT_EQ(process.swap, 0U) << "a kernel without VmSwap";
}

TEST_F(SystemMetricsTest, ProcessorLinesAreSummedByAffinity) {
    // Processor 1 is the only one allowed; 0 and 2 are offline.
    const std::pair<std::string, std::vector<std::uint64_t>> cases[]{
        {"cpu1 1 20 300 4000 50000 600000 7000000 80000000 9 9",
         {21, 87'600'300, 54'000, 21, 87'600'300, 54'000}},
        {"cpu1 1 0 3 4 0 0 0 0\ncpu3 1 0 3 4 0 0 0 0", {1, 3, 4, 2, 6, 8}},
        {"cpu1024 1 0 3 4 0 0 0 0 9", {1, 3, 4, 1, 3, 4}},
        {"cpu-1 1 0 3 4 0 0 0 0", {0, 0, 0, 1, 3, 4}},
        {"cpu1 1 20 300 4000 50000 600000 7000000", {0, 0, 0, 0, 0, 0}},
        {"cpu  1 1 20 300 4000 50000 600000 7000000 80000000 9", {0, 0, 0, 0, 0, 0}}};
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    CPU_SET(1, &allowed);
    for (const auto& [text, ticks] : cases) {
        const auto times = parsed<CpuTimes>(text, [&](const char* line, CpuTimes& record) {
            parseCpuTimesLine(line, allowed, /*tickMicroseconds=*/1, record);
        });
        EXPECT_EQ((std::vector{times.user, times.system, times.idle, times.allUser, times.allSystem,
                               times.allIdle}),
                  ticks)
            << text;
    }
}

TEST_F(SystemMetricsTest, StackTimeAndThreadsOfThisProcessAreMeasured) {
    std::uint64_t size = 0;
    std::uint64_t shallow = 0;
    std::uint64_t deep = 0;
    EXPECT_EQ(getStackUsage(size, shallow), 0);
    volatile char* const ballast = static_cast<char*>(alloca(65'536));
    ballast[0] = 0;
    EXPECT_EQ(getStackUsage(size, deep), 0);
    EXPECT_GE(deep, shallow + 65'536);
    EXPECT_LT(deep, size);
    EXPECT_GE(getThreadCounts().runningThreads, 1);
    const ProcessCpuTime before = getProcessCpuTime();
    for (volatile int i = 0; i < 50'000'000;) {
        i = i + 1;
    }
    const ProcessCpuTime after = getProcessCpuTime();
    EXPECT_GT(after.user - before.user, after.system - before.system);
}

}  // namespace
}  // namespace Plexum3::Base
