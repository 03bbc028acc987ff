#include <gmock/gmock.h>
#include <pthread.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>

#include <boost/algorithm/string/replace.hpp>
#include <boost/filesystem/operations.hpp>
#include <boost/thread/exceptions.hpp>
#include <climits>
#include <fstream>
#include <iostream>

#include "UTIL/src/TavrelBootstrap.h"
#include "process/ProcessTable.h"
#include "tests/ForkedRole.h"

using boost::chrono::microseconds;
using Plexum3::Base::getProcessCreationTime;
using testing::HasSubstr;

namespace {

constexpr char variable[] = "__TAVREL_CONTROLLING_PROCESS";
const std::string parseError =
    "[BOOTSTRAP] ERROR: Failed to parse value of internal __TAVREL_CONTROLLING_PROCESS "
    "environment variable: ";

// The address sanitizer's companion opens pipes to see whether an object can be read, and takes a
// refusal for a broken object.
#ifdef __SANITIZE_ADDRESS__
constexpr bool canForbidOpening = false;
#else
constexpr bool canForbidOpening = true;
#endif

void forbidOpening() {
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_NOFILE, &none);
}

int watch(pid_t pid, microseconds created) {
    UTIL::WatchControllingProcess(pid, created, "NAME", "VALUE");
    return 42;
}

std::string ownIdentity() {
    return std::to_string(getpid()) + ";" +
           std::to_string(getProcessCreationTime(getpid(), nullptr).count());
}

unsigned long blockedSignals(const boost::filesystem::path& task) {
    // The C library blocks two signals of its own in a thread that starts.
    constexpr unsigned long ofTheLibrary = 0x180000000;
    std::ifstream status((task / "status").string());
    std::string word;
    while (status >> word && word != "SigBlk:") {
    }
    status >> word;
    return std::stoul(word, nullptr, 16) | ofTheLibrary;
}

}  // namespace

TEST(WatchControllingProcess, EndsWithAProcessThatIsKilledAZombieOrGone) {
    const pid_t target = fork();
    if (target == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        for (;;) {
            pause();
        }
    }
    const microseconds created = getProcessCreationTime(target, nullptr);
    const std::string killed = "killed";
    const std::string zombie = "zombie";
    for (const std::string& state : {killed, zombie, std::string("gone")}) {
        SCOPED_TRACE(state);
        const RoleOutcome outcome = runRole([&] {
            if (state == killed && fork() == 0) {
                // Once the watcher sleeps.
                for (std::string word; word != "S";) {
                    std::ifstream("/proc/" + std::to_string(getppid()) + "/stat") >> word >> word >>
                        word;
                }
                kill(target, SIGKILL);
                _exit(0);
            }
            return watch(target, created);
        });
        EXPECT_EQ(outcome.status, 1);
        EXPECT_THAT(
            boost::algorithm::replace_all_copy(outcome.errors, std::to_string(target), "TARGET"),
            testing::StartsWith(
                "[BOOTSTRAP] ERROR: Failed to determine existence of parent process with the given "
                "PID TARGET: \"No such process\"\n"
                "[BOOTSTRAP] INFO: The PID of the parent process is defined by the value of the "
                "internal NAME environment variable: \"VALUE\"\n"
                "[BOOTSTRAP] WARNING: Parent process not found: PID TARGET. Terminating this "
                "`tests_UTIL` process (PID "));
        if (state == zombie) {
            waitpid(target, nullptr, 0);
        }
    }
}

TEST(WatchControllingProcess, TellsAnotherProcessFromAnUnreadableOne) {
    const RoleOutcome other = runRole([] { return watch(getppid(), microseconds(5678)); });
    EXPECT_EQ(other.status, 1);
    EXPECT_EQ(other.errors, "");
    if (!canForbidOpening) {
        GTEST_SKIP() << "not under the address sanitizer";
    }
    const RoleOutcome unreadable = runRole([] {
        forbidOpening();
        return watch(getppid(), microseconds(5678));
    });
    EXPECT_EQ(unreadable.status, 42);
    EXPECT_THAT(unreadable.errors, HasSubstr(": \"Too many open files\"\n[BOOTSTRAP] INFO: "));
    EXPECT_THAT(unreadable.errors, Not(HasSubstr("Terminating")));
}

