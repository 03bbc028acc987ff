#include <sys/prctl.h>
#include <sys/resource.h>

#include <climits>

#include "process/ProcessEnd.h"
#include "tests/process/ProcessFixture.h"

namespace Plexum3::Base {
namespace {

class ProcessEndTest : public ProcessFixture {};

TEST_F(ProcessEndTest, StateIsReadWhateverTheProcessIsCalled) {
    using State = ProcessLife::State;
    const struct {
        std::string start;
        std::string threads;
        State state;
    } cases[] = {{"1 (plain) S", "1", State::Living},
                 {"1 (a b) c) R", "1", State::Living},
                 {"1 (a) S () T", "1", State::Stopped},
                 {"1 (first thread ended) Z", "2", State::Living},
                 {"1 (all ended) Z", "1", State::Ended}};
    for (const auto& test : cases) {
        const std::string text =
            test.start + " 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 " + test.threads + " 18 4711 20";
        const ProcessLife life = parseProcessLife(text.c_str());
        EXPECT_EQ(life.state, test.state) << test.start;
        EXPECT_EQ(life.startTicks, 4711) << test.start;
    }
}

TEST_F(ProcessEndTest, StoppedProcessIsWokenAndItsEndIsSeen) {
    const pid_t child = fork();
    if (child == 0) {
        static_cast<void>(prctl(PR_SET_NAME, "a) S ("));
        static_cast<void>(raise(SIGSTOP));
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, WUNTRACED), child);
    const ProcessEnd end(child);
    EXPECT_FALSE(end.hasEnded());
    end.wakeIfStopped();
    EXPECT_EQ(waitpid(child, &status, WCONTINUED), child);
    end.await();  // dead, but not reaped
    waitpid(child, &status, 0);
    EXPECT_TRUE(end.hasEnded());
    EXPECT_TRUE(ProcessEnd(child).hasEnded());
}

TEST_F(ProcessEndTest, WhatCannotBeLookedAtLivesUnlessItsIdIsUnknown) {
    rlimit old{};
    getrlimit(RLIMIT_NOFILE, &old);
    const rlimit none{0, old.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_FALSE(ProcessEnd(getppid()).hasEnded());
    EXPECT_TRUE(ProcessEnd(INT_MAX).hasEnded());
    setrlimit(RLIMIT_NOFILE, &old);
}

}  // namespace
}  // namespace Plexum3::Base
