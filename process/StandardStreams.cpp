#include "process/StandardStreams.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "process/ScopedFd.h"

namespace Plexum3::Base {

namespace {

// The same pipe or terminal behind an open file of its own: O_NONBLOCK on the given descriptor
// would be seen by every process that shares it. Empty where no descriptor is to be had, or the
// terminal is another user's.
ScopedFd openWithoutBlocking(int fd) {
    char link[32];
    static_cast<void>(std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd));
    return ScopedFd(open(link, O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
}

bool hasRoom(int fd, int momentMs) {
    pollfd room = {fd, POLLOUT, 0};
    return poll(&room, 1, momentMs) == 1 && (room.revents & POLLOUT) != 0;
}

// What can't be written is dropped, so the result is not looked at.
void writeOnce(int fd, std::string_view line) {
    static_cast<void>(!write(fd, line.data(), line.size()));
}

}  // namespace

void openClosedStandardStreams() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (fcntl(fd, F_GETFD) != -1 || errno != EBADF) {
            continue;
        }
        // The lowest number that is free, and so this one: those below are open.
        if (open("/dev/null", fd == STDIN_FILENO ? O_RDONLY : O_WRONLY) == -1) {
            static_cast<void>(open("/", O_PATH));  // nothing is left to try
        }
    }
}

void writeWholeLineOrDrop(int fd, std::string_view line, int momentMs) {
    struct stat status = {};
    if (fstat(fd, &status) == 0 && S_ISREG(status.st_mode)) {
        writeOnce(fd, line);
    } else if (hasRoom(fd, momentMs)) {
        // Another process may fill what room there is now.
        if (S_ISSOCK(status.st_mode)) {
            static_cast<void>(send(fd, line.data(), line.size(), MSG_DONTWAIT | MSG_NOSIGNAL));
        } else {
            const ScopedFd own = openWithoutBlocking(fd);
            writeOnce(own.isOpen() ? own.get() : fd, line);
        }
    }
}

}  // namespace Plexum3::Base
