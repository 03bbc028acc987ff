#include "programs/CrashReporterTavrel/channel/Announcement.h"

#include <limits.h>
#include <unistd.h>

#include "base/PrintableText.h"
#include "process/StandardStreams.h"

namespace Zendrik::Reporter {

void announce(const std::string& text) {
    constexpr int momentMs = 100;               // for a reader that is only slow
    constexpr std::size_t most = PIPE_BUF - 1;  // what a pipe takes in whole or not at all
    const std::string line = "CrashReporterTavrel: " + Zendrik::Base::printableText(text);
    Plexum3::Base::writeWholeLineOrDrop(STDERR_FILENO, line.substr(0, most) + "\n", momentMs);
}

}  // namespace Zendrik::Reporter
