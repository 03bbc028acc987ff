#include "MAIN/src/CrashSetup.h"

#include <iostream>

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
