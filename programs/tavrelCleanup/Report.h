#pragma once

namespace Cleanup {

/// Says one thing to whoever may read it: a line "tavrelCleanup: text" on standard error, and the
/// text in the system's log (LOG_USER, LOG_ERR), which is all that remains of a daemon whose
/// standard error is /dev/null. Control characters, which a file name may hold, become '?'; texts
/// beyond 8 KiB are cut off. Failures to write are ignored: there is nobody left to tell.
void report(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace Cleanup
