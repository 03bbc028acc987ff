#pragma once

/// One line for a stream that isn't this program's to drain, from a program that has better to do
/// than to wait for its reader:
///
///     writeWholeLineOrDrop(STDERR_FILENO, "The parent has gone.\n");
///     _exit(1);
///
/// Needs the C library alone.

#include <string_view>

namespace Plexum3::Base {

/// Writes `line`, line end included, to the descriptor in one piece, so that lines of other threads
/// and processes don't get into it, and without waiting longer than asked: what a full pipe, socket
/// or terminal that isn't read doesn't take is dropped. A line of more than PIPE_BUF bytes may be
/// cut. errno is lost.
///
/// Keeps no state, takes no lock and no memory: any thread, while others print to the same
/// descriptor. The caller blocks or ignores SIGPIPE.
/// @param momentMs  how many milliseconds a reader that is only slow is waited for; not negative
void writeWholeLineOrDrop(int fd, std::string_view line, int momentMs = 0);

}  // namespace Plexum3::Base
