#pragma once

#include <unistd.h>

namespace Cleanup {

/// Owns one descriptor; -1 for none. Closes it on destruction and leaves `errno` as it is, so that
/// a caller may look at the error of the call that failed.
class FileDescriptor {
  public:
    FileDescriptor() = default;
    explicit FileDescriptor(int fd) : fd_(fd) {}
    FileDescriptor(FileDescriptor&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
    FileDescriptor& operator=(FileDescriptor&& other) noexcept;
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() { reset(); }

    int get() const { return fd_; }
    bool isOpen() const { return fd_ >= 0; }
    void reset() noexcept;

  private:
    int fd_ = -1;
};

}  // namespace Cleanup
