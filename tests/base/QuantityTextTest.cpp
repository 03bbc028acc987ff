#include <gtest/gtest.h>

#include <limits>

#include "base/QuantityText.h"

namespace Zendrik::Base {
namespace {

TEST(QuantityText, DurationTakesTheLargerUnitOnAThreshold) {
    const struct {
        double milliseconds;
        const char* text;
    } cases[] = {
        {-1.0, "-1000.00 us"},
        {1.0, "1.00 ms"},
        {60000.0, "1 min"},
        {7200000.0, "120 min"},
        // 1.5 times 2^32 seconds and 61 more: only the low 32 bits count.
        {(6442450944.0 + 61.0) * 1000.0, "35791395 min 9 s"},
        {std::numeric_limits<double>::infinity(), "0 min"},
        {std::numeric_limits<double>::quiet_NaN(), "0 min"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(formatDurationMilliseconds(c.milliseconds), c.text) << c.milliseconds;
    }
    EXPECT_EQ(formatDurationSeconds(187.9), "3 min 7 s");
}

TEST(QuantityText, ByteSizeCutsOffWithoutDecimalsAndRoundsWithThem) {
    const struct {
        std::uint64_t bytes;
        unsigned precision;
        const char* text;
    } cases[] = {
        {1023, 1, "1023.0 B"},
        {1536, 0, "1 KB"},
        {(1ULL << 20) - 1, 2, "1024.00 KB"},
        {1ULL << 30, 3, "1.000 GB"},
        {std::numeric_limits<std::uint64_t>::max(), 1, "16777216.0 TB"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(formatByteSize(c.bytes, c.precision), c.text) << c.bytes;
    }
}

}  // namespace
}  // namespace Zendrik::Base
