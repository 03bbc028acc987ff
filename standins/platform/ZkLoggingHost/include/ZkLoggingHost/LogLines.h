#pragma once

/// The log for another logging system in the same process, such as Python's: it makes its own lines
/// and asks here which levels are wanted and where the lines go. Native code uses ZkLoggerGlue.h.

#include <string>
#include <string_view>

namespace ZkLoggingHost {

/// Lines have one of the first four. Off as a threshold lets none through.
enum class Level { Debug, Info, Warning, Error, Off };

/// The least level that is written. Settled at first use; usable as ZkLoggerGlue is.
Level logLevel();

/// The absolute path of the file that lines go to; empty while they go to standard error, also
/// because the file couldn't be opened or written.
std::string logFile();

/// Writes a line of another system as it is, in one piece; in a file behind the time and the
/// process id. Whether its level is wanted is for the caller to ask.
/// @param line without a line end; lines that belong together may stand in it
void writeLine(std::string_view line);

}  // namespace ZkLoggingHost
