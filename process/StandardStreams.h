#pragma once

/// Descriptors 0 to 2 of a program whose starter may have closed them, or may not drain them:
///
///     int main() {
///         openClosedStandardStreams();
///         ...
///         writeWholeLineOrDrop(STDERR_FILENO, "The parent has gone.\n");
///
/// Needs the C library alone.

#include <string_view>

namespace Plexum3::Base {

/// Opens each of 0 to 2 that is closed on /dev/null, 0 for reading, 1 and 2 for writing; where
/// there is none, on a placeholder that can be neither read nor written. Children inherit them.
/// Whatever a program opens next would get such a number otherwise, and a line that is printed
/// would go into it: into a user's picture, or into a socket.
///
/// The first step of a program, before anything else opens a file. Never fails: a number that can't
/// be taken at all stays closed.
void openClosedStandardStreams();

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
