#include "process/ProcessEnd.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace Plexum3::Base {
namespace {

constexpr int intervalMs = 250;
constexpr long nsPerMs = 1'000'000;

}  // namespace

ProcessLife readProcessLife(pid_t pid) {
    char path[64];
    std::snprintf(path, sizeof path, "/proc/%d/stat", static_cast<int>(pid));
    const ScopedFd file(open(path, O_RDONLY | O_CLOEXEC));
    char text[1024];
    const ssize_t length = file.isOpen() ? read(file.get(), text, sizeof text - 1) : -1;
    if (length < 0) {
        // An entry that isn't there may only be hidden (hidepid, another /proc).
        const bool isGone = kill(pid, 0) == -1 && errno == ESRCH;
        return {isGone ? ProcessLife::State::Ended : ProcessLife::State::Unknown, 0};
    }
    text[length] = '\0';
    return parseProcessLife(text);
}

ProcessLife parseProcessLife(const char* stat) {
    // The name in the second field may hold anything, so the fields are counted from the last
    // parenthesis: state (3rd), number of threads (20th) and start time (22nd), see proc(5).
    const char* const nameEnd = std::strrchr(stat, ')');
    char state = 0;
    long threads = 0;
    std::uint64_t startTicks = 0;
    if (nameEnd == nullptr ||
        std::sscanf(nameEnd + 1,
                    " %c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %*u %*u %*d %*d %*d %*d %ld %*d "
                    "%" SCNu64,
                    &state, &threads, &startTicks) != 3) {
        return {};
    }
    const bool isDead = state == 'X' || state == 'x' || (state == 'Z' && threads <= 1);
    return {isDead         ? ProcessLife::State::Ended
            : state == 'T' ? ProcessLife::State::Stopped
                           : ProcessLife::State::Living,
            startTicks};
}

ProcessEnd::ProcessEnd(pid_t pid)
    : pid_(pid),
      pidFd_(static_cast<int>(syscall(SYS_pidfd_open, pid, 0))),
      atStart_(readProcessLife(pid)) {}

int ProcessEnd::pollIntervalMs() const {
    return pidFd_.isOpen() ? -1 : intervalMs;
}

bool ProcessEnd::hasEnded() const {
    pollfd end = {pidFd_.get(), POLLIN, 0};
    if (pidFd_.isOpen() && poll(&end, 1, 0) >= 0) {
        return (end.revents & POLLIN) != 0;
    }
    const ProcessLife life = readProcessLife(pid_);
    const bool isStranger =
        atStart_.startTicks != 0 && life.startTicks != 0 && life.startTicks != atStart_.startTicks;
    return life.state == ProcessLife::State::Ended || isStranger ||
           atStart_.state == ProcessLife::State::Ended;
}

void ProcessEnd::await() const {
    const timespec interval = {0, intervalMs * nsPerMs};
    while (!hasEnded()) {
        pollfd end = {pidFd_.get(), POLLIN, 0};
        if (poll(&end, 1, pollIntervalMs()) == -1 && errno != EINTR) {
            nanosleep(&interval, nullptr);  // a limit of 0 open files forbids poll
        }
    }
}

void ProcessEnd::wakeIfStopped() const {
    if (readProcessLife(pid_).state == ProcessLife::State::Stopped && !hasEnded()) {
        static_cast<void>(kill(pid_, SIGCONT));  // fails only for one that has just ended
    }
}

}  // namespace Plexum3::Base
