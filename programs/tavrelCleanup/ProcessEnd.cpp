#include "programs/tavrelCleanup/ProcessEnd.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace Cleanup {
namespace {

struct TableEntry {
    enum class Life { Unknown, Running, Ended };
    Life life = Life::Unknown;
    unsigned long long startTime = 0;
};

/// Takes the text of /proc/PID/stat, terminated. The name in the second field may hold anything, so
/// the fields are counted from the last parenthesis.
TableEntry parseStat(const char* text) {
    TableEntry entry;
    const char* const nameEnd = std::strrchr(text, ')');
    char state = 0;
    long threads = 0;
    // State (3rd), number of threads (20th) and start time (22nd), see proc(5).
    if (nameEnd == nullptr ||
        std::sscanf(nameEnd + 1,
                    " %c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %*u %*u %*d %*d %*d %*d %ld %*d "
                    "%llu",
                    &state, &threads, &entry.startTime) != 3) {
        return entry;
    }
    // A first thread that has left before the others reads as a zombie, too.
    const bool dead = state == 'X' || state == 'x' || (state == 'Z' && threads <= 1);
    entry.life = dead ? TableEntry::Life::Ended : TableEntry::Life::Running;
    return entry;
}

TableEntry readProcessTable(pid_t pid) {
    char path[64];
    std::snprintf(path, sizeof path, "/proc/%d/stat", static_cast<int>(pid));
    const FileDescriptor file(open(path, O_RDONLY | O_CLOEXEC));
    char text[1024];
    const ssize_t length = file.isOpen() ? read(file.get(), text, sizeof text - 1) : -1;
    if (length < 0) {
        TableEntry entry;
        if (errno == ENOENT || errno == ESRCH) {
            entry.life = TableEntry::Life::Ended;
        }
        return entry;
    }
    text[length] = '\0';
    return parseStat(text);
}

}  // namespace

ProcessEnd::ProcessEnd(pid_t pid) : pid_(pid), pidFd_(syscall(SYS_pidfd_open, pid, 0)) {
    if (pidFd_.isOpen()) {
        return;
    }
    goneAtStart_ = errno == ESRCH;
    if (!goneAtStart_) {
        startTime_ = readProcessTable(pid).startTime;
    }
}

void ProcessEnd::await() const {
    if (goneAtStart_) {
        return;
    }
    if (!pidFd_.isOpen()) {
        awaitByProcessTable();
        return;
    }
    pollfd end = {pidFd_.get(), POLLIN, 0};
    while (poll(&end, 1, -1) < 0) {
        // EINTR, or the kernel is short of memory for the moment.
    }
}

void ProcessEnd::awaitByProcessTable() const {
    const timespec interval = {0, 100'000'000};
    for (;;) {
        const TableEntry entry = readProcessTable(pid_);
        const bool stranger = startTime_ != 0 && entry.life == TableEntry::Life::Running &&
                              entry.startTime != startTime_;
        if (entry.life == TableEntry::Life::Ended || stranger) {
            return;
        }
        nanosleep(&interval, nullptr);
    }
}

}  // namespace Cleanup
