#include "process/ProcessTable.h"

#include <climits>

#include "tests/process/ProcessFixture.h"

namespace Plexum3::Base {
namespace {

using boost::system::error_code;

class ProcessTableTest : public ProcessFixture {};

const error_code SUCCESS(0, boost::system::system_category());
const error_code GONE(ESRCH, boost::system::generic_category());
const error_code TOO_SHORT(EOPNOTSUPP, boost::system::generic_category());

// As the kernel writes it, but that all between the state and the start time is 0.
std::string statText(const std::string& nameAndState, const std::string& startTime) {
    return "42 " + nameAndState + " 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 " + startTime + " 1000\n";
}

TEST_F(ProcessTableTest, TextIsSplitAtEveryBlankAndTab) {
    struct Case {
        std::string text;
        std::int64_t microseconds;
        error_code error;
        long ticksPerSecond = 100;
    };
    for (const Case& each : {
             Case{"", -1, TOO_SHORT},
             Case{"1 (n) S 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20", -1, TOO_SHORT},
             Case{"1 (n) S 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 21", 210'000, SUCCESS},
             Case{statText("(n)\tR", "12345"), 123'450'000, SUCCESS},
             Case{statText("(n) Z", "12345"), -1, GONE},
             Case{statText("(n) X", "12345"), -1, GONE},
             Case{statText("(n) x", "12345"), -1, GONE},
             Case{statText("(a b) Z", "12345"), 0, SUCCESS},
             Case{statText("(a Z b) S", "12345"), -1, GONE},
             Case{statText("(n)  Z", "12345"), 0, SUCCESS},
             Case{statText("(n) S", "1"), 976, SUCCESS, 1024},
             // 1234567890123456789 * 10^6 modulo 2^64, as a signed number, by 100
             Case{statText("(n) S", "1234567890123456789"),
                  static_cast<std::int64_t>(1234567890123456789ULL * 1'000'000ULL) / 100, SUCCESS},
         }) {
        SCOPED_TRACE(each.text);
        error_code error(EPERM, boost::system::generic_category());
        EXPECT_EQ(parseProcessCreationTime(each.text, each.ticksPerSecond, &error).count(),
                  each.microseconds);
        EXPECT_EQ(error, each.error);
    }
}

TEST_F(ProcessTableTest, LivingHaveATimeAndTheDeadHaveNone) {
    error_code error(EPERM, boost::system::generic_category());
    const auto own = getProcessCreationTime(::getpid(), &error);
    EXPECT_EQ(error, SUCCESS);
    EXPECT_GT(own.count(), 0);
    EXPECT_GE(own, getProcessCreationTime(::getppid(), nullptr));

    const Subprocess child = Subprocess::spawn(shell("exit 0"));
    siginfo_t info{};
    ASSERT_EQ(::waitid(P_PID, child.pid(), &info, WEXITED | WNOWAIT), 0);
    for (const int pid : {child.pid(), 0, -1, INT_MAX}) {
        EXPECT_EQ(getProcessCreationTime(pid, &error).count(), -1) << pid;
        EXPECT_EQ(error, GONE) << pid;
    }
    child.wait();
}

}  // namespace
}  // namespace Plexum3::Base
