#include "process/StandardStreams.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace Plexum3::Base {

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

}  // namespace Plexum3::Base
