// The reporter as its launcher meets it, with a bare launcher that crashes in every way.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <iostream>

#include "google_breakpad/processor/call_stack.h"
#include "google_breakpad/processor/minidump_processor.h"
#include "google_breakpad/processor/process_state.h"
#include "programs/CrashReporterTavrel/DumpFolder.h"
#include "tests/programs/CrashReporterTavrel/ClientRun.h"

namespace Zendrik::Reporter {
namespace {

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

// The thread that the folder's only dump blames; fails unless there is exactly one, complete one.
long crashedThreadIn(const ScratchFolder& folder, const std::string& signalName) {
    const std::vector<std::string> dumps = namesEndingIn(folder.path, ".dmp");
    EXPECT_EQ(dumps.size(), 1U);
    if (dumps.empty()) {
        return -1;
    }
    EXPECT_TRUE(isGuid(dumps[0].substr(0, dumps[0].find('.')))) << dumps[0];
    struct stat status {};
    EXPECT_EQ(stat((folder / dumps[0]).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, S_IFREG | 0600U);
    std::clog.rdbuf(nullptr);
    google_breakpad::MinidumpProcessor processor(nullptr, nullptr);
    google_breakpad::ProcessState state;
    EXPECT_EQ(processor.Process((folder / dumps[0]).string(), &state), google_breakpad::PROCESS_OK);
    EXPECT_THAT(state.crash_reason(), HasSubstr(signalName));
    const int index = state.requesting_thread();
    return index < 0 ? -1 : state.threads()->at(static_cast<size_t>(index))->tid();
}

std::string onlyReportIn(const ScratchFolder& folder) {
    const std::vector<std::string> reports = namesEndingIn(folder.path, ".txt");
    EXPECT_EQ(reports.size(), 1U);
    return reports.empty() ? std::string() : contentOf(folder / reports[0]);
}

struct CrashKind {
    const char* kind;
    int signal;
    const char* signalName;
};

class EveryCrash : public testing::TestWithParam<std::tuple<CrashKind, bool>> {};

TEST_P(EveryCrash, EndsByItsOwnSignalWithOneDumpThatBlamesTheRightThread) {
    const auto& [crash, inProcess] = GetParam();
    const ScratchFolder dumps;
    ClientOptions options;
    options.inProcess = inProcess;
    ClientRun client(crash.kind, dumps, options);
    client.go();
    const bool oneOfTwo = std::string(crash.kind) == "two-threads";
    const long crashing = oneOfTwo ? 0 : client.readNumber("crashing");
    const int status = client.finish();
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == crash.signal) << status;
    const long blamed = crashedThreadIn(dumps, crash.signalName);
    EXPECT_TRUE(blamed == crashing || oneOfTwo) << blamed << " instead of " << crashing;
    if (inProcess) {
        EXPECT_EQ(namesIn(dumps.path).size(), 1U);
        return;
    }
    EXPECT_EQ(namesIn(dumps.path).size(), 2U);
    const std::string report = onlyReportIn(dumps);
    EXPECT_THAT(report, HasSubstr("\nCrashed thread " + std::to_string(blamed)));
    EXPECT_THAT(report, HasSubstr(std::string("\nSignal:      ") + crash.signalName));
    EXPECT_EQ(std::count(client.errors.begin(), client.errors.end(), '\n'), 1) << client.errors;
}

constexpr CrashKind kKinds[] = {
    {"null", SIGSEGV, "SIGSEGV"},        {"abort", SIGABRT, "SIGABRT"},
    {"bus", SIGBUS, "SIGBUS"},           {"division", SIGFPE, "SIGFPE"},
    {"illegal", SIGILL, "SIGILL"},       {"trap", SIGTRAP, "SIGTRAP"},
    {"overflow", SIGSEGV, "SIGSEGV"},    {"thread", SIGSEGV, "SIGSEGV"},
    {"two-threads", SIGSEGV, "SIGSEGV"},
};
INSTANTIATE_TEST_SUITE_P(Reporter, EveryCrash,
                         testing::Combine(testing::ValuesIn(kKinds), testing::Bool()),
                         [](const auto& info) {
                             std::string name = std::get<0>(info.param).kind;
                             name.erase(std::remove(name.begin(), name.end(), '-'), name.end());
                             return name + (std::get<1>(info.param) ? "InProcess" : "OutOfProcess");
                         });

TEST(Reporter, ReportTellsWhatWasRunningAndWhereItStood) {
    const ScratchFolder dumps;
    ClientOptions options;
    options.arguments = {"2", "--script=x.py"};
    options.environment = {"ZK_SESSION_ID=session-7"};
    ClientRun client("thread", dumps, options);
    client.go();
    client.readNumber("crashing");
    const std::string pid = std::to_string(client.pid);
    client.finish();
    const std::string report = onlyReportIn(dumps);
    const std::string guid = namesIn(dumps.path)[0].substr(0, 36);
    for (const std::string& line :
         {"^Tavrel crash report\n\nProduct:     Tavrel [0-9.]+\nTime:        20.* UTC\n"
          "Session:     session-7\nProcess:     " +
              pid + "\nExecutable:  /.*/crashing_client\nRun mode:    script\n",
          std::string("\nUptime:      [0-9.]+ s\nMemory:      [0-9.]+ MiB resident, [0-9.]+ MiB at "
                      "its peak, [0-9.]+ MiB virtual; 4 threads\nSystem:      Linux "),
          "\nDump:        " + (dumps / (guid + ".dmp")).string() + "\n",
          std::string("\nSignal:      SIGSEGV /SEGV_MAPERR at 0x10\n"),
          std::string("\nCrashed thread [0-9]+(, sinking)?\n"
                      "  #0  crashing_client  .*crashByNull\\(\\) \\+ 0x"),
          std::string("\nThread " + pid + ".*\n  #0  "),
          // Only unwind rules lead from the C library's inside to the thread's start.
          std::string("  #[0-9]+  crashing_client  main \\+ 0x"),
          std::string("\nModules: .*\n(.*\n)*  0x[0-9a-f]+  0x[0-9a-f]+  [0-9a-f]{40}  "
                      "/.*/crashing_client\n"),
          std::string("  [0-9a-f]{40}  /.*/libc.so.6\n")}) {
        EXPECT_THAT(report, ContainsRegex(line));
    }
    EXPECT_THAT(report, Not(HasSubstr("--script")));  // arguments may hold what is nobody's affair
    EXPECT_EQ(client.errors, "CrashReporterTavrel: process " + pid + " has crashed; its dump is " +
                                 (dumps / (guid + ".dmp")).string() + ", its report is " +
                                 (dumps / (guid + ".txt")).string() + "\n");
}

TEST(Reporter, TakesInThePythonStackLogOfThisRunAlone) {
    const ScratchFolder work;
    const std::string log = work / "PythonStackLog.txt";
    enum { Absent, Fresh, Stale, Link };
    for (const int kind : {Absent, Fresh, Stale, Link}) {
        SCOPED_TRACE(kind);
        const ScratchFolder dumps;
        ClientOptions options;
        options.workingDirectory = work.path;
        if (kind == Link) {
            std::filesystem::remove(log);
            writeFile(work / "other", "C function call\n");
            std::filesystem::create_symlink("other", log);
        }
        ClientRun client("null", dumps, options);
        if (kind == Fresh || kind == Stale) {
            writeFile(log, "C function call\n");
        }
        if (kind == Stale) {
            std::filesystem::last_write_time(
                log, std::filesystem::file_time_type::clock::now() - std::chrono::hours(1));
        }
        client.go();
        client.finish();
        const bool there = onlyReportIn(dumps).find("C function call\n") != std::string::npos;
        EXPECT_EQ(there, kind == Fresh);
    }
}

TEST(Reporter, ForkedChildOfTheLauncherYieldsItsOwnDump) {
    const ScratchFolder dumps;
    ClientRun client("child", dumps);
    client.go();
    const long crashing = client.readNumber("crashing");
    EXPECT_EQ(client.finish(), 0);  // the launcher lives on
    EXPECT_EQ(crashedThreadIn(dumps, "SIGSEGV"), crashing);
    EXPECT_THAT(onlyReportIn(dumps), HasSubstr("Process:     " + std::to_string(crashing) + "\n"));
}

TEST(Reporter, WhatCannotBeDumpedCostsOneLineAndNotTheProcess) {
    const ScratchFolder scratch;
    std::filesystem::create_directory(scratch / "folder");
    std::filesystem::create_directory_symlink("folder", scratch / "link");
    writeFile(scratch / "file", "");
    const std::string folder = "TAVREL_CRASH_DIR=" + scratch.path.string();
    const struct {
        std::vector<std::string> environment;
        const char* line;
    } cases[] = {
        {{folder + "/missing"}, "missing: No such file or directory; make the folder"},
        {{folder + "/file"}, "Not a directory; name a folder itself"},
        {{folder + "/link/"}, "; name a folder itself"},
        {{folder + "/folder", "CLIENT_FILE_LIMIT=8192"}, "; make room there"},
        {{folder + "/folder", "CLIENT_SECCOMP=deny 101 310"}, "does not let it be traced"},
        // ptrace is fatal: the worker dies while the crashed process waits for it.
        {{folder + "/folder", "CLIENT_SECCOMP=kill 101"}, "the worker that made it ended (Bad sys"},
        // clone is fatal to the guardian's only helper before it has taken the request.
        {{folder + "/folder", "CLIENT_SECCOMP=deny 56"}, "Operation not permitted"},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.line);
        ClientOptions options;
        options.environment = test.environment;
        ClientRun client("null", scratch, options);
        client.go();
        const int status = client.finish();
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGSEGV) << status;
        EXPECT_THAT(client.errors, HasSubstr(test.line));
        EXPECT_EQ(std::count(client.errors.begin(), client.errors.end(), '\n'), 1);
        EXPECT_THAT(namesIn(scratch / "folder"), IsEmpty());
    }
}

