#include <boost/thread/exceptions.hpp>
#include <gmock/gmock.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <time.h>

#include "UTIL/src/TavrelBootstrap.h"
#include "process/ProcessTable.h"
#include "tests/ForkedRole.h"

// What can't be brought about from outside. The rest is in tests/system.

std::int64_t monotonicNs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1'000'000'000 + now.tv_nsec;
}

std::int64_t roleStartNs;

// In libc's place: a role ends with its first sleep, and tells whether that is half a second, from
// some moment between the role's start and now.
extern "C" int pthread_cond_timedwait(pthread_cond_t*, pthread_mutex_t*, const timespec* until) {
    const std::int64_t startNs = until->tv_sec * 1'000'000'000 + until->tv_nsec - 500'000'000;
    _exit(roleStartNs <= startNs && startNs <= monotonicNs() ? 50 : 99);
}

namespace {

constexpr char variable[] = "__TAVREL_CONTROLLING_PROCESS";

class ControllingProcessFailure : public testing::Test {
  protected:
    // The address sanitizer's companion opens pipes to see whether an object can be read, and takes
    // a refusal for a broken object.
    void SetUp() override {
#ifdef __SANITIZE_ADDRESS__
        GTEST_SKIP() << "opening can't be forbidden under the address sanitizer";
#endif
    }
};

void forbidOpening() {
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_NOFILE, &none);
}

void makeThreadsImpossible() {
    constexpr std::size_t moreThanThereIs = std::size_t(1) << 60;
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, moreThanThereIs);
    pthread_setattr_default_np(&attributes);
}

}  // namespace

TEST_F(ControllingProcessFailure, UnreadableProcessIsNotWatchedAnyMore) {
    const RoleOutcome outcome = runRole([] {
        forbidOpening();
        UTIL::WatchControllingProcess(17, boost::chrono::microseconds(5678), "NAME", "VALUE");
        return 42;
    });
    EXPECT_EQ(outcome.status, 42);
    EXPECT_EQ(outcome.errors,
              "[BOOTSTRAP] ERROR: Failed to determine existence of parent process with the given "
              "PID 17: \"Too many open files\"\n"
              "[BOOTSTRAP] INFO: The PID of the parent process is defined by the value of the "
              "internal NAME environment variable: \"VALUE\"\n");
}

TEST_F(ControllingProcessFailure, UnknownOwnCreationTimeLeavesTheInheritedValue) {
    const RoleOutcome outcome = runRole([] {
        setVariables({{variable, "abc"}});
        forbidOpening();
        UTIL::StartControllingProcessWatchdog();
        return getenv(variable) == std::string("abc") ? 0 : 1;
    });
    EXPECT_EQ(outcome.status, 0);
    EXPECT_THAT(outcome.errors,
                testing::EndsWith("\n[BOOTSTRAP] WARNING: Failed to get process creation time: "
                                  "\"Too many open files\"\n"));
}

TEST(WatchControllingProcess, LooksAtOnceAndThenTwiceASecond) {
    const auto own = Plexum3::Base::getProcessCreationTime(getpid(), nullptr);
    for (const auto& [expected, status] : {std::pair(own, 50), std::pair(-own, 1)}) {
        const RoleOutcome outcome = runRole([time = expected] {
            roleStartNs = monotonicNs();
            UTIL::WatchControllingProcess(getppid(), time, "NAME", "VALUE");
            return 0;
        });
        EXPECT_EQ(outcome.status, status);
        EXPECT_EQ(outcome.errors, "");
    }
}

TEST(StartControllingProcessWatchdog, ThreadThatCannotStartLeavesTheMask) {
    const RoleOutcome outcome = runRole([] {
        makeThreadsImpossible();
        setVariables({{variable, "17;5678"}});
        sigset_t mask;
        sigemptyset(&mask);
        sigaddset(&mask, SIGUSR1);
        pthread_sigmask(SIG_SETMASK, &mask, nullptr);
        try {
            UTIL::StartControllingProcessWatchdog();
        } catch (const boost::thread_resource_error&) {
            pthread_sigmask(SIG_SETMASK, nullptr, &mask);
            return sigismember(&mask, SIGUSR1) == 1 && sigismember(&mask, SIGUSR2) == 0 ? 0 : 2;
        }
        return 1;
    });
    EXPECT_EQ(outcome.status, 0);
}
