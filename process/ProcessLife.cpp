#include "process/ProcessLife.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "process/ScopedFd.h"

namespace Plexum3::Base {

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
    return {isDead ? ProcessLife::State::Ended : ProcessLife::State::Living, startTicks};
}

}  // namespace Plexum3::Base