TEST(Reporter, EndsWithItsLauncherAndLeavesNothing) {
    enum class End { Exit, Kill, LeavesChild };
    const struct {
        End end;
        const char* seccomp;
    } cases[] = {
        {End::Exit, "deny"},
        {End::Kill, "deny"},
        {End::LeavesChild, "deny"},
        {End::LeavesChild, "deny 434"},  // no pidfd_open
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(static_cast<int>(test.end));
        const ScratchFolder dumps;
        ClientOptions options;
        options.environment = {std::string("CLIENT_SECCOMP=") + test.seccomp};
        ClientRun client(test.end == End::LeavesChild ? "leave-child" : "exit", dumps, options);
        const ScopedFd ended = watchProcess(client.reporter);
        if (test.end == End::Kill) {
            kill(client.pid, SIGKILL);
        } else {
            client.go();
        }
        EXPECT_TRUE(becomesReadable(ended));
        EXPECT_THAT(namesIn(dumps.path), IsEmpty());
        client.closeInput();
        client.finish();
        EXPECT_EQ(client.errors, "");
    }
}

TEST(Reporter, ChildThatOutlivesLauncherAndReporterDiesOfItsCrash) {
    const ScratchFolder dumps;
    ClientRun client("leave-crashing-child", dumps);
    const ScopedFd reporterEnded = watchProcess(client.reporter);
    client.go();
    const ScopedFd childEnded = watchProcess(static_cast<pid_t>(client.readNumber("child")));
    ASSERT_TRUE(becomesReadable(reporterEnded));
    client.closeInput();  // now the child crashes, with both ends of the channel in its own hands
    EXPECT_TRUE(becomesReadable(childEnded));
    client.finish();
}

