#include "programs/tavrelCleanup/Repetition.h"

#include <algorithm>
#include <cerrno>
#include <ctime>

namespace Cleanup {

bool isPassing(int error) {
    switch (error) {
        case ENOTEMPTY:
        case EEXIST:
        case ENOTDIR:
        case EISDIR:
        case ELOOP:
        case EBUSY:
        case ESTALE:
        case EINTR:
        case EAGAIN:
        case ENOMEM:
        case ENFILE:
            return true;
        default:
            return false;
    }
}

void pauseBeforePass(int pass) {
    if (pass >= 2) {
        const long milliseconds = std::min(10L << (pass - 2), 1000L);
        const timespec pause = {milliseconds / 1000, milliseconds % 1000 * 1'000'000};
        nanosleep(&pause, nullptr);
    }
}

}  // namespace Cleanup
