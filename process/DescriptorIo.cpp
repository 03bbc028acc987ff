#include "process/DescriptorIo.h"

#include <boost/chrono/system_clocks.hpp>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <stdexcept>
#include <utility>
#include <vector>

#include "process/SystemError.h"

namespace Plexum3::Base {
namespace {

// Runs a transfer until no signal interrupts it and files its failure.
template <class Call>
ssize_t transfer(boost::system::error_code* errorCode, Call call) {
    clearError(errorCode);
    const ssize_t result = retryOnInterrupt(call);
    if (result == -1) {
        storeError(errorCode, errno, boost::system::system_category());
    }
    return result;
}

std::vector<pollfd> shuffledPollSet(const int* fds, int count) {
    std::vector<pollfd> polled;
    polled.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) {
        polled.push_back(pollfd{fds[i], POLLIN, 0});
    }
    for (std::size_t i = 1; i < polled.size(); ++i) {
        const std::size_t j = static_cast<std::size_t>(std::rand()) % (i + 1);
        if (i != j) {
            std::swap(polled[i], polled[j]);
        }
    }
    return polled;
}

// poll(2), repeated while a signal interrupts it; a positive `timeoutMs` is a deadline that
// interruptions do not move.
int pollUntilDeadline(std::vector<pollfd>& polled, int timeoutMs) {
    using Clock = boost::chrono::steady_clock;
    if (timeoutMs < 1) {
        return retryOnInterrupt([&] { return poll(polled.data(), polled.size(), timeoutMs); });
    }
    const Clock::time_point deadline = Clock::now() + boost::chrono::milliseconds(timeoutMs);
    int result = poll(polled.data(), polled.size(), timeoutMs);
    while (result == -1 && errno == EINTR) {
        const auto rest =
            boost::chrono::duration_cast<boost::chrono::milliseconds>(deadline - Clock::now());
        const auto restMs = std::max<boost::chrono::milliseconds::rep>(rest.count(), 0);
        result = poll(polled.data(), polled.size(), static_cast<int>(restMs));
    }
    return result;
}

}  // namespace

void createPipe(ScopedFd& readEnd, ScopedFd& writeEnd) {
    std::array<int, 2> ends{};
    throwOnFailure(pipe2(ends.data(), O_CLOEXEC));
    readEnd.reset(ends[0]);
    writeEnd.reset(ends[1]);
}

void createSocketPair(ScopedFd& first, ScopedFd& second) {
    std::array<int, 2> ends{};
    throwOnFailure(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()));
    first.reset(ends[0]);
    second.reset(ends[1]);
}

void setNonBlocking(int fd, bool enable) {
    const int flags = throwOnFailure(fcntl(fd, F_GETFL));
    throwOnFailure(fcntl(fd, F_SETFL, enable ? flags | O_NONBLOCK : flags & ~O_NONBLOCK));
}

void setInheritable(int fd, bool inheritable) {
    const int flags = throwOnFailure(fcntl(fd, F_GETFD));
    throwOnFailure(fcntl(fd, F_SETFD, inheritable ? flags & ~FD_CLOEXEC : flags | FD_CLOEXEC));
}

bool isSocket(int fd) {
    struct stat info {};
    return fstat(fd, &info) == 0 && S_ISSOCK(info.st_mode);
}

ssize_t readRetry(int fd, void* buffer, std::size_t length, boost::system::error_code* errorCode) {
    return transfer(errorCode, [=] { return read(fd, buffer, length); });
}

ssize_t writeRetry(int fd, const void* buffer, std::size_t length,
                   boost::system::error_code* errorCode) {
    return transfer(errorCode, [=] { return write(fd, buffer, length); });
}

ssize_t recvRetry(int fd, void* buffer, std::size_t length, int flags,
                  boost::system::error_code* errorCode) {
    return transfer(errorCode, [=] { return recv(fd, buffer, length, flags); });
}

ssize_t sendRetry(int fd, const void* buffer, std::size_t length, int flags,
                  boost::system::error_code* errorCode) {
    return transfer(errorCode, [=] { return send(fd, buffer, length, flags); });
}

bool writeAll(int fd, std::string_view bytes, boost::system::error_code* errorCode) {
    clearError(errorCode);
    while (!bytes.empty()) {
        const ssize_t written = writeRetry(fd, bytes.data(), bytes.size(), errorCode);
        if (written <= 0) {
            storeError(errorCode, written == 0 ? EIO : errno, boost::system::system_category());
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

int pollAny(const int* fds, int count, int timeoutMs, boost::system::error_code* errorCode) {
    clearError(errorCode);
    if (count < 0) {
        throw std::length_error("vector::reserve");
    }
    std::vector<pollfd> polled = shuffledPollSet(fds, count);
    const int ready = pollUntilDeadline(polled, timeoutMs);
    if (ready == -1) {
        storeError(errorCode, errno, boost::system::system_category());
        return -1;
    }
    if (ready == 0) {
        storeError(errorCode, ETIMEDOUT, boost::system::generic_category());
        return -1;
    }
    const auto found = std::find_if(polled.begin(), polled.end(), [](const pollfd& entry) {
        return (entry.revents & (POLLIN | POLLERR | POLLHUP | POLLNVAL)) != 0;
    });
    return found == polled.end() ? -1 : found->fd;
}

}  // namespace Plexum3::Base
