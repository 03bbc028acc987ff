#include "programs/tavrelCleanup/FileDescriptor.h"

#include <cerrno>
#include <utility>

namespace Cleanup {

FileDescriptor& FileDescriptor::operator=(FileDescriptor&& other) noexcept {
    if (this != &other) {
        reset();
        fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
}

void FileDescriptor::reset() noexcept {
    if (fd_ >= 0) {
        const int error = errno;
        close(std::exchange(fd_, -1));
        errno = error;
    }
}

}  // namespace Cleanup
