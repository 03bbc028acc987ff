#include "process/ProcessTable.h"

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "process/ProcFiles.h"
#include "process/SystemError.h"

namespace Plexum3::Base {
namespace {

// Positions in /proc/PID/stat, counted from 0, see proc(5).
constexpr std::size_t stateField = 2;
constexpr std::size_t startTimeField = 21;

boost::chrono::microseconds fail(boost::system::error_code* errorCode, int error) {
    storeError(errorCode, error, boost::system::generic_category());
    return boost::chrono::microseconds(-1);
}

}  // namespace

boost::chrono::microseconds getProcessCreationTime(int pid, boost::system::error_code* errorCode) {
    boost::system::error_code error;
    const std::string text = readSmallFile("/proc/" + std::to_string(pid) + "/stat", &error);
    if (error == boost::system::errc::no_such_file_or_directory) {
        return fail(errorCode, ESRCH);
    }
    if (error) {
        storeError(errorCode, error.value(), error.category());
        return boost::chrono::microseconds(-1);
    }
    return parseProcessCreationTime(text, sysconf(_SC_CLK_TCK), errorCode);
}

boost::chrono::microseconds parseProcessCreationTime(const std::string& stat, long ticksPerSecond,
                                                     boost::system::error_code* errorCode) {
    clearError(errorCode);
    std::vector<std::string> fields;
    fields.reserve(64);
    boost::algorithm::split(fields, stat, boost::algorithm::is_any_of(" \t"),
                            boost::algorithm::token_compress_off);
    if (fields.size() <= startTimeField) {
        return fail(errorCode, EOPNOTSUPP);
    }
    const std::string& state = fields[stateField];
    if (state == "Z" || state == "X" || state == "x") {
        return fail(errorCode, ESRCH);
    }
    const long long ticks = std::strtoll(fields[startTimeField].c_str(), nullptr, 10);
    std::int64_t microseconds = 0;
    // The flag is not looked at: no kernel reports a start time that overflows here, and the
    // wrapped product is a defined value.
    static_cast<void>(__builtin_mul_overflow(ticks, 1'000'000LL, &microseconds));
    return boost::chrono::microseconds(microseconds / ticksPerSecond);
}

}  // namespace Plexum3::Base
