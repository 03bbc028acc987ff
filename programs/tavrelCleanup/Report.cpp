#include "programs/tavrelCleanup/Report.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "process/ScopedFd.h"
#include "process/StandardStreams.h"

namespace Cleanup {
namespace {

// With prefix and line end a pipe that is writable takes it whole, see pipe(7).
constexpr std::size_t lineSize = PIPE_BUF;

// syslog(3) would wait for a log that is busy.
bool sendToLog(int type, const char* message, std::size_t length) {
    const Plexum3::Base::ScopedFd log(
        socket(AF_UNIX, type | SOCK_NONBLOCK | SOCK_CLOEXEC, /*protocol=*/0));
    const sockaddr_un address = {AF_UNIX, "/dev/log"};
    return connect(log.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
           send(log.get(), message, length, MSG_NOSIGNAL) >= 0;
}

}  // namespace

void report(const char* format, ...) {
    static char text[lineSize - 32];
    va_list values;
    va_start(values, format);
    vsnprintf(text, sizeof text, format, values);
    va_end(values);
    std::replace_if(
        text, text + std::strlen(text), [](unsigned char c) { return c < 0x20 || c == 0x7f; }, '?');

    static char line[lineSize];
    int length = std::snprintf(line, sizeof line, "tavrelCleanup: %s\n", text);
    Plexum3::Base::writeWholeLineOrDrop(STDERR_FILENO, {line, static_cast<std::size_t>(length)});

    length = std::snprintf(line, sizeof line, "<%d>tavrelCleanup[%d]: %s", LOG_USER | LOG_ERR,
                           static_cast<int>(getpid()), text);
    // A log that takes a stream wants the zero byte behind each message.
    if (!sendToLog(SOCK_DGRAM, line, static_cast<std::size_t>(length))) {
        static_cast<void>(sendToLog(SOCK_STREAM, line, static_cast<std::size_t>(length) + 1));
    }
}

}  // namespace Cleanup
