#include "programs/CrashReporterTavrel/Announcement.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "process/DescriptorIo.h"

namespace Zendrik::Reporter {

void announce(const char* format, ...) {
    constexpr char prefix[] = "CrashReporterTavrel: ";
    char line[3 * 4096];
    std::strcpy(line, prefix);
    const size_t room = sizeof line - sizeof prefix;
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(line + sizeof prefix - 1, room, format, arguments);
    va_end(arguments);
    size_t size = sizeof prefix - 1 + std::min(room - 1, static_cast<size_t>(std::max(length, 0)));
    line[size++] = '\n';
    const ssize_t written = write(STDERR_FILENO, line, size);
    (void)written;
}

bool letGoOfStandardError() {
    const Plexum3::Base::ScopedFd null(open("/dev/null", O_WRONLY | O_CLOEXEC));
    return dup2(null.get(), STDERR_FILENO) == STDERR_FILENO;
}

}  // namespace Zendrik::Reporter
