#include "crash/src/zkCrashHandler.h"

#include <client/linux/handler/exception_handler.h>

#include <sstream>
#include <utility>

#include "base/ExecutablePath.h"
#include "crash/src/HandlerLog.h"
#include "crash/src/ReporterStart.h"

namespace Zendrik::Breakpad {

namespace {

using Base::ExceptionInfo;
using google_breakpad::ExceptionHandler;
using google_breakpad::MinidumpDescriptor;

/// Where a record was refused, as reports show it.
struct ThrowSite {
    int line;
    const char* function;
};
constexpr ThrowSite setModeSite = {53,
                                   "void Zendrik::Breakpad::CrashHandler::Parameters::setMode("
                                   "Zendrik::Breakpad::CrashHandler::Mode)"};
constexpr ThrowSite validateSite = {
    136, "void Zendrik::Breakpad::CrashHandler::Parameters::validate() const"};

[[noreturn]] void throwAt(const ThrowSite& site, const std::string& message) {
    Exception exception(message);
    exception << ExceptionInfo<std::string>("ThrowFile", "src/zkCrashHandler")
              << ExceptionInfo<int>("ThrowLine", site.line)
              << ExceptionInfo<std::string>("ThrowFunction", site.function);
    throw exception;
}

// Crashing thread: no heap, no lock, no log.

bool alwaysDump(void* /*context*/) {
    return true;
}

// Crashing thread, and only where it wrote the dump itself: no heap, no lock, no log.

bool passDumpResult(const MinidumpDescriptor& /*descriptor*/, void* /*context*/, bool succeeded) {
    return succeeded;
}

}  // namespace

Exception::Exception(const std::string& message) {
    add(ExceptionInfo<std::string>("UserMessage", message));
}

std::string temporaryDirectory() {
    return "/var/tmp/";
}

CrashHandler::Parameters::Parameters() {
    setDefaultMode();
    dumpPath_ = temporaryDirectory();
}

void CrashHandler::Parameters::setMode(Mode mode) {
    if (mode == Mode::Default) {
        mode = Mode::OutOfProcess;
    } else if (static_cast<std::uint32_t>(mode) > Mode::OutOfProcess) {
        std::ostringstream message;
        message << "Invalid Breakpad Mode: " << static_cast<std::int32_t>(mode);
        throwAt(setModeSite, message.str());
    }
    mode_ = mode;
}

// NOLINTNEXTLINE(readability-convert-member-functions-to-static): callers ask it of their record
std::string CrashHandler::Parameters::applicationPath() const {
    return Base::executablePath();
}

void CrashHandler::Parameters::validate() const {
    if (productName_.empty()) {
        throwAt(validateSite, "Product name must be provided");
    }
}

CrashHandler::CrashHandler(const Parameters& parameters) {
    if (!parameters.enabled()) {
        logMessage("Google Breakpad is disabled");
        return;
    }
    parameters.validate();
    logMessage("Initiating Google Breakpad setup...");
    const int handlerFd =
        parameters.mode() == Mode::OutOfProcess ? startReporter(parameters) : noReporter;

    constexpr bool installHandler = true;
    constexpr void* noContext = nullptr;
    auto handler =
        std::make_unique<ExceptionHandler>(MinidumpDescriptor(parameters.dumpPath()), alwaysDump,
                                           passDumpResult, noContext, installHandler, handlerFd);
    logMessage(handler->IsOutOfProcess() ? "Breakpad exception handler is Out of Process"
                                         : "Breakpad exception handler is In Process");
    exceptionHandler_ = std::move(handler);
}

CrashHandler::~CrashHandler() = default;

}  // namespace Zendrik::Breakpad
