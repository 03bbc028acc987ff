#include "process/Subprocess.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <functional>
#include <thread>
#include <utility>

#include <gmock/gmock.h>
#include <boost/filesystem/operations.hpp>
#include <boost/system/system_error.hpp>

#include "tests/process/ProcessFixture.h"

namespace Plexum3::Base {
namespace {

using ::testing::MatchesRegex;

// With a FIFO, open for reading, for what a child has to say, in a folder of this test's own.
class SubprocessTest : public ProcessFixture {
  protected:
    SubprocessTest() {
        std::string name = ::testing::TempDir() + "tavrel-process-XXXXXX";
        scratch = boost::filesystem::canonical(::mkdtemp(name.data()));
        fifo = (scratch / "fifo").string();
        ::mkfifo(fifo.c_str(), 0600);
    }
    ~SubprocessTest() override { boost::filesystem::remove_all(scratch); }

    boost::filesystem::path scratch;
    std::string fifo;
};

const std::string PREFIX = "ZkPlexBase::Subprocess - ";

// The environment of a role in which calls fail; see Refusals.c.
std::map<std::string, std::string> refusing(const std::string& refusal) {
    auto environment = currentEnvironment();
    environment["LD_PRELOAD"] = REFUSALS_LIBRARY;
    environment["ASAN_OPTIONS"] = "verify_asan_link_order=0";
    environment["TEST_REFUSE"] = refusal;
    return environment;
}

TEST_F(SubprocessTest, DescriptorsAndSignalsAreResetWhateverTheKernelKnows) {
    // 150 lies above the open-file limit, where nothing is closed; 3 is what the shell lists the
    // folder with, 4 to 8 the pipe that tells of the end.
    const std::map<std::string, std::string> surviving{{"daemon", "0 1 150 2 3"},
                                                       {"handle", "0 1 150 2 3 [4-8] 50 9"}};
    const std::string script =
        "exec >" + fifo + "; cd /proc/$$/fd; echo *; exec grep -E '^Sig(Blk|Ign)' ../status";
    for (const auto& [mode, descriptors] : surviving) {
        for (const char* refusal : {"", "close_range 38 1", "close_range 1 1"}) {
            SCOPED_TRACE(mode + refusal);
            const ScopedFd description(::open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
            SubprocessOptions options = role({"spoil", mode, script});
            options.closeOtherDescriptors = true;
            options.environment = refusing(refusal);
            const Ended launcher = run(options);
            EXPECT_EQ(launcher.output, *refusal == '\0' ? "100" : "101");
            EXPECT_EQ(launcher.errors, "");
            EXPECT_THAT(readToEnd(description.get()),
                        MatchesRegex(descriptors +
                                     "\nSigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n"));
        }
    }
}

TEST_F(SubprocessTest, FailingCallsAreReportedWhereTheyAreSeen) {
    struct Case {
        std::string refusal;
        std::string mode;
        std::string output;
        std::string error;
        std::string program = "true";
    };
    const std::string failed = "state 5 pid -1";
    for (const Case& each : {
             Case{"fork 11 1", "daemon", "returned", ""},
             Case{"fork 11 2", "daemon", "returned", "fork() failed\n"},
             Case{"fork 11 3", "daemon", "returned", "fork() failed\n"},
             Case{"setsid 1 1", "daemon", "returned", "setsid() failed\n"},
             Case{"chdir 2 1", "daemon", "returned", "chdir() failed\n"},
             Case{"open 2 1", "daemon", "returned", "open(\"/dev/null\") failed\n"},
             Case{"", "daemon", "returned", "", "/no/such/program"},
             Case{"waitpid 22 1", "daemon", "threw system:22 Invalid argument blocked", ""},
             Case{"fork 11 1", "handle", "state 0 pid -1", ""},
             Case{"fcntl 9 1", "handle", failed, "fcntl() failed\n"},
             Case{"setpgid 1 1", "handle", failed, "setpgid() failed\n"},
             Case{"raise 1 1", "stopped", failed, "raise(SIGSTOP) failed\n"},
         }) {
        SCOPED_TRACE(each.refusal + " " + each.mode);
        SubprocessOptions options = role({"launch", each.mode, each.program});
        options.environment = refusing(each.refusal);
        const Ended launcher = run(options);
        EXPECT_EQ(launcher.output, each.output);
        EXPECT_EQ(launcher.errors, each.error.empty() ? "" : PREFIX + each.error);
    }
}

TEST_F(SubprocessTest, ChildFailsToStartForGood) {
    const std::vector<std::pair<std::string, std::function<void(SubprocessOptions&)>>> cases{
        {"chdir() failed\n", [](auto& options) { options.workingDirectory = "/no/such/folder"; }},
        {"dup2() failed\n", [](auto& options) { options.stdinFd = 9999; }},
        {"execvp() failed\n", [](auto& options) { options.args = {"/no/such/program"}; }}};
    for (const auto& [message, spoil] : cases) {
        SCOPED_TRACE(message);
        SubprocessOptions options = shell("exit 0");
        spoil(options);
        const Ended ended = run(options);
        EXPECT_EQ(ended.errors, PREFIX + message);
        EXPECT_EQ(ended.child.state(), SubprocessState::FailedToStart);
        EXPECT_EQ(ended.child.pid(), -1);
        EXPECT_EQ(ended.child.terminationFd(), -1);
        EXPECT_EQ(ended.child.waitStatus(), -1);
        EXPECT_EQ(ended.child.exitCode(), -1);
        EXPECT_EQ(ended.child.termSignal(), -1);
        EXPECT_FALSE(ended.child.poll());
        ended.child.sendSignal(SIGKILL);
    }
}

TEST_F(SubprocessTest, EndsAreToldApart) {
    struct Case {
        const char* script;
        SubprocessState state;
        int exitCode;
        int termSignal;
    };
    for (const Case& each : {Case{"exit 0", SubprocessState::Succeeded, 0, 0},
                             Case{"exit 255", SubprocessState::Failed, 255, 0},
                             Case{"kill -2 $$", SubprocessState::Killed, -1, SIGINT},
                             Case{"kill -9 $$", SubprocessState::Killed, -1, SIGKILL},
                             Case{"kill -15 $$", SubprocessState::Killed, -1, SIGTERM},
                             Case{"kill -10 $$", SubprocessState::Crashed, -1, SIGUSR1}}) {
        SCOPED_TRACE(each.script);
        const Subprocess child = Subprocess::spawn(shell(each.script));
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

TEST_F(SubprocessTest, StolenChildIsAnErrorOfTheWaitAndNoneOfTheSignal) {
    Pipe input;
    SubprocessOptions options = shell("cat");
    options.stdinFd = input.readEnd.get();
    const Subprocess child = Subprocess::spawn(options);
    Subprocess copy;
    EXPECT_EQ(copy.impl(), nullptr);
    copy = child;
    EXPECT_EQ(copy.impl(), child.impl());
    const int end = copy.terminationFd();
    EXPECT_EQ(pollAny(&end, 1, 0, nullptr), -1);
    EXPECT_FALSE(copy.poll());
    EXPECT_THROW(copy.sendSignal(9999), boost::system::system_error);
    input.writeEnd.reset();
    ASSERT_EQ(::waitpid(child.pid(), nullptr, 0), child.pid());
    // Signal 0 does no harm to who may have got the id since.
    child.sendSignal(0, SignalScope::Process);
    child.sendSignal(0, SignalScope::Group);
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
        Pipe input;
        Pipe output;
        SubprocessOptions options = shell("exec 3<&0; cat <&3 & echo; wait");
        options.ownProcessGroup = each.ownProcessGroup;
        options.stdinFd = input.readEnd.get();
        options.stdoutFd = output.writeEnd.get();
        const Subprocess child = Subprocess::spawn(options);
        output.writeEnd.reset();
        char newline = 0;
        ASSERT_EQ(readRetry(output.readEnd.get(), &newline, 1, nullptr), 1);
        child.sendSignal(SIGTERM, each.scope);
        siginfo_t info{};
        ASSERT_EQ(::waitid(P_PID, child.pid(), &info, WEXITED | WNOWAIT), 0);
        const int end = child.terminationFd();
        if (each.grandchildDies) {
            EXPECT_EQ(pollAny(&end, 1, DEADLINE_MS, nullptr), end);
        } else {
            EXPECT_EQ(pollAny(&end, 1, 0, nullptr), -1) << "cat has inherited the other end";
            input.writeEnd.reset();
        }
        EXPECT_EQ(readToEnd(output.readEnd.get()), "");
        EXPECT_TRUE(child.poll());
        EXPECT_EQ(child.state(), SubprocessState::Killed);
    }
}

TEST_F(SubprocessTest, ChildIsWhatTheOptionsSay) {
    boost::filesystem::create_symlink("/bin/sh", scratch / "renamed");
    SubprocessOptions options =
        shell("pwd; tr '\\0' '\\n' </proc/$$/environ; printf '<%s>' \"$@\"");
    options.args[0] = "renamed";  // found only in the PATH of the child
    options.args.insert(options.args.end(), {"name", "a blank", ""});
    const std::string path = scratch.string() + ":/usr/bin:/bin";
    options.environment = {{"PATH", path}, {"EMPTY", ""}, {"EQUALS", "a=b"}};
    options.workingDirectory = scratch.string();
    EXPECT_EQ(run(options).output,
              scratch.string() + "\nEMPTY=\nEQUALS=a=b\nPATH=" + path + "\n<a blank><>");

    SubprocessOptions masked;  // no shell, which has masks of its own
    masked.args = {"grep", "SigBlk", "/proc/self/status"};
    ::sigaddset(&masked.signalMask, SIGUSR1);
    EXPECT_EQ(run(masked).output, "SigBlk:\t0000000000000200\n");
}

TEST_F(SubprocessTest, EmptyEnvironmentStandsForASnapshotOfTheCallers) {
    std::vector<std::string> entries{"B=2", "NO_SEPARATOR", "B=3", "A=x=y", "=odd"};
    std::vector<char*> pointers(entries.size() + 1);
    std::transform(entries.begin(), entries.end(), pointers.begin(),
                   [](std::string& entry) { return entry.data(); });
    SubprocessOptions options;
    options.args = {"/bin/cat", "/proc/self/environ"};
    char** const own = std::exchange(environ, pointers.data());
    const std::string block = run(options).output;
    environ = nullptr;
    EXPECT_TRUE(currentEnvironment().empty());
    environ = own;
    EXPECT_EQ(block, std::string("=odd\0A=x=y\0B=3\0NO_SEPARATOR=\0", 29));
}

TEST_F(SubprocessTest, StandardErrorMayFollowTheNewStandardOutput) {
    Pipe output;
    SubprocessOptions options = shell("echo out; echo error >&2");
    options.stdoutFd = output.writeEnd.get();
    options.stderrFd = STDOUT_FILENO;
    const Subprocess child = Subprocess::spawn(options);
    output.writeEnd.reset();
    EXPECT_EQ(readToEnd(output.readEnd.get()), "out\nerror\n");
    child.wait();
}

TEST_F(SubprocessTest, StoppedChildStartsOnlyWhenContinued) {
    for (const int signal : {SIGCONT, SIGKILL}) {
        SCOPED_TRACE(signal);
        SubprocessOptions options = shell("exit 7");
        options.stopBeforeExec = true;
        std::thread other([signal] {
            siginfo_t stopped{};
            while (::waitid(P_ALL, 0, &stopped, WSTOPPED) != 0) {
                std::this_thread::yield();  // no child yet
            }
            ::kill(stopped.si_pid, signal);
        });
        const Subprocess child = Subprocess::spawn(options);
        other.join();
        // A child killed short of its program counts as started.
        EXPECT_EQ(child.state(), SubprocessState::Running);
        child.wait();
        EXPECT_EQ(child.exitCode(), signal == SIGCONT ? 7 : -1);
        EXPECT_EQ(child.termSignal(), signal == SIGCONT ? 0 : SIGKILL);
    }
}

TEST_F(SubprocessTest, LaunchThatCanMakeNoPipeLeavesNothing) {
    rlimit old{};
    ::getrlimit(RLIMIT_NOFILE, &old);
    const auto lowest = static_cast<rlim_t>(ScopedFd(::dup(STDIN_FILENO)).get());
    // Room for the first pipe, not for the second.
    const rlimit tight{lowest + 3, old.rlim_max};
    // One failure ahead: a sanitizer needs a pipe to look at the first.
    EXPECT_THROW(setNonBlocking(-1, true), boost::system::system_error);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &tight), 0);
    try {
        Subprocess::spawn(shell("exit 0"));
        ADD_FAILURE() << "no exception";
    } catch (const boost::system::system_error& error) {
        ::setrlimit(RLIMIT_NOFILE, &old);
        EXPECT_EQ(error.code().value(), EMFILE);
    }
}

}  // namespace
}  // namespace Plexum3::Base
