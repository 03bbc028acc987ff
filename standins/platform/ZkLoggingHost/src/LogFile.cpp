#include "standins/platform/ZkLoggingHost/src/LogFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>

#include "standins/platform/ZkLoggingHost/src/LogSettings.h"

namespace ZkLoggingHost::internal {
namespace {

// Non-blocking for the sake of FIFOs; regular files don't care.
int openForAppending(const std::string& path) {
    constexpr mode_t lessTheUmask = 0666;
    return open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NONBLOCK | O_NOCTTY,
                lessTheUmask);
}

std::string numbered(const std::string& path, unsigned number) {
    return number == 0 ? path : path + '.' + std::to_string(number);
}

}  // namespace

int writeWhole(int descriptor, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = write(descriptor, text.data(), text.size());
        if (written < 0 && errno != EINTR) {
            return errno;
        }
        text.remove_prefix(written > 0 ? static_cast<std::size_t>(written) : 0);
    }
    return 0;
}

LogFile::LogFile(const LogSettings& settings)
    : path_(std::filesystem::absolute(settings.file)),
      rotateSize_(settings.rotateSize),
      rotateKeep_(settings.rotateKeep),
      descriptor_(-1) {
    if (settings.makesFolder) {
        // If this fails, so does the next call, which names the reason.
        std::error_code ignored;
        std::filesystem::create_directories(std::filesystem::path(path_).parent_path(), ignored);
    }
    descriptor_ = openForAppending(path_);
    if (descriptor_ < 0) {
        throw std::system_error(errno, std::system_category());
    }
}

LogFile::~LogFile() {
    close(descriptor_);
}

int LogFile::append(std::string_view text) {
    if (rotateSize_ != 0 && isFullWith(text.size())) {
        rotate();
    }
    const int error = writeWhole(descriptor_, text);
    return error == EAGAIN ? 0 : error;
}

bool LogFile::isFullWith(std::size_t size) const {
    struct stat status = {};
    return fstat(descriptor_, &status) == 0 && S_ISREG(status.st_mode) && status.st_size > 0 &&
           static_cast<std::uint64_t>(status.st_size) + size > rotateSize_;
}

bool LogFile::isStillAtPath() const {
    struct stat open = {};
    struct stat named = {};
    return fstat(descriptor_, &open) == 0 && stat(path_.c_str(), &named) == 0 &&
           open.st_dev == named.st_dev && open.st_ino == named.st_ino;
}

void LogFile::rotate() {
    // Without waiting: the process that holds the lock may be stopped. One that doesn't get it
    // writes on.
    if (flock(descriptor_, LOCK_EX | LOCK_NB) != 0) {
        return;
    }
    if (isStillAtPath()) {
        for (unsigned number = rotateKeep_; number > 0; --number) {
            // The older ones need not be there.
            const int failed =
                std::rename(numbered(path_, number - 1).c_str(), numbered(path_, number).c_str());
            if (failed != 0 && number == 1) {
                // A folder that can't be written: the file grows on.
                rotateSize_ = 0;
            }
        }
    }
    const int next = openForAppending(path_);
    if (next < 0) {
        static_cast<void>(flock(descriptor_, LOCK_UN));  // lines go on into the file put aside
        return;
    }
    close(descriptor_);
    descriptor_ = next;
}

}  // namespace ZkLoggingHost::internal
