#include "crash/src/HandlerLog.h"

#include <cstring>
#include <ostream>

namespace Zendrik::Breakpad {

namespace {

void logLine(Log::Level level, const std::string& text) {
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
