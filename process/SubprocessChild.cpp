// Rule of this file: system calls only, no heap, no lock, out by exec or _exit.

#include "process/SubprocessChild.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace Plexum3::Base {
namespace {

constexpr int firstExtraDescriptor = 3;
constexpr int lastSignal = 64;
constexpr int statusSetupFailed = 1;
constexpr int statusExecFailed = 127;

// There is nowhere left to report a failure.
void childWrite(int fd, const void* data, std::size_t length) {
    static_cast<void>(!write(fd, data, length));
}

[[noreturn]] void childReport(const char* message, int status) {
    char prefix[] = "ZkPlexBase::Subprocess - ";
    childWrite(STDERR_FILENO, prefix, sizeof prefix - 1);
    childWrite(STDERR_FILENO, message, std::strlen(message));
    _exit(status);
}

[[noreturn]] void childFail(const ChildPlan& plan, const char* message, int status) {
    childWrite(plan.statusWriteEnd, &status, sizeof status);
    childReport(message, status);
}

bool childIsToClose(const ChildDescriptors& descriptors, long fd) {
    const int* const end = descriptors.kept + descriptors.keptCount;
    return fd >= firstExtraDescriptor && fd < descriptors.limit &&
           !std::binary_search(descriptors.kept, end, static_cast<int>(fd));
}

bool childCloseGap(long first, long last) {
    // Through libc's symbol, so that a preloaded library can stand in for an older kernel.
    return first > last ||
           close_range(static_cast<unsigned>(first), static_cast<unsigned>(last), 0) == 0;
}

bool childCloseGaps(const ChildDescriptors& descriptors) {
    long first = firstExtraDescriptor;
    for (std::size_t i = 0; i < descriptors.keptCount; ++i) {
        const int kept = descriptors.kept[i];
        if (kept >= descriptors.limit) {
            break;
        }
        if (kept >= first) {
            if (!childCloseGap(first, kept - 1L)) {
                return false;
            }
            first = kept + 1L;
        }
    }
    return childCloseGap(first, descriptors.limit - 1);
}

// -1 for a name that is no number.
long childNumberOf(const char* name) {
    long number = *name == '\0' ? -1 : 0;
    for (; *name != '\0' && number <= INT_MAX; ++name) {
        if (*name < '0' || *name > '9') {
            return -1;
        }
        number = number * 10 + (*name - '0');
    }
    return number;
}

// False if not all of them are known to be closed.
bool childCloseListed(const ChildDescriptors& descriptors) {
    const int folder = open("/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    // What stands at that place without naming the folder itself is no list of descriptors.
    bool isGenuine = false;
    alignas(dirent64) char entries[4096];
    ssize_t length = 0;
    while (folder != -1 && (length = getdents64(folder, entries, sizeof entries)) > 0) {
        for (ssize_t next = 0; next < length;) {
            const auto* const entry = reinterpret_cast<const dirent64*>(entries + next);
            next += entry->d_reclen;
            const long fd = childNumberOf(entry->d_name);
            isGenuine = isGenuine || fd == folder;
            // The kernel lists in ascending order by number: closing hides none of the rest.
            if (fd != folder && childIsToClose(descriptors, fd)) {
                close(static_cast<int>(fd));
            }
        }
    }
    if (folder != -1) {
        close(folder);
    }
    return isGenuine && length == 0;
}

void childResetSignalHandlers() {
    for (int number = 1; number <= lastSignal; ++number) {
        // SIGKILL, SIGSTOP and libc's own two refuse, and have nothing to reset.
        static_cast<void>(signal(number, SIG_DFL));
    }
}

// Goes on as a child of the calling process, which ends.
void childForkAndLeaveParent() {
    const pid_t pid = fork();
    if (pid == -1) {
        childReport("fork() failed\n", statusSetupFailed);
    }
    if (pid != 0) {
        _exit(0);
    }
}

void childConnectToNull() {
    const int null = open("/dev/null", O_RDWR);
    if (null == -1) {
        childReport("open(\"/dev/null\") failed\n", statusSetupFailed);
    }
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        static_cast<void>(dup2(null, fd));  // the program runs also where one stays
    }
    if (null > STDERR_FILENO) {
        close(null);
    }
}

// The one descriptor beside the standard three that is meant to live as long as the program.
bool childKeepAcrossExec(int fd) {
    const int flags = fcntl(fd, F_GETFD);
    return flags != -1 && fcntl(fd, F_SETFD, flags & ~FD_CLOEXEC) != -1;
}

bool childInstall(int fd, int target) {
    return fd == -1 || dup2(fd, target) != -1;
}

bool childInstallStandardStreams(const SubprocessOptions& options) {
    return childInstall(options.stdoutFd, STDOUT_FILENO) &&
           childInstall(options.stderrFd, STDERR_FILENO) &&
           childInstall(options.stdinFd, STDIN_FILENO);
}

// Returns if the program could not be executed.
void childExecute(char* const* argv) {
    if (execvp(argv[0], argv) == 0) {
        std::abort();
    }
}

}  // namespace

void childCloseDescriptors(const ChildDescriptors& descriptors) {
    const ChildDescriptors bounded{descriptors.kept, descriptors.keptCount,
                                   std::min<long>(descriptors.limit, INT_MAX)};
    if (childCloseGaps(bounded) || childCloseListed(bounded)) {
        return;
    }
    for (long fd = firstExtraDescriptor; fd < bounded.limit; ++fd) {
        if (childIsToClose(bounded, fd)) {
            close(static_cast<int>(fd));
        }
    }
}

void childBecomeDaemon(const DaemonPlan& plan) {
    childCloseDescriptors({nullptr, 0, plan.openLimit});
    childResetSignalHandlers();
    sigset_t none;
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, nullptr);
    childForkAndLeaveParent();

    if (setsid() == -1) {
        childReport("setsid() failed\n", statusSetupFailed);
    }
    // No longer the leader of its session, it can't come by a terminal by opening one.
    childForkAndLeaveParent();

    if (chdir("/") == -1) {
        childReport("chdir() failed\n", statusSetupFailed);
    }
    childConnectToNull();
    umask(0);
    childExecute(plan.argv);
    childReport("execvp() failed\n", statusExecFailed);
}

void childBecomeProgram(const ChildPlan& plan) {
    const SubprocessOptions& options = *plan.options;
    close(plan.statusReadEnd);
    childResetSignalHandlers();
    pthread_sigmask(SIG_SETMASK, &options.signalMask, nullptr);
    if (!childKeepAcrossExec(plan.terminationWriteEnd)) {
        childFail(plan, "fcntl() failed\n", statusSetupFailed);
    }
    if (!childInstallStandardStreams(options)) {
        childFail(plan, "dup2() failed\n", statusSetupFailed);
    }
    if (options.ownProcessGroup && setpgid(0, 0) == -1) {
        childFail(plan, "setpgid() failed\n", statusSetupFailed);
    }
    if (options.closeOtherDescriptors) {
        childCloseDescriptors(plan.descriptors);
    }
    if (!options.workingDirectory.empty() && chdir(options.workingDirectory.c_str()) == -1) {
        childFail(plan, "chdir() failed\n", statusSetupFailed);
    }
    if (options.stopBeforeExec && raise(SIGSTOP) != 0) {
        childFail(plan, "raise(SIGSTOP) failed\n", statusSetupFailed);
    }
    // Assigned rather than passed on: execvp looks the program up in the PATH of `environ`.
    environ = plan.environment;
    childExecute(plan.argv);
    childFail(plan, "execvp() failed\n", statusExecFailed);
}

}  // namespace Plexum3::Base
