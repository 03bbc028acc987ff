#include <climits>

#include "process/ProcessTable.h"
#include "tests/process/ProcessFixture.h"

namespace Plexum3::Base {
namespace {

using boost::system::error_code;

class ProcessTableTest : public ProcessFixture {};

const error_code success(0, boost::system::system_category());
const error_code gone(ESRCH, boost::system::generic_category());
const error_code tooShort(EOPNOTSUPP, boost::system::generic_category());

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
             Case{"", -1, tooShort},
             Case{"1 (n) S 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20", -1, tooShort},
             Case{"1 (n) S 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 21", 210'000, success},
             Case{statText("(n)\tR", "12345"), 123'450'000, success},
             Case{statText("(n) Z", "12345"), -1, gone},
             Case{statText("(n) X", "12345"), -1, gone},
             Case{statText("(n) x", "12345"), -1, gone},
             Case{statText("(a b) Z", "12345"), 0, success},
             Case{statText("(a Z b) S", "12345"), -1, gone},
             Case{statText("(n)  Z", "12345"), 0, success},
             Case{statText("(n) S", "1"), 976, success, 1024},
             // 1234567890123456789 * 10^6 modulo 2^64, as a signed number, by 100
             Case{statText("(n) S", "1234567890123456789"),
                  static_cast<std::int64_t>(1234567890123456789ULL * 1'000'000ULL) / 100, success},
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
    const auto own = getProcessCreationTime(getpid(), &error);
    EXPECT_EQ(error, success);
    EXPECT_GT(own.count(), 0);
    EXPECT_GE(own, getProcessCreationTime(getppid(), nullptr));

    const Subprocess child = Subprocess::spawn(shell("exit 0"));
    siginfo_t info{};
    ASSERT_EQ(waitid(P_PID, child.pid(), &info, WEXITED | WNOWAIT), 0);
    for (const int pid : {child.pid(), 0, -1, INT_MAX}) {
        EXPECT_EQ(getProcessCreationTime(pid, &error).count(), -1) << pid;
        EXPECT_EQ(error, gone) << pid;
    }
    child.wait();
}

}  // namespace
}  // namespace Plexum3::Base
