#include "process/ProcessTable.h"

#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
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
        const char* what;
        std::string text;
        long ticksPerSecond;
        std::int64_t microseconds;
        error_code error;
    };
    const std::vector<Case> cases{
        {"empty", "", 100, -1, TOO_SHORT},
        {"21 fields", "1 (n) S 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20", 100, -1, TOO_SHORT},
        {"22 fields", "1 (n) S 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 21", 100, 210'000,
         SUCCESS},
        {"running", statText("(n) R", "12345"), 100, 123'450'000, SUCCESS},
        {"zombie", statText("(n) Z", "12345"), 100, -1, GONE},
        {"dead", statText("(n) X", "12345"), 100, -1, GONE},
        {"dead, older kernels", statText("(n) x", "12345"), 100, -1, GONE},
        {"tabs", statText("(n)\tS", "12345"), 100, 123'450'000, SUCCESS},
        {"blank in the name", statText("(a b) S", "12345"), 100, 0, SUCCESS},
        {"zombie with a blank in the name", statText("(a b) Z", "12345"), 100, 0, SUCCESS},
        {"name that reads Z", statText("(a Z b) S", "12345"), 100, -1, GONE},
        {"two separators in a row", statText("(n)  Z", "12345"), 100, 0, SUCCESS},
        {"ticks that don't divide a million", statText("(n) S", "1"), 1024, 976, SUCCESS},
        {"start time that is no number", statText("(n) S", "x"), 100, 0, SUCCESS},
        {"19 digits", statText("(n) S", "1234567890123456789"), 100,
         // 1234567890123456789 * 10^6 modulo 2^64, as a signed number, by 100
         static_cast<std::int64_t>(1234567890123456789ULL * 1'000'000ULL) / 100, SUCCESS},
    };
    for (const Case& each : cases) {
        SCOPED_TRACE(each.what);
        error_code error(EPERM, boost::system::generic_category());
        EXPECT_EQ(parseProcessCreationTime(each.text, each.ticksPerSecond, &error).count(),
                  each.microseconds);
        EXPECT_EQ(error, each.error);
        EXPECT_EQ(parseProcessCreationTime(each.text, each.ticksPerSecond, nullptr).count(),
                  each.microseconds);
    }
}

TEST_F(ProcessTableTest, LivingHaveATimeAndTheDeadHaveNone) {
    error_code error(EPERM, boost::system::generic_category());
    const auto own = getProcessCreationTime(::getpid(), &error);
    EXPECT_GT(own.count(), 0);
    EXPECT_EQ(error, SUCCESS);
    EXPECT_EQ(getProcessCreationTime(::getpid(), nullptr), own);
    EXPECT_GE(own, getProcessCreationTime(::getppid(), nullptr));

    const Subprocess child = Subprocess::spawn(shell("exit 0"));
    siginfo_t info{};
    ASSERT_EQ(::waitid(P_PID, child.pid(), &info, WEXITED | WNOWAIT), 0);
    for (const int pid : {child.pid(), 0, -1, INT_MIN, INT_MAX}) {
        SCOPED_TRACE(pid);
        error = SUCCESS;
        EXPECT_EQ(getProcessCreationTime(pid, &error).count(), -1);
        EXPECT_EQ(error, GONE);
        EXPECT_EQ(getProcessCreationTime(pid, nullptr).count(), -1);
    }
    child.wait();
}

}  // namespace
}  // namespace Plexum3::Base
