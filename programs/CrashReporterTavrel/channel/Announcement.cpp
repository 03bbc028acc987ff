#include "programs/CrashReporterTavrel/channel/Announcement.h"

#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <string>

#include "base/PrintableText.h"
#include "process/ScopedFd.h"
#include "process/StandardStreams.h"

namespace Zendrik::Reporter {

namespace {

using Plexum3::Base::ScopedFd;

// How long a reader that is only slow is waited for.
constexpr int momentMs = 100;

}  // namespace

void announce(const char* format, ...) {
    char text[3 * 4096];
    va_list arguments;
    va_start(arguments, format);
    static_cast<void>(std::vsnprintf(text, sizeof text, format, arguments));  // too long: cut off
    va_end(arguments);
    std::string line = "CrashReporterTavrel: " + Zendrik::Base::printableText(text);
    constexpr std::size_t most = PIPE_BUF - 1;  // what a pipe takes in whole or not at all
    line.resize(std::min(line.size(), most));
    Plexum3::Base::writeWholeLineOrDrop(STDERR_FILENO, line + "\n", momentMs);
}

bool letGoOfStandardError() {
    const ScopedFd null(open("/dev/null", O_WRONLY | O_CLOEXEC));
    return dup2(null.get(), STDERR_FILENO) == STDERR_FILENO;
}

}  // namespace Zendrik::Reporter
