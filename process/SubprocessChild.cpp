// Rule of this file: system calls only, no heap, no lock, out by exec or _exit.

#include "process/SubprocessChild.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace Plexum3::Base {
namespace {

constexpr int FIRST_EXTRA_DESCRIPTOR = 3;
constexpr int LAST_SIGNAL = 64;
constexpr int STATUS_SETUP_FAILED = 1;
constexpr int STATUS_EXEC_FAILED = 127;

// Nothing is left to tell a failure to.
void childWrite(int fd, const void* data, std::size_t length) {
    [[maybe_unused]] const ssize_t ignored = ::write(fd, data, length);
}

[[noreturn]] void childReport(const char* message, int status) {
    char prefix[] = "ZkPlexBase::Subprocess - ";
    childWrite(STDERR_FILENO, prefix, sizeof prefix - 1);
    childWrite(STDERR_FILENO, message, std::strlen(message));
    ::_exit(status);
}

[[noreturn]] void childFail(const ChildPlan& plan, const char* message, int status) {
    childWrite(plan.statusWriteEnd, &status, sizeof status);
    childReport(message, status);
}

void childCloseGap(long first, long last) {
    if (first > last) {
        return;
    }
    // Through libc's symbol, so that a preloaded library can stand in for an older kernel.
    if (::close_range(static_cast<unsigned>(first), static_cast<unsigned>(last), 0) == 0) {
        return;
    }
    for (long fd = first; fd <= last; ++fd) {
        ::close(static_cast<int>(fd));
    }
}

void childResetSignalHandlers() {
    for (int number = 1; number <= LAST_SIGNAL; ++number) {
        // SIGKILL, SIGSTOP and libc's own two refuse, and have nothing to reset.
        ::signal(number, SIG_DFL);
    }
}

// Goes on as a child of the calling process, which ends.
void childForkAndLeaveParent() {
    const pid_t pid = ::fork();
    if (pid == -1) {
        childReport("fork() failed\n", STATUS_SETUP_FAILED);
    }
    if (pid != 0) {
        ::_exit(0);
    }
}

void childConnectToNull() {
    const int null = ::open("/dev/null", O_RDWR);
    if (null == -1) {
        childReport("open(\"/dev/null\") failed\n", STATUS_SETUP_FAILED);
    }
    ::dup2(null, STDIN_FILENO);
    ::dup2(null, STDOUT_FILENO);
    ::dup2(null, STDERR_FILENO);
    if (null > STDERR_FILENO) {
        ::close(null);
    }
}

// The one descriptor beside the standard three that is meant to live as long as the program.
bool childKeepAcrossExec(int fd) {
    const int flags = ::fcntl(fd, F_GETFD);
    return flags != -1 && ::fcntl(fd, F_SETFD, flags & ~FD_CLOEXEC) != -1;
}

bool childInstall(int fd, int target) {
    return fd == -1 || ::dup2(fd, target) != -1;
}

bool childInstallStandardStreams(const ChildPlan& plan) {
    return childInstall(plan.stdoutFd, STDOUT_FILENO) &&
           childInstall(plan.stderrFd, STDERR_FILENO) && childInstall(plan.stdinFd, STDIN_FILENO);
}

// Returns if the program could not be executed.
void childExecute(char* const* argv) {
    if (::execvp(argv[0], argv) == 0) {
        std::abort();
    }
}

}  // namespace

void childCloseDescriptors(const ChildDescriptors& descriptors) {
    const long limit = std::min<long>(descriptors.limit, INT_MAX);
    long first = FIRST_EXTRA_DESCRIPTOR;
    for (std::size_t i = 0; i < descriptors.keptCount; ++i) {
        const int kept = descriptors.kept[i];
        if (kept >= limit) {
            break;
        }
        if (kept >= first) {
            childCloseGap(first, kept - 1L);
            first = kept + 1L;
        }
    }
    childCloseGap(first, limit - 1);
}

void childBecomeDaemon(const DaemonPlan& plan) {
    childCloseDescriptors({nullptr, 0, plan.openLimit});
    childResetSignalHandlers();
    sigset_t none;
    ::sigemptyset(&none);
    ::pthread_sigmask(SIG_SETMASK, &none, nullptr);
    childForkAndLeaveParent();

    if (::setsid() == -1) {
        childReport("setsid() failed\n", STATUS_SETUP_FAILED);
    }
    // No longer the leader of its session, it can't come by a terminal by opening one.
    childForkAndLeaveParent();

    if (::chdir("/") == -1) {
        childReport("chdir() failed\n", STATUS_SETUP_FAILED);
    }
    childConnectToNull();
    ::umask(0);
    childExecute(plan.argv);
    childReport("execvp() failed\n", STATUS_EXEC_FAILED);
}

void childBecomeProgram(const ChildPlan& plan) {
    ::close(plan.statusReadEnd);
    childResetSignalHandlers();
    ::pthread_sigmask(SIG_SETMASK, plan.signalMask, nullptr);
    if (!childKeepAcrossExec(plan.terminationWriteEnd)) {
        childFail(plan, "fcntl() failed\n", STATUS_SETUP_FAILED);
    }
    if (!childInstallStandardStreams(plan)) {
        childFail(plan, "dup2() failed\n", STATUS_SETUP_FAILED);
    }
    if (plan.ownProcessGroup && ::setpgid(0, 0) == -1) {
        childFail(plan, "setpgid() failed\n", STATUS_SETUP_FAILED);
    }
    if (plan.closeOtherDescriptors) {
        childCloseDescriptors(plan.descriptors);
    }
    if (plan.workingDirectory != nullptr && ::chdir(plan.workingDirectory) == -1) {
        childFail(plan, "chdir() failed\n", STATUS_SETUP_FAILED);
    }
    if (plan.stopBeforeExec && ::raise(SIGSTOP) != 0) {
        childFail(plan, "raise(SIGSTOP) failed\n", STATUS_SETUP_FAILED);
    }
    // Assigned rather than passed on: execvp looks the program up in the PATH of `environ`.
    environ = plan.environment;
    childExecute(plan.argv);
    childFail(plan, "execvp() failed\n", STATUS_EXEC_FAILED);
}

}  // namespace Plexum3::Base