TEST(Reporter, OutlastsTheTerminalsSignals) {
    const ScratchFolder dumps;
    ClientRun client("null", dumps);
    for (const int signal : {SIGINT, SIGQUIT, SIGHUP, SIGTSTP}) {
        kill(client.reporter, signal);
    }
    client.go();
    client.finish();
    EXPECT_EQ(namesIn(dumps.path).size(), 2U);
}

TEST(Reporter, LetsItsLauncherCrashWithoutItAfterSigterm) {
    const ScratchFolder dumps;
    ClientRun client("null", dumps);
    const ScopedFd ended = watchProcess(client.reporter);
    kill(client.reporter, SIGTERM);
    ASSERT_TRUE(becomesReadable(ended));
    client.go();
    const int status = client.finish();
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGSEGV) << status;
    EXPECT_THAT(namesIn(dumps.path), IsEmpty());
}

TEST(Reporter, PromptIsShownOnlyWithAFlagAndADisplay) {
    const ScratchFolder programs;
    writeFile(programs / "zenity", "#!/bin/sh\n: >" + (programs / "asked").string() + "\nexit 0\n");
    std::filesystem::permissions(programs / "zenity", std::filesystem::perms::owner_all);
    const struct {
        const char* flag;
        const char* display;
        bool asked;
    } cases[] = {{"1", ":none", true}, {"1", "", false}, {"0", ":none", false}};
    for (const auto& test : cases) {
        SCOPED_TRACE(std::string(test.flag) + test.display);
        const ScratchFolder dumps;
        std::filesystem::remove(programs / "asked");
        ClientOptions options;
        options.environment = {std::string("CLIENT_PROMPT=") + test.flag,
                               std::string("DISPLAY=") + test.display,
                               "PATH=" + programs.path.string()};
        ClientRun client("null", dumps, options);
        const ScopedFd ended = watchProcess(client.reporter);
        client.go();
        client.finish();
        ASSERT_TRUE(becomesReadable(ended));  // standard error ends before the question is answered
        EXPECT_EQ(std::filesystem::exists(programs / "asked"), test.asked);
        EXPECT_EQ(namesIn(dumps.path).size(), test.asked ? 0U : 2U);  // it answers "Remove"
    }
}

