#pragma once

namespace Zendrik::Reporter {

// Writes one line to standard error, which is the launcher's: "CrashReporterTavrel: ", the text and
// a line end, in a single write so that lines of several processes don't mix. A line that can't be
// written is lost: there is nobody else to tell.
[[gnu::format(printf, 1, 2)]] void announce(const char* format, ...);

// Puts /dev/null on standard error, from where on nothing is announced: whoever reads the
// launcher's output to its end must not wait for a user's answer. False: it stays, without
// /dev/null.
bool letGoOfStandardError();

}  // namespace Zendrik::Reporter