TEST(StartControllingProcessWatchdog, PublishesThisProcessWhateverItInherited) {
    const std::string parent = ownIdentity();
    const std::string loose = std::string(parent).replace(parent.find(';'), 1, " :");
    const std::pair<const char*, bool> cases[] = {
        {nullptr, false},         {"abc", false},         {"1234;", false},      {"", false},
        {"99999999999;1", false}, {parent.c_str(), true}, {loose.c_str(), true},
    };
    for (const auto& row : cases) {
        const char* value = row.first;
        SCOPED_TRACE(value == nullptr ? "not set" : value);
        const RoleOutcome outcome = runRole([value] {
            setVariables({{variable, value}});
            const unsigned long before = blockedSignals("/proc/self");
            UTIL::StartControllingProcessWatchdog();
            UTIL::StartControllingProcessWatchdog();  // once: doesn't watch what it published
            std::cout << (blockedSignals("/proc/self") == before)
                      << (getenv(variable) == ownIdentity());
            for (const auto& task : boost::filesystem::directory_iterator("/proc/self/task")) {
                if (task.path().filename() != std::to_string(getpid())) {
                    std::cout << std::hex << ' ' << blockedSignals(task.path());
                }
            }
            return 0;
        });
        const bool isWrong = value != nullptr && !row.second;
        EXPECT_EQ(outcome.errors, isWrong ? parseError + '"' + value + "\"\n" : "");
        // All but SIGKILL and SIGSTOP.
        EXPECT_EQ(outcome.output, row.second ? "11 fffffffffffbfeff" : "11");
    }
}

TEST(StartControllingProcessWatchdog, QuotesTheInheritedValueAfterItWasReplaced) {
    const std::string inherited = std::to_string(INT_MAX) + ";5678 and more";
    const RoleOutcome outcome = runRole([&inherited] {
        setVariables({{variable, inherited.c_str()}});
        UTIL::StartControllingProcessWatchdog();
        setVariables({{variable, "something else"}});
        return pause();
    });
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.errors, HasSubstr("environment variable: \"" + inherited + "\"\n"));
}

TEST(StartControllingProcessWatchdog, FailureLeavesMaskAndInheritedValue) {
    const std::string parent = ownIdentity();
    const RoleOutcome noThread = runRole([&parent] {
        constexpr std::size_t moreThanThereIs = std::size_t(1) << 60;
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        pthread_attr_setstacksize(&attributes, moreThanThereIs);
        pthread_setattr_default_np(&attributes);
        setVariables({{variable, parent.c_str()}});
        const unsigned long before = blockedSignals("/proc/self");
        try {
            UTIL::StartControllingProcessWatchdog();
        } catch (const boost::thread_resource_error&) {
            return blockedSignals("/proc/self") == before && getenv(variable) == parent ? 0 : 2;
        }
        return 1;
    });
    EXPECT_EQ(noThread.status, 0);
    if (!canForbidOpening) {
        GTEST_SKIP() << "not under the address sanitizer";
    }
    const RoleOutcome noOwnTime = runRole([] {
        setVariables({{variable, "abc"}});
        forbidOpening();
        UTIL::StartControllingProcessWatchdog();
        return getenv(variable) == std::string("abc") ? 0 : 1;
    });
    EXPECT_EQ(noOwnTime.status, 0);
    EXPECT_EQ(noOwnTime.errors, parseError +
                                    "\"abc\"\n[BOOTSTRAP] WARNING: Failed to get process creation "
                                    "time: \"Too many open files\"\n");
}
