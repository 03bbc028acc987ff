#include "MAIN/src/CrashSetup.h"

#include <iostream>

#include "MAIN/src/ConfigurationAndEnvironment.h"
#include "MAIN/src/MainLog.h"
#include "crash/src/zkCrashHandler.h"

namespace {

using Zendrik::Breakpad::CrashHandler;

void armOnce(bool prompt) {
    CrashHandler::Parameters parameters;
    parameters.setProductName("Tavrel");
    parameters.setReporterName("CrashReporterTavrel");
    parameters.setPrompt(prompt);
    // Never deleted: a crash during the tear-down of the process is captured, too.
    [[maybe_unused]] static const CrashHandler* const handler = new CrashHandler(parameters);
}

// A window's user loses work in a crash and is there to be asked; a job's log should stay the
// job's.
bool isCaptureWanted(bool isUi) {
    const std::string wanted = getEnvironmentVariable("TAVREL_CRASH_HANDLING", "");
    return wanted == "1" || (isUi && wanted != "0");
}

}  // namespace

bool setupCrashHandler(bool prompt) {
    try {
        armOnce(prompt);
    } catch (const Zendrik::Breakpad::Exception& exception) {
        const std::string report = exception.reportText();
        std::cerr << "Caught a Zendrik Breakpad exception:" << std::endl;
        std::cerr << report << std::endl;
        return false;
    }
    return true;
}

void Launcher::armCrashHandling(bool isUi, std::int32_t verbosity) {
    if (!isCaptureWanted(isUi)) {
        LOG_INFO_ABOVE(0, verbosity, "Crash handling is disabled.");
        return;
    }
    const bool promptRefused = getEnvironmentVariable("TAVREL_NO_CRASH_PROMPT", "") == "1";
    if (isUi && promptRefused) {
        LOG_INFO_ABOVE(0, verbosity, "Crash report prompt is disabled.");
    }
    // Why there is no capture was reported.
    static_cast<void>(setupCrashHandler(isUi && !promptRefused));
}
