#pragma once

/// A file descriptor with an owner. From the line where a descriptor exists, one of these holds it,
/// so that every way out closes it:
///
///     const ScopedFd file(open(path, O_RDONLY | O_CLOEXEC));
///     if (!file.isOpen()) {
///         return errno;
///     }
///     ... read(file.get(), ...) ...
///
/// Needs the C library alone, for programs that have no room for more.

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace Plexum3::Base {

/// Owns one descriptor, or none (-1). Closes it on destruction; a failure of close is not reported,
/// and `errno` stays as it was, so that a caller may still ask why the call before has failed.
/// Moves, does not copy. One object is for one thread at a time.
class ScopedFd {
  public:
    ScopedFd() = default;
    /// Takes ownership of `fd`, which may be the -1 of a call that failed.
    explicit ScopedFd(int fd) : fd_(fd) {}
    ScopedFd(ScopedFd&& other) noexcept : fd_(other.release()) {}
    ScopedFd& operator=(ScopedFd&& other) noexcept {
        if (this != &other) {
            reset(other.release());
        }
        return *this;
    }
    ScopedFd(const ScopedFd&) = delete;
    ScopedFd& operator=(const ScopedFd&) = delete;
    ~ScopedFd() { reset(); }

    /// The descriptor, still owned here; -1 for none.
    int get() const { return fd_; }
    bool isOpen() const { return fd_ != -1; }
    /// Closes what is held, if anything, then takes ownership of `fd`.
    void reset(int fd = -1) noexcept {
        const int old = std::exchange(fd_, fd);
        if (old != -1) {
            const int error = errno;
            // Linux has released the descriptor even when close fails: there is nothing to retry.
            static_cast<void>(close(old));
            errno = error;
        }
    }
    /// Gives the descriptor up to the caller and leaves -1 behind.
    [[nodiscard]] int release() noexcept { return std::exchange(fd_, -1); }

  private:
    int fd_ = -1;
};

}  // namespace Plexum3::Base
