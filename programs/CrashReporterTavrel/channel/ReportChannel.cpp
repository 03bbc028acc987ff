#include "programs/CrashReporterTavrel/channel/ReportChannel.h"

#include <client/linux/handler/exception_handler.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>

namespace Zendrik::Reporter {

namespace {

constexpr std::size_t contextSize = sizeof(google_breakpad::ExceptionHandler::CrashContext);

ssize_t receive(int fd, msghdr* message, int flags) {
    ssize_t size = 0;
    do {
        size = recvmsg(fd, message, flags | MSG_DONTWAIT);
    } while (size < 0 && errno == EINTR);
    return size;
}

// The record of this type that came with a message; none: its value-initialised form.
template <typename Record>
std::optional<Record> recordIn(msghdr& message, int type) {
    for (cmsghdr* header = CMSG_FIRSTHDR(&message); header != nullptr;
         header = CMSG_NXTHDR(&message, header)) {
        if (header->cmsg_level == SOL_SOCKET && header->cmsg_type == type) {
            Record record{};
            std::memcpy(&record, CMSG_DATA(header), sizeof record);
            return record;
        }
    }
    return std::nullopt;
}

std::chrono::milliseconds ageOf(const timespec& sent) {
    using std::chrono::milliseconds;
    timespec now{};
    static_cast<void>(clock_gettime(CLOCK_REALTIME, &now));  // every kernel has this clock
    constexpr std::int64_t msPerSecond = 1000;
    constexpr std::int64_t nsPerMs = 1000000;
    const std::int64_t age =
        (now.tv_sec - sent.tv_sec) * msPerSecond + (now.tv_nsec - sent.tv_nsec) / nsPerMs;
    return milliseconds(std::max<std::int64_t>(age, 0));
}

// Without room for control data the kernel closes the descriptor that comes along.
void dropFirst(int fd) {
    char first = 0;
    iovec data{&first, sizeof first};
    msghdr message{};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    static_cast<void>(receive(fd, &message, 0));  // an empty queue is as good
}

}  // namespace

const char* ReportChannel::whatIsWrong() const {
    int type = 0;
    socklen_t size = sizeof type;
    if (getsockopt(fd_, SOL_SOCKET, SO_TYPE, &type, &size) != 0) {
        return errno == ENOTSOCK ? "is no socket" : "is not open";
    }
    if (type != SOCK_SEQPACKET) {
        return "is no SOCK_SEQPACKET socket";
    }
    const int on = 1;
    if (setsockopt(fd_, SOL_SOCKET, SO_PASSCRED, &on, sizeof on) != 0) {
        return "does not tell who sends";
    }
    // Without it a request's age counts from when it is first seen.
    static_cast<void>(setsockopt(fd_, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on));
    return nullptr;
}

pid_t ReportChannel::maker() const {
    ucred maker{};
    socklen_t size = sizeof maker;
    const bool isKnown = getsockopt(fd_, SOL_SOCKET, SO_PEERCRED, &maker, &size) == 0;
    return isKnown && maker.pid > 0 && kill(maker.pid, 0) == 0 ? maker.pid : getppid();
}

std::optional<DumpRequest> ReportChannel::peek() const {
    // Room for time and credentials alone, which come first: the kernel then opens no descriptor
    // here.
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(timespec)) + CMSG_SPACE(sizeof(ucred))>
        control{};
    DumpRequest request;
    request.context.resize(contextSize);
    iovec data{request.context.data(), request.context.size()};
    msghdr message{};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    // With MSG_TRUNC the result is the size of the whole datagram.
    const ssize_t size = receive(fd_, &message, MSG_PEEK | MSG_TRUNC);
    const std::optional<ucred> sender = recordIn<ucred>(message, SCM_CREDENTIALS);
    // After a shutdown an empty queue reads as end of file: nothing, without a sender.
    if (size < 0 || (size == 0 && !sender)) {
        return std::nullopt;
    }
    request.pid = sender ? sender->pid : -1;
    request.wellFormed = request.pid > 0 && static_cast<std::size_t>(size) == contextSize;
    if (const std::optional<timespec> sent = recordIn<timespec>(message, SCM_TIMESTAMPNS)) {
        request.age = ageOf(*sent);
    }
    return request;
}

void ReportChannel::letGo(const DumpRequest& request) const {
    const std::optional<DumpRequest> first = peek();
    if (first && first->isSameAs(request)) {
        dropFirst(fd_);
    }
}

void ReportChannel::shut() const {
    static_cast<void>(shutdown(fd_, SHUT_RDWR));  // fails only where no peer is left
    while (peek()) {
        dropFirst(fd_);
    }
}

bool ReportChannel::isShut() const {
    pollfd channel{fd_, 0, 0};
    return poll(&channel, 1, 0) == 1 && (channel.revents & POLLHUP) != 0;
}

}  // namespace Zendrik::Reporter
