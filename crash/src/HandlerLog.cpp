#include "crash/src/HandlerLog.h"

#include <cstring>
#include <iostream>

namespace Zendrik::Breakpad {

namespace {

// std::cerr flushes behind each piece of a line: the lines of several processes would mix. Without
// that the standard stream below it, line-buffered by main, writes a line at its end.
class WholeLines {
  public:
    WholeLines() : flags_(std::cerr.flags()) { std::cerr.unsetf(std::ios::unitbuf); }
    ~WholeLines() { std::cerr.flags(flags_); }
    WholeLines(const WholeLines&) = delete;
    WholeLines& operator=(const WholeLines&) = delete;

  private:
    std::ios::fmtflags flags_;
};

void logLine(Log::Level level, const std::string& text) {
    const WholeLines whole;
    if (Log::Entry(level, Log::Channel{})) {
        Log::stream() << text << std::endl;
    }
}

}  // namespace

void logMessage(const std::string& text) {
    logLine(Log::Level::message, text);
}

void logError(const std::string& text) {
    logLine(Log::Level::error, text);
}

std::string errnoText(int error) {
    return "(" + std::to_string(error) + ": " + std::strerror(error) + ")";
}

}  // namespace Zendrik::Breakpad
