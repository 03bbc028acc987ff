#include "programs/CrashReporterTavrel/ReportChannel.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "client/linux/handler/exception_handler.h"

namespace Zendrik::Reporter {

namespace {

constexpr size_t kContextSize = sizeof(google_breakpad::ExceptionHandler::CrashContext);

ssize_t receive(int fd, msghdr* message, int flags) {
    ssize_t size = 0;
    do {
        size = recvmsg(fd, message, flags | MSG_DONTWAIT);
    } while (size < 0 && errno == EINTR);
    return size;
}

pid_t senderOf(msghdr* message) {
    for (cmsghdr* header = CMSG_FIRSTHDR(message); header != nullptr;
         header = CMSG_NXTHDR(message, header)) {
        if (header->cmsg_level == SOL_SOCKET && header->cmsg_type == SCM_CREDENTIALS) {
            ucred credentials{};
            std::memcpy(&credentials, CMSG_DATA(header), sizeof credentials);
            return credentials.pid;
        }
    }
    return -1;
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
    return nullptr;
}

std::optional<DumpRequest> ReportChannel::peek() const {
    // Room for the credentials alone, which come first: the kernel then opens no descriptor here.
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(ucred))> control{};
    char first = 0;
    iovec data{&first, sizeof first};
    msghdr message{};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    // With MSG_TRUNC the result is the size of the whole datagram.
    const ssize_t size = receive(fd_, &message, MSG_PEEK | MSG_TRUNC);
    if (size < 0) {
        return std::nullopt;
    }
    const pid_t pid = senderOf(&message);
    return DumpRequest{pid, pid > 0 && static_cast<size_t>(size) == kContextSize};
}

std::vector<char> ReportChannel::peekContext() const {
    std::vector<char> context(kContextSize);
    iovec data{context.data(), context.size()};
    msghdr message{};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    context.resize(static_cast<size_t>(std::max<ssize_t>(receive(fd_, &message, MSG_PEEK), 0)));
    return context;
}

void ReportChannel::letGo() const {
    // Without room for control data the kernel closes the descriptor that came along.
    char first = 0;
    iovec data{&first, sizeof first};
    msghdr message{};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    (void)receive(fd_, &message, 0);  // an empty queue is as good
}

void ReportChannel::shut() const {
    (void)shutdown(fd_, SHUT_RDWR);  // fails only where no peer is left
    // After the shutdown an empty queue reads as end of file, size 0 and no sender.
    for (std::optional<DumpRequest> next = peek(); next && next->pid > 0; next = peek()) {
        letGo();
    }
}

}  // namespace Zendrik::Reporter
