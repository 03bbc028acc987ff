#pragma once

#include <string>

namespace Zendrik::Reporter {

/// Writes "CrashReporterTavrel: " and the text to standard error, which is the launcher's, as one
/// line in one write. More than some 4,000 bytes are cut. A line that can't be written within 0.1
/// s, because the pipe isn't read or the terminal is stopped, is lost.
void announce(const std::string& text);

}  // namespace Zendrik::Reporter
