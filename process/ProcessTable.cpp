#include "process/ProcessTable.h"

#include <fcntl.h>
#include <unistd.h>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>

#include "process/DescriptorIo.h"
#include "process/SystemError.h"

namespace Plexum3::Base {
namespace {

// Positions in /proc/PID/stat, counted from 0, see proc(5).
constexpr std::size_t STATE_FIELD = 2;
constexpr std::size_t START_TIME_FIELD = 21;

constexpr boost::chrono::microseconds FAILED{-1};

// Appends all of `fd` to `text`; false with `error` set if a read failed.
bool readWhole(int fd, std::string& text, boost::system::error_code& error) {
    std::array<char, 4096> chunk;
    ssize_t got = 0;
    while ((got = readRetry(fd, chunk.data(), chunk.size(), &error)) > 0) {
        text.append(chunk.data(), static_cast<std::size_t>(got));
    }
    return !error;
}

}  // namespace

boost::chrono::microseconds getProcessCreationTime(int pid, boost::system::error_code* errorCode) {
    clearError(errorCode);
    std::array<char, 4096> path;
    std::snprintf(path.data(), path.size(), "/proc/%d/stat", pid);
    const ScopedFd file(::open(path.data(), O_RDONLY | O_CLOEXEC));
    if (file.get() == -1) {
        const int error = errno;
        if (error == ENOENT) {
            storeError(errorCode, ESRCH, boost::system::generic_category());
        } else {
            storeError(errorCode, error, boost::system::system_category());
        }
        return FAILED;
    }
    std::string text;
    boost::system::error_code readError;
    if (!readWhole(file.get(), text, readError)) {
        storeError(errorCode, readError.value(), readError.category());
        return FAILED;
    }
    return parseProcessCreationTime(text, ::sysconf(_SC_CLK_TCK), errorCode);
}

boost::chrono::microseconds parseProcessCreationTime(const std::string& stat, long ticksPerSecond,
                                                     boost::system::error_code* errorCode) {
    clearError(errorCode);
    std::vector<std::string> fields;
    fields.reserve(64);
    boost::algorithm::split(fields, stat, boost::algorithm::is_any_of(" \t"),
                            boost::algorithm::token_compress_off);
    if (fields.size() <= START_TIME_FIELD) {
        storeError(errorCode, EOPNOTSUPP, boost::system::generic_category());
        return FAILED;
    }
    const std::string& state = fields[STATE_FIELD];
    if (state == "Z" || state == "X" || state == "x") {
        storeError(errorCode, ESRCH, boost::system::generic_category());
        return FAILED;
    }
    const long long ticks = std::strtoll(fields[START_TIME_FIELD].c_str(), nullptr, 10);
    std::int64_t microseconds = 0;
    // The flag is not looked at: no kernel reports a start time that overflows here, and the
    // wrapped product is a defined value.
    (void)__builtin_mul_overflow(ticks, 1'000'000LL, &microseconds);
    return boost::chrono::microseconds(microseconds / ticksPerSecond);
}

}  // namespace Plexum3::Base
