#include "process/ProcessTable.h"

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <utility>
#include <vector>

#include "process/DescriptorIo.h"
#include "process/SystemError.h"

namespace Plexum3::Base {
namespace {

// Positions in /proc/PID/stat, counted from 0, see proc(5).
constexpr std::size_t stateField = 2;
constexpr std::size_t startTimeField = 21;

constexpr boost::chrono::microseconds failed{-1};

// All of a file; nothing, with `error` set, if a read failed.
std::optional<std::string> readWhole(int fd, boost::system::error_code& error) {
    std::string text;
    std::array<char, 4096> chunk;
    ssize_t got = 0;
    while ((got = readRetry(fd, chunk.data(), chunk.size(), &error)) > 0) {
        text.append(chunk.data(), static_cast<std::size_t>(got));
    }
    return error ? std::nullopt : std::optional(std::move(text));
}

}  // namespace

boost::chrono::microseconds getProcessCreationTime(int pid, boost::system::error_code* errorCode) {
    clearError(errorCode);
    std::array<char, 4096> path;
    std::snprintf(path.data(), path.size(), "/proc/%d/stat", pid);
    const ScopedFd file(open(path.data(), O_RDONLY | O_CLOEXEC));
    if (file.get() == -1) {
        const int error = errno;
        if (error == ENOENT) {
            storeError(errorCode, ESRCH, boost::system::generic_category());
        } else {
            storeError(errorCode, error, boost::system::system_category());
        }
        return failed;
    }
    boost::system::error_code readError;
    const std::optional<std::string> text = readWhole(file.get(), readError);
    if (!text) {
        storeError(errorCode, readError.value(), readError.category());
        return failed;
    }
    return parseProcessCreationTime(*text, sysconf(_SC_CLK_TCK), errorCode);
}

boost::chrono::microseconds parseProcessCreationTime(const std::string& stat, long ticksPerSecond,
                                                     boost::system::error_code* errorCode) {
    clearError(errorCode);
    std::vector<std::string> fields;
    fields.reserve(64);
    boost::algorithm::split(fields, stat, boost::algorithm::is_any_of(" \t"),
                            boost::algorithm::token_compress_off);
    if (fields.size() <= startTimeField) {
        storeError(errorCode, EOPNOTSUPP, boost::system::generic_category());
        return failed;
    }
    const std::string& state = fields[stateField];
    if (state == "Z" || state == "X" || state == "x") {
        storeError(errorCode, ESRCH, boost::system::generic_category());
        return failed;
    }
    const long long ticks = std::strtoll(fields[startTimeField].c_str(), nullptr, 10);
    std::int64_t microseconds = 0;
    // The flag is not looked at: no kernel reports a start time that overflows here, and the
    // wrapped product is a defined value.
    static_cast<void>(__builtin_mul_overflow(ticks, 1'000'000LL, &microseconds));
    return boost::chrono::microseconds(microseconds / ticksPerSecond);
}

}  // namespace Plexum3::Base
