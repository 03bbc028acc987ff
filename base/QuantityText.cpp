#include "base/QuantityText.h"

#include <boost/format.hpp>

#include <cmath>
#include <iomanip>

namespace Zendrik::Base {
namespace {

std::string withTwoDecimals(double value, const char* unit) {
    return boost::str(boost::format("%0.2f") % value) + unit;
}

std::string formatMinutesAndSeconds(double wholeSeconds) {
    // fmod gives the low 32 bits of a figure of any size, where a conversion of one that does not
    // fit is undefined; infinity and what is not a number have none.
    const auto seconds = std::isfinite(wholeSeconds)
                             ? static_cast<std::uint32_t>(std::fmod(wholeSeconds, 4294967296.0))
                             : 0U;
    const std::string minutes = std::to_string(seconds / 60) + " min";
    return seconds % 60 == 0 ? minutes : minutes + " " + std::to_string(seconds % 60) + " s";
}

struct ByteUnit {
    std::uint64_t sizeBytes;
    const char* name;
};

ByteUnit unitFor(std::uint64_t bytes) {
    constexpr ByteUnit units[] = {
        {1ULL << 40, "TB"}, {1ULL << 30, "GB"}, {1ULL << 20, "MB"}, {1ULL << 10, "KB"}};
    for (const ByteUnit& unit : units) {
        if (bytes >= unit.sizeBytes) {
            return unit;
        }
    }
    return {1, "B"};
}

}  // namespace

std::string formatDurationMilliseconds(double milliseconds) {
    if (milliseconds < 1.0) {
        return withTwoDecimals(milliseconds * 1000.0, " us");
    }
    if (milliseconds < 1000.0) {
        return withTwoDecimals(milliseconds, " ms");
    }
    if (milliseconds < 60000.0) {
        return withTwoDecimals(milliseconds / 1000.0, " s");
    }
    return formatMinutesAndSeconds(std::floor(milliseconds / 1000.0));
}

std::string formatDurationSeconds(double seconds) {
    return formatDurationMilliseconds(seconds * 1000.0);
}

std::string formatByteSize(std::uint64_t bytes, unsigned precision) {
    const ByteUnit unit = unitFor(bytes);
    if (precision == 0) {
        return std::to_string(bytes / unit.sizeBytes) + " " + unit.name;
    }
    const double quotient = static_cast<double>(bytes) / static_cast<double>(unit.sizeBytes);
    return boost::str(
        boost::format("%1% %2%") %
        boost::io::group(std::fixed, std::setprecision(static_cast<int>(precision)), quotient) %
        unit.name);
}

}  // namespace Zendrik::Base
