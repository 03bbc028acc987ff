#include <cstdint>
#include <string>

#include "process/ProcessTable.h"
#include "process/SystemMetricsText.h"

// Any process chooses its own name, which stands unescaped in what the kernel says of it.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace Plexum3::Base;
    constexpr long ticksPerSecond = 100;
    constexpr std::uint64_t tickMicroseconds = 10000;
    const std::string text(reinterpret_cast<const char*>(data), size);
    boost::system::error_code error;
    const auto time = parseProcessCreationTime(text, ticksPerSecond, &error);
    if (error && time.count() != -1) {
        __builtin_trap();
    }
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    CpuTimes times{};
    SystemMemory system{};
    ProcessMemory memory{};
    ProcessIo io{};
    parseCpuTimesLine(text.c_str(), allowed, tickMicroseconds, times);
    parseSystemMemoryLine(text.c_str(), system);
    parseProcessMemoryLine(text.c_str(), memory);
    parseProcessIoLine(text.c_str(), io);
    parseCpuInfoLine(text.c_str());
    parseLoadCounts(text.c_str());
    parseThreadState(text.c_str());
    return 0;
}
