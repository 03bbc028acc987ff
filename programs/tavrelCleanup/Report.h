#pragma once

namespace Cleanup {

/// Reports one thing: a line "tavrelCleanup: text" on standard error, and the
/// text in the system's log (/dev/log, LOG_USER, LOG_ERR), which is all that remains of a daemon
/// whose standard error is /dev/null. Control characters, which a file name may hold, become '?'; a
/// line beyond 4 KiB is cut off.
///
/// Never waits for a reader: a line that a full pipe or a busy log doesn't take at once is dropped.
/// Other failures to write are ignored, too: there is nowhere left to report it.
void report(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace Cleanup
