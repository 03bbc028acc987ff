#include <boost/system/system_error.hpp>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <array>
#include <atomic>
#include <thread>
#include <utility>

#include "process/Subprocess.h"
#include "tests/process/ProcessFixture.h"

namespace Plexum3::Base {
namespace {

using ::testing::MatchesRegex;

// With a folder of this test's own, and a FIFO in it for what a child has to say.
class SubprocessTest : public ProcessFixture {
  protected:
    SubprocessTest() {
        std::string name = ::testing::TempDir() + "tavrel-process-XXXXXX";
        scratch_ = boost::filesystem::canonical(mkdtemp(name.data())).string();
        mkfifo((scratch_ + "/fifo").c_str(), 0600);
    }
    ~SubprocessTest() override { boost::filesystem::remove_all(scratch_); }

    std::string scratch_;
};

const std::string prefix = "ZkPlexBase::Subprocess - ";

// All that is written to `fd` until its last writer closes it, or what came before the deadline.
std::string readToEnd(int fd) {
    std::string text;
    char chunk[4096];
    ssize_t got = 0;
    while (pollAny(&fd, 1, deadlineMs, nullptr) == fd &&
           (got = readRetry(fd, chunk, sizeof chunk, nullptr)) > 0) {
        text.append(chunk, static_cast<std::size_t>(got));
    }
    return text;
}

struct Ended {
    Subprocess child;
    std::string output;
    std::string errors;
};

// Launches, reads standard output and error to their ends, and reaps the child if there is one.
Ended run(SubprocessOptions options) {
    Pipe output;
    Pipe errors;
    options.stdoutFd = output.writeEnd.get();
    if (options.stderrFd == -1) {
        options.stderrFd = errors.writeEnd.get();
    }
    const Subprocess child = Subprocess::spawn(options);
    output.writeEnd.reset();
    errors.writeEnd.reset();
    Ended ended{child, readToEnd(output.readEnd.get()), readToEnd(errors.readEnd.get())};
    child.wait();
    return ended;
}

// Launches by way of a process of its own, see Roles.cpp, in which calls fail, see Refusals.c.
Ended runLauncher(const std::string& refusal, const std::vector<std::string>& words) {
    SubprocessOptions options;
    options.args = {"/proc/self/exe", "--launch"};
    options.args.insert(options.args.end(), words.begin(), words.end());
    options.closeOtherDescriptors = true;
    options.environment = currentEnvironment();
    options.environment["LD_PRELOAD"] = REFUSALS_LIBRARY;
    options.environment["ASAN_OPTIONS"] = "verify_asan_link_order=0";
    options.environment["TEST_REFUSE"] = ";" + refusal;
    return run(options);
}

TEST_F(SubprocessTest, DescriptorsAndSignalsAreResetWhateverTheKernelKnows) {
    // 150 lies above the open-file limit, where nothing is closed; 3 is what the shell lists the
    // folder with, 4 to 8 the pipe that tells of the end.
    const std::pair<std::string, std::string> cases[]{{"daemon", "0 1 150 2 3\n0000"},
                                                      {"handle", "0 1 150 2 3 [4-8] 50 9\n0027"}};
    const std::string fifo = scratch_ + "/fifo";
    const std::string script =
        "exec >" + fifo + "; cd /proc/$$/fd; echo *; umask; exec grep -E '^Sig(Blk|Ign)' ../status";
    for (const auto& [mode, descriptors] : cases) {
        for (const std::string refusal :
             {"", "close_range 38 1", "close_range 1 1;getdents64 2 1"}) {
            SCOPED_TRACE(mode + refusal);
            const ScopedFd description(open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
            const Ended launcher = runLauncher(refusal, {mode, "/bin/sh", "-c", script});
            EXPECT_EQ(launcher.output,
                      (mode == "daemon" ? "returned" : "state 0") +
                          std::string(refusal.empty() ? "" : ", close_range refused"));
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
    const std::string failed = "state 5 without pid";
    for (const Case& each : {
             Case{"fork 11 1", "daemon", "returned", ""},
             Case{"fork 11 2", "daemon", "returned", "fork() failed\n"},
             Case{"fork 11 3", "daemon", "returned, status 1", "fork() failed\n"},
             Case{"setsid 1 1", "daemon", "returned, status 1", "setsid() failed\n"},
             Case{"chdir 2 1", "daemon", "returned, status 1", "chdir() failed\n"},
             Case{"open 2 1", "daemon", "returned, status 1", "open(\"/dev/null\") failed\n"},
             Case{"", "daemon", "returned, status 127", "", "/no/such/program"},
             Case{"waitpid 22 1", "daemon", "threw system:22 Invalid argument, blocked", ""},
             Case{"fork 11 1", "handle", "state 0 without pid", ""},
             Case{"fcntl 9 1", "handle", failed, "fcntl() failed\n"},
             Case{"dup2 9 7", "handle", failed, "dup2() failed\n"},
             Case{"setpgid 1 1", "handle", failed, "setpgid() failed\n"},
             Case{"chdir 2 1", "handle", failed, "chdir() failed\n"},
             Case{"raise 1 1", "stopped", failed, "raise(SIGSTOP) failed\n"},
             Case{"", "handle", failed, "execvp() failed\n", "/no/such/program"},
         }) {
        SCOPED_TRACE(each.refusal + " " + each.mode);
        const Ended launcher = runLauncher(each.refusal, {each.mode, each.program});
        EXPECT_EQ(launcher.output, each.output);
        EXPECT_EQ(launcher.errors, each.error.empty() ? "" : prefix + each.error);
    }
}

TEST_F(SubprocessTest, EndsAreToldApart) {
    using State = SubprocessState;
    struct Case {
        const char* script;
        State state;
        int exitCode;
        int termSignal;
    };
    for (const Case& each :
         {Case{"exit 0", State::Succeeded, 0, 0}, Case{"exit 255", State::Failed, 255, 0},
          Case{"kill -2 $$", State::Killed, -1, SIGINT},
          Case{"kill -9 $$", State::Killed, -1, SIGKILL},
          Case{"kill -10 $$", State::Crashed, -1, SIGUSR1}}) {
        SCOPED_TRACE(each.script);
        const Subprocess child = Subprocess::spawn(shell(each.script));
        const int end = child.terminationFd();
        EXPECT_EQ(fcntl(end, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
        EXPECT_EQ(pollAny(&end, 1, deadlineMs, nullptr), end);
        EXPECT_EQ(child.exitCode(), -1);
        child.wait();
        EXPECT_EQ(child.terminationFd(), -1);
        if (each.termSignal != 0) {
            child.impl()->rawStatus |= WCOREFLAG;  // written or not, it is the same end
        }
        EXPECT_EQ(child.state(), each.state);
        EXPECT_EQ(child.exitCode(), each.exitCode);
        EXPECT_EQ(child.termSignal(), each.termSignal);
        EXPECT_EQ(child.pid(), -1);
        EXPECT_FALSE(child.poll());
    }
}

TEST_F(SubprocessTest, StolenChildIsAnErrorOfTheWaitAndNoneOfTheSignal) {
    const Subprocess child = Subprocess::spawn(shell("exit 0"));
    EXPECT_THROW(child.sendSignal(9999), boost::system::system_error);
    ASSERT_EQ(waitpid(child.pid(), nullptr, 0), child.pid());
    // Signal 0 does no harm to who may have got the id since.
    child.sendSignal(0, SignalScope::Process);
    child.sendSignal(0, SignalScope::Group);
    EXPECT_THROW(child.poll(), boost::system::system_error);
    EXPECT_EQ(child.state(), SubprocessState::Running);
}

TEST_F(SubprocessTest, SignalsReachTheGroupOrTheChildAlone) {
    struct Case {
        bool ownProcessGroup;
        SignalScope scope;
        bool grandchildDies;
    };
    for (const Case& each :
         {Case{true, SignalScope::Auto, true}, Case{true, SignalScope::Process, false},
          Case{false, SignalScope::Auto, false}}) {
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
        EXPECT_FALSE(child.poll());
        child.sendSignal(SIGTERM, each.scope);
        siginfo_t info{};
        ASSERT_EQ(waitid(P_PID, child.pid(), &info, WEXITED | WNOWAIT), 0);
        const int end = child.terminationFd();
        if (each.grandchildDies) {
            EXPECT_EQ(pollAny(&end, 1, deadlineMs, nullptr), end);
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
    boost::filesystem::create_symlink("/bin/sh", scratch_ + "/renamed");
    SubprocessOptions options =
        shell("pwd >&0; tr '\\0' '\\n' </proc/$$/environ; printf '<%s>' \"$@\"");
    options.args[0] = "renamed";  // found only in the PATH of the child
    options.args.insert(options.args.end(), {"name", "a blank", ""});
    const std::string path = scratch_ + ":/usr/bin:/bin";
    options.environment = {{"PATH", path}, {"EMPTY", ""}, {"EQUALS", "a=b"}};
    options.workingDirectory = scratch_;
    options.stderrFd = STDOUT_FILENO;  // the new one, as the next
    options.stdinFd = STDERR_FILENO;
    EXPECT_EQ(run(options).output,
              scratch_ + "\nEMPTY=\nEQUALS=a=b\nPATH=" + path + "\n<a blank><>");

    SubprocessOptions masked;  // no shell, which has masks of its own
    masked.args = {"grep", "SigBlk", "/proc/self/status"};
    sigaddset(&masked.signalMask, SIGUSR1);
    EXPECT_EQ(run(masked).output, "SigBlk:\t0000000000000200\n");

    masked.args = {"/no/such/program"};
    const Ended failed = run(masked);
    EXPECT_EQ(failed.errors, prefix + "execvp() failed\n");
    EXPECT_EQ(failed.child.terminationFd(), -1);
}

TEST_F(SubprocessTest, LaunchesOfManyThreadsKeepTheirPipesApart) {
    const auto descriptorsOfChild = [] {
        return run(shell("set -- /proc/self/fd/*; exit $#")).child.exitCode();
    };
    const int alone = descriptorsOfChild();
    std::atomic<int> strangers = 0;
    std::array<std::thread, 8> threads;
    for (std::thread& thread : threads) {
        thread = std::thread([&] {
            for (int launch = 0; launch < 150; ++launch) {
                strangers += descriptorsOfChild() - alone;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(strangers, 0);
}

TEST_F(SubprocessTest, StoppedChildStartsOnlyWhenContinued) {
    for (const int signal : {SIGCONT, SIGKILL}) {
        SubprocessOptions options = shell("exit 7");
        options.stopBeforeExec = true;
        std::thread other([signal] {
            siginfo_t stopped{};
            while (waitid(P_ALL, 0, &stopped, WSTOPPED) != 0) {
                std::this_thread::yield();  // no child yet
            }
            kill(stopped.si_pid, signal);
        });
        const Subprocess child = Subprocess::spawn(options);
        other.join();
        // A child killed short of its program counts as started.
        EXPECT_EQ(child.state(), SubprocessState::Running);
        child.wait();
        EXPECT_EQ(child.exitCode(), signal == SIGCONT ? 7 : -1);
    }
}

}  // namespace
}  // namespace Plexum3::Base
