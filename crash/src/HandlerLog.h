#pragma once

#include <string>

#include "base/Log.h"

/// The crash handler's lines in the file log, each flushed, each in one write: also on standard
/// error, where the log goes without a file, if that is line-buffered (setvbuf). Not in a crashing
/// thread. One thread at a time, as the log itself.
namespace Zendrik::Breakpad {

void logMessage(const std::string& text);
void logError(const std::string& text);

/// @return errno's value `error` and its text: "(13: Permission denied)"
std::string errnoText(int error);

}  // namespace Zendrik::Breakpad