TEST(Reporter, RefusesWhatItCannotServe) {
    int stream[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, stream), 0);
    const ScopedFd first(stream[0]);
    const ScopedFd second(stream[1]);
    const struct {
        std::string server;
        std::string prompt;
        int status;
        std::string answer;
        const char* line;
    } cases[] = {
        {"9999", "0", 1, std::string(1, '\0'), "descriptor 9999 is not open"},
        {"0", "0", 1, std::string(1, '\0'), "descriptor 0 is no socket"},
        {std::to_string(stream[0]), "1", 1, std::string(1, '\0'), "is no SOCK_SEQPACKET socket"},
        {"three", "0", 2, "", "usage: SERVER_FD HANDSHAKE_FD 0|1"},
        {"3", "2", 2, "", "usage: SERVER_FD HANDSHAKE_FD 0|1"},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.server + " " + test.prompt);
        ScopedFd answer;
        ScopedFd handshake;
        ScopedFd errors;
        ScopedFd errorsEnd;
        Plexum3::Base::createPipe(answer, handshake);
        Plexum3::Base::createPipe(errors, errorsEnd);
        const pid_t child = fork();
        if (child == 0) {
            Plexum3::Base::setInheritable(handshake.get(), true);
            (void)dup2(errorsEnd.get(), STDERR_FILENO);
            (void)dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
            execl(REPORTER_UNDER_TEST, "reporter", test.server.c_str(),
                  std::to_string(handshake.get()).c_str(), test.prompt.c_str(), nullptr);
            _exit(3);
        }
        handshake.reset();
        errorsEnd.reset();
        int status = -1;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == test.status) << status;
        char text[512] = {};
        const ssize_t size = read(answer.get(), text, sizeof text);
        EXPECT_EQ(std::string(text, static_cast<size_t>(std::max<ssize_t>(size, 0))), test.answer);
        EXPECT_GT(read(errors.get(), text, sizeof text - 1), 0);
        EXPECT_THAT(text, HasSubstr(test.line));
    }
}

}  // namespace
}  // namespace Zendrik::Reporter
