#include "process/Subprocess.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <functional>
#include <sstream>
#include <thread>
#include <utility>

#include <gmock/gmock.h>
#include <boost/filesystem/operations.hpp>
#include <boost/system/system_error.hpp>

#include "tests/process/ProcessFixture.h"

namespace Plexum3::Base {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

class SubprocessTest : public ProcessFixture {};

const std::string PREFIX = "ZkPlexBase::Subprocess - ";

// The environment of a role in which calls fail; see Refusals.c.
std::map<std::string, std::string> refusing(const std::string& refusal) {
    auto environment = currentEnvironment();
    environment["LD_PRELOAD"] = REFUSALS_LIBRARY;
    environment["ASAN_OPTIONS"] = "verify_asan_link_order=0";
    environment["TEST_REFUSE"] = refusal;
    return environment;
}

// The lines of a description that begin with `name`.
std::string linesOf(const std::string& description, const std::string& name) {
    std::istringstream lines(description);
    std::string found;
    for (std::string line; std::getline(lines, line);) {
        found += line.compare(0, name.size(), name) == 0 ? line + "\n" : "";
    }
    return found;
}

// Waits for the next child to stop and sends it `signal`. There has to be another child already: a
// wait with nobody to wait for does not wait.
void signalStoppedChild(int signal) {
    siginfo_t stopped{};
    ASSERT_EQ(::waitid(P_ALL, 0, &stopped, WSTOPPED), 0);
    ::kill(stopped.si_pid, signal);
}

TEST_F(SubprocessTest, DaemonInheritsNothingButTheEnvironment) {
    const std::string fifo = (scratch() / "description").string();
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    for (const char* refusal : {"", "close_range 38 1", "close_range 1 1"}) {
        SCOPED_TRACE(refusal);
        const ScopedFd description(::open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
        SubprocessOptions options = role({"spoil", "daemon", fifo});
        options.closeOtherDescriptors = true;
        options.workingDirectory = scratch().string();
        options.environment = refusing(refusal);
        const Ended launcher = run(options);
        EXPECT_EQ(launcher.output, *refusal == '\0' ? "100" : "101");
        EXPECT_EQ(launcher.errors, "");

        const std::string text = readToEnd(description.get());
        // 150 lies above the open-file limit, where nothing is closed.
        EXPECT_EQ(linesOf(text, "fd "),
                  "fd 0 /dev/null\nfd 1 /dev/null\nfd 2 /dev/null\nfd 150 /dev/null\n");
        EXPECT_EQ(linesOf(text, "Sig"), "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n");
        EXPECT_THAT(text, AllOf(HasSubstr("session-leader 0\n"), HasSubstr("group-leader 0\n"),
                                HasSubstr("session-of-group 1\n"), HasSubstr("cwd /\n"),
                                HasSubstr("umask 0\n"), HasSubstr("terminal 0\n"),
                                HasSubstr("env TEST_MARK=carried along\n")));
    }
}

TEST_F(SubprocessTest, KeptDescriptorsAloneSurvive) {
    const std::string file = (scratch() / "description").string();
    for (const char* refusal : {"", "close_range 38 1", "close_range 1 1"}) {
        SCOPED_TRACE(refusal);
        const ScopedFd description(
            ::open(file.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        SubprocessOptions options = role({"spoil", "handle", file});
        options.closeOtherDescriptors = true;
        options.environment = refusing(refusal);
        const Ended launcher = run(options);
        EXPECT_EQ(launcher.output, *refusal == '\0' ? "100" : "101");

        const std::string text = readToEnd(description.get());
        const std::string descriptors = linesOf(text, "fd ");
        const std::string extra = descriptors.substr(descriptors.find("fd 2 "));
        // The pipe is the write end that tells of the child's end.
        EXPECT_THAT(extra, ::testing::MatchesRegex(
                               "fd 2 [^\n]*\nfd [3-8] pipe\nfd 9 /dev/null\nfd 50 /dev/null\n"
                               "fd 150 /dev/null\n"));
        EXPECT_EQ(linesOf(text, "Sig"), "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n");
    }
}

TEST_F(SubprocessTest, FailingCallsAreReportedWhereTheyAreSeen) {
    struct Case {
        std::string refusal;
        std::vector<std::string> launch;
        std::string output;
        std::string errors;
    };
    const std::string failed = "state 5 pid -1";
    const std::vector<Case> cases{
        {"fork 11 1", {"daemon", "true"}, "returned", ""},
        {"fork 11 2", {"daemon", "true"}, "returned", PREFIX + "fork() failed\nwaited 0x100\n"},
        {"fork 11 3", {"daemon", "true"}, "returned", PREFIX + "fork() failed\n"},
        {"setsid 1 1", {"daemon", "true"}, "returned", PREFIX + "setsid() failed\n"},
        {"chdir 2 1", {"daemon", "true"}, "returned", PREFIX + "chdir() failed\n"},
        {"open 2 1", {"daemon", "true"}, "returned", PREFIX + "open(\"/dev/null\") failed\n"},
        {"", {"daemon", "/no/such/program"}, "returned", ""},
        {"waitpid 22 1", {"daemon", "true"}, "threw system:22 Invalid argument blocked", ""},
        {"fork 11 1", {"handle", "true"}, "state 0 pid -1", ""},
        {"fcntl 9 1", {"handle", "true"}, failed, PREFIX + "fcntl() failed\nwaited 0x100\n"},
        {"setpgid 1 1", {"handle", "true"}, failed, PREFIX + "setpgid() failed\nwaited 0x100\n"},
        {"raise 1 1", {"handle", "true"}, failed, PREFIX + "raise(SIGSTOP) failed\nwaited 0x100\n"},
        {"", {"handle", "/no/such/program"}, failed, PREFIX + "execvp() failed\nwaited 0x7f00\n"},
    };
    for (const Case& each : cases) {
        SCOPED_TRACE(each.refusal + " " + each.launch[0] + " " + each.launch[1]);
        SubprocessOptions options = role({"launch"});
        options.args.insert(options.args.end(), each.launch.begin(), each.launch.end());
        options.environment = refusing(each.refusal);
        options.environment["TEST_SHOW_STATUS"] = "1";
        if (each.refusal.compare(0, 5, "raise") == 0) {
            options.environment["TEST_STOP"] = "1";
        }
        const Ended launcher = run(options);
        EXPECT_EQ(launcher.output, each.output);
        // A first child that went well is waited for with status 0.
        const std::string waited = "waited 0\n";
        std::string errors = launcher.errors;
        const std::size_t at = errors.find(waited);
        if (at != std::string::npos) {
            errors.erase(at, waited.size());
        }
        EXPECT_EQ(errors, each.errors);
    }
}

TEST_F(SubprocessTest, ChildFailsToStartForGood) {
    struct Case {
        std::string message;
        std::function<void(SubprocessOptions&)> spoil;
    };
    const std::vector<Case> cases{
        {"chdir() failed\n", [](auto& options) { options.workingDirectory = "/no/such/folder"; }},
        {"dup2() failed\n", [](auto& options) { options.stdinFd = 9999; }},
        {"execvp() failed\n", [](auto& options) { options.args = {"/no/such/program"}; }}};
    for (const Case& each : cases) {
        SCOPED_TRACE(each.message);
        SubprocessOptions options = role({"finish", "0"});
        each.spoil(options);
        const Ended ended = run(options);
        EXPECT_EQ(ended.errors, PREFIX + each.message);
        EXPECT_EQ(ended.child.state(), SubprocessState::FailedToStart);
        EXPECT_EQ(ended.child.pid(), -1);
        EXPECT_EQ(ended.child.terminationFd(), -1);
        EXPECT_EQ(ended.child.exitCode(), -1);
        EXPECT_EQ(ended.child.termSignal(), -1);
        EXPECT_FALSE(ended.child.poll());
        ended.child.sendSignal(SIGKILL);
    }
}

TEST_F(SubprocessTest, EndsAreToldApart) {
    struct Case {
        std::vector<std::string> words;
        SubprocessState state;
        int exitCode;
        int termSignal;
    };
    const std::vector<Case> cases{{{"finish", "0"}, SubprocessState::Succeeded, 0, 0},
                                  {{"finish", "255"}, SubprocessState::Failed, 255, 0},
                                  {{"die", "2"}, SubprocessState::Killed, -1, SIGINT},
                                  {{"die", "9"}, SubprocessState::Killed, -1, SIGKILL},
                                  {{"die", "15"}, SubprocessState::Killed, -1, SIGTERM},
                                  {{"die", "10"}, SubprocessState::Crashed, -1, SIGUSR1}};
    for (const Case& each : cases) {
        SCOPED_TRACE(each.words[0] + each.words[1]);
        const Subprocess child = Subprocess::spawn(role(each.words));
        const int end = child.terminationFd();
        EXPECT_GT(child.pid(), 0);
        EXPECT_EQ(child.waitStatus(), -1);
        EXPECT_EQ(pollAny(&end, 1, DEADLINE_MS, nullptr), end);
        child.wait();
        EXPECT_EQ(child.state(), each.state);
        EXPECT_EQ(child.exitCode(), each.exitCode);
        EXPECT_EQ(child.termSignal(), each.termSignal);
        EXPECT_EQ(child.pid(), -1);
        EXPECT_EQ(child.terminationFd(), -1);
        EXPECT_FALSE(child.poll());
        child.sendSignal(SIGKILL);
        // The pattern of a stop, which no wait of this class gives.
        child.impl()->rawStatus = 0x137f;
        EXPECT_EQ(child.state(), SubprocessState::Failed);
        EXPECT_EQ(child.termSignal(), 0);
        EXPECT_EQ(child.exitCode(), -1);
    }
}

TEST_F(SubprocessTest, CopiesSeeTheSameChild) {
    EXPECT_EQ(Subprocess().impl(), nullptr);
    ScopedFd inputRead;
    ScopedFd inputWrite;
    createPipe(inputRead, inputWrite);
    SubprocessOptions options = role({"hold"});
    options.stdinFd = inputRead.get();
    const Subprocess child = Subprocess::spawn(options);
    const Subprocess copy = child;  // NOLINT(performance-unnecessary-copy-initialization)
    const int end = copy.terminationFd();
    boost::system::error_code error;
    EXPECT_EQ(pollAny(&end, 1, 0, &error), -1);
    EXPECT_EQ(error.value(), ETIMEDOUT);
    EXPECT_FALSE(copy.poll());
    EXPECT_THROW(copy.sendSignal(9999), boost::system::system_error);
    inputWrite.reset();
    child.wait();
    EXPECT_EQ(copy.state(), SubprocessState::Succeeded);
    EXPECT_EQ(copy.waitStatus(), 0);
}

TEST_F(SubprocessTest, StolenChildIsAnErrorOfTheWaitAndNoneOfTheSignal) {
    const Subprocess child = Subprocess::spawn(role({"finish", "0"}));
    ASSERT_EQ(::waitpid(child.pid(), nullptr, 0), child.pid());
    child.sendSignal(SIGTERM, SignalScope::Process);
    child.sendSignal(SIGTERM, SignalScope::Group);
    try {
        child.poll();
        FAIL() << "no exception";
    } catch (const boost::system::system_error& error) {
        EXPECT_EQ(error.code(),
                  boost::system::error_code(ECHILD, boost::system::system_category()));
    }
    EXPECT_EQ(child.state(), SubprocessState::Running);
}

TEST_F(SubprocessTest, SignalsReachTheGroupOrTheChildAlone) {
    struct Case {
        bool ownProcessGroup;
        SignalScope scope;
        bool grandchildDies;
    };
    for (const Case& each :
         {Case{true, SignalScope::Auto, true}, Case{true, SignalScope::Group, true},
          Case{true, SignalScope::Process, false}, Case{false, SignalScope::Auto, false}}) {
        SCOPED_TRACE(static_cast<int>(each.scope));
        ScopedFd inputRead;
        ScopedFd inputWrite;
        ScopedFd outputRead;
        ScopedFd outputWrite;
        createPipe(inputRead, inputWrite);
        createPipe(outputRead, outputWrite);
        SubprocessOptions options;
        options.args = {"/bin/sh", "-c", "exec 3<&0; cat <&3 & echo; wait"};
        options.ownProcessGroup = each.ownProcessGroup;
        options.stdinFd = inputRead.get();
        options.stdoutFd = outputWrite.get();
        const Subprocess child = Subprocess::spawn(options);
        outputWrite.reset();
        char newline = 0;
        ASSERT_EQ(readRetry(outputRead.get(), &newline, 1, nullptr), 1);
        child.sendSignal(SIGTERM, each.scope);
        siginfo_t info{};
        ASSERT_EQ(::waitid(P_PID, child.pid(), &info, WEXITED | WNOWAIT), 0);
        const int end = child.terminationFd();
        if (each.grandchildDies) {
            EXPECT_EQ(pollAny(&end, 1, DEADLINE_MS, nullptr), end);
        } else {
            EXPECT_EQ(pollAny(&end, 1, 0, nullptr), -1) << "cat has inherited the other end";
            inputWrite.reset();
        }
        EXPECT_EQ(readToEnd(outputRead.get()), "");
        EXPECT_TRUE(child.poll());
        EXPECT_EQ(child.state(), SubprocessState::Killed);
    }
}

TEST_F(SubprocessTest, ChildIsWhatTheOptionsSay) {
    const std::string file = (scratch() / "description").string();
    boost::filesystem::create_symlink(boost::filesystem::read_symlink("/proc/self/exe"),
                                      scratch() / "renamed");
    SubprocessOptions options = role({"describe", file, "a blank", ""});
    options.args[0] = "renamed";  // found only in the PATH of the child
    options.environment = {{"PATH", scratch().string()}, {"EMPTY", ""}, {"EQUALS", "a=b"}};
    options.workingDirectory = scratch().string();
    options.ownProcessGroup = true;
    ::sigaddset(&options.signalMask, SIGUSR1);
    EXPECT_EQ(run(options).child.state(), SubprocessState::Succeeded);
    const ScopedFd description(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    const std::string text = readToEnd(description.get());
    EXPECT_EQ(linesOf(text, "env "),
              "env EMPTY=\nenv EQUALS=a=b\nenv PATH=" + scratch().string() + "\n");
    EXPECT_EQ(linesOf(text, "word "), "word " + file + "\nword a blank\nword \n");
    EXPECT_EQ(linesOf(text, "SigBlk"), "SigBlk:\t0000000000000200\n");
    EXPECT_THAT(text, AllOf(HasSubstr("group-leader 1\n"), HasSubstr("session-leader 0\n"),
                            HasSubstr("cwd " + scratch().string() + "\n")));
}

TEST_F(SubprocessTest, EmptyEnvironmentStandsForASnapshotOfTheCallers) {
    std::vector<std::string> entries{"B=2", "NO_SEPARATOR", "B=3", "A=x=y", "=odd"};
    std::vector<char*> pointers;
    for (std::string& entry : entries) {
        pointers.push_back(entry.data());
    }
    pointers.push_back(nullptr);
    char** const own = std::exchange(environ, pointers.data());
    const Ended ended = run(role({"describe", "/dev/stdout"}));
    environ = nullptr;
    EXPECT_TRUE(currentEnvironment().empty());
    environ = own;
    EXPECT_EQ(linesOf(ended.output, "env "), "env =odd\nenv A=x=y\nenv B=3\nenv NO_SEPARATOR=\n");
}

TEST_F(SubprocessTest, StandardErrorMayFollowTheNewStandardOutput) {
    ScopedFd outputRead;
    ScopedFd outputWrite;
    createPipe(outputRead, outputWrite);
    SubprocessOptions options;
    options.args = {"/no/such/program"};
    options.stdoutFd = outputWrite.get();
    options.stderrFd = STDOUT_FILENO;
    EXPECT_EQ(Subprocess::spawn(options).state(), SubprocessState::FailedToStart);
    outputWrite.reset();
    EXPECT_EQ(readToEnd(outputRead.get()), PREFIX + "execvp() failed\n");
}

TEST_F(SubprocessTest, StoppedChildStartsOnlyWhenContinued) {
    for (const int signal : {SIGCONT, SIGKILL}) {
        SCOPED_TRACE(signal);
        SubprocessOptions options = role({"finish", "7"});
        options.stopBeforeExec = true;
        ScopedFd inputRead;
        ScopedFd inputWrite;
        createPipe(inputRead, inputWrite);
        SubprocessOptions holding = role({"hold"});
        holding.stdinFd = inputRead.get();
        const Subprocess bystander = Subprocess::spawn(holding);
        std::thread other(signalStoppedChild, signal);
        const Subprocess child = Subprocess::spawn(options);
        other.join();
        inputWrite.reset();
        bystander.wait();
        // A child killed short of its program counts as started.
        EXPECT_EQ(child.state(), SubprocessState::Running);
        child.wait();
        EXPECT_EQ(child.exitCode(), signal == SIGCONT ? 7 : -1);
        EXPECT_EQ(child.termSignal(), signal == SIGCONT ? 0 : SIGKILL);
    }
}

TEST_F(SubprocessTest, NoProgramAtAllEndsTheChildAlone) {
    const Ended ended = run(SubprocessOptions());
    EXPECT_THAT(ended.child.state(),
                ::testing::AnyOf(SubprocessState::Crashed, SubprocessState::Failed));
}

TEST_F(SubprocessTest, LaunchThatCanMakeNoPipeLeavesNothing) {
    rlimit old{};
    ::getrlimit(RLIMIT_NOFILE, &old);
    const int lowest = ::dup(0);
    ::close(lowest);
    // Room for the first pipe, not for the second.
    const rlimit tight{static_cast<rlim_t>(lowest) + 3, old.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &tight), 0);
    boost::system::error_code code;
    try {
        Subprocess::spawn(role({"finish", "0"}));
    } catch (const boost::system::system_error& error) {
        // First: a sanitizer needs a pipe to look at the exception.
        ::setrlimit(RLIMIT_NOFILE, &old);
        code = error.code();
    }
    EXPECT_EQ(code, boost::system::error_code(EMFILE, boost::system::system_category()));
}

TEST_F(SubprocessTest, ManyThreadsMayLaunch) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([i] {
            for (int round = 0; round < 5; ++round) {
                SubprocessOptions options;
                options.args = {"/bin/sh", "-c", "exit " + std::to_string(i)};
                const Subprocess child = Subprocess::spawn(options);
                child.wait();
                EXPECT_EQ(child.exitCode(), i);
                Subprocess::spawnDaemonized({"/bin/true"});
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

}  // namespace
}  // namespace Plexum3::Base
