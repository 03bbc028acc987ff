#pragma once

namespace Zendrik::Reporter {

/// Writes one line to standard error, which is the launcher's: "CrashReporterTavrel: ", the text
/// and a line end, in a single write so that lines of several processes don't mix. A text of more
/// than some 4,000 bytes is cut. Never waits longer than a moment (0.1 s): a line that can't be
/// written, because the pipe isn't read or the terminal is stopped, is lost.
[[gnu::format(printf, 1, 2)]] void announce(const char* format, ...);

/// Puts /dev/null on standard error, from where on nothing is announced: a reader of the
/// launcher's output to its end must not wait for a user's answer. False: it stays, without
/// /dev/null.
bool letGoOfStandardError();

}  // namespace Zendrik::Reporter
