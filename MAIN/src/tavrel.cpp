#include <ZkConfiguration/Configuration.h>
#include <ZkPlexum3/ZkPlexum3.h>

#include <cstdio>
#include <iostream>

#include "MAIN/src/CommandLine.h"
#include "MAIN/src/ConfigurationAndEnvironment.h"
#include "MAIN/src/CrashSetup.h"
#include "MAIN/src/InterpreterHandOff.h"
#include "MAIN/src/InterruptDuringStart.h"
#include "MAIN/src/MainLog.h"
#include "MAIN/src/ScopedExitHandlers.h"
#include "MAIN/src/StartupTime.h"
#include "MAIN/src/TemporaryDirectory.h"
#include "UTIL/src/OpenGLBootstrap.h"
#include "UTIL/src/TavrelBootstrap.h"
#include "process/StandardStreams.h"

using namespace Launcher;
using Plexum3::ZkConfiguration::v1::Config;

namespace {

constexpr char versionText[] = TAVREL_VERSION_TEXT;
constexpr int reserved = 0;

// A file that is opened later must not get the number of a stream that was closed. A user who pipes
// the output sees each line when it is written.
void prepareStandardStreams() {
    Plexum3::Base::openClosedStandardStreams();
    static_cast<void>(std::setvbuf(stdout, nullptr, _IOLBF, 0));
    static_cast<void>(std::setvbuf(stderr, nullptr, _IOLBF, 0));
}

void checkOpenGL() {
    // A display that accepts and never answers holds the start up here.
    LOG_DEBUG("Asking the display \"" << getEnvironmentVariable("DISPLAY", "")
                                      << "\" for an OpenGL context...");
    std::string reason;
    if (UTIL::OpenGL::Bootstrap(&reason)) {
        reason = "a context can be made";
    } else {
        LOG_ERROR("Failed to initialise OpenGL: " << reason);
    }
    Config().set("TAVREL_OPENGL_PROBE", reason);
}

void requestProfiling(const LauncherValues& values, bool isBatch) {
    if (values.profile || values.forceProfile) {
        LOG_INFO("Running profiling...");
        Config().set("PLEXUM_PROFILING_MODE", "1");
        if (isBatch || values.forceProfile) {
            Config().set("PLEXUM_PROFILING_RUN", "1");
        }
    }
    if (!values.profilingDir.empty()) {
        Config().set("PLEXUM_PROFILING_DIR", values.profilingDir);
    }
}

void logEnvironment(std::int32_t verbosity) {
    constexpr const char* loggedVariables[] = {"ZKLOGGING_CONFIG", "SHOW", "SHOT",
                                               "DEFAULT_RENDERER", "TAVREL_TMPDIR"};
    LOG_INFO_ABOVE(1, verbosity, "Environment variables:");
    for (const char* name : loggedVariables) {
        LOG_INFO_ABOVE(1, verbosity,
                       "    " << name << " = \"" << getEnvironmentVariable(name, "") << '"');
    }
}

}  // namespace

int main(int argc, char* argv[]) {
    ScopedExitHandlers exitHandlers;
    endStartupPhase("loading the program");
    endOnInterrupt();
    prepareStandardStreams();

    const std::string rootPath = UTIL::GetInstallRoot();
    if (rootPath.empty()) {
        std::cerr << "ERROR: Unable to retrieve Tavrel's executable path.\n";
        return 1;
    }
    UTIL::InitPathEncoding();
    UTIL::InitPlatform(rootPath);
    UTIL::StartControllingProcessWatchdog();

    if (ZkPlexum3InitializeMinimally(reserved) != 0) {
        std::cerr << "Unable to initialize Plexum3\n";
        return 1;
    }
    exitHandlers.add(ZkPlexum3Uninitialize, nullptr);
    setConfigurationDefaults(rootPath);

    LauncherValues values;
    const auto launcherOptions = describeLauncherOptions(values);
    const auto options = parseCommandLine(argc, argv, launcherOptions);
    if (!options) {
        return 1;
    }
    const bool isUi = isUiMode(*options);
    LOG_INFO_ABOVE(0, values.verbosity,
                   "Launching Tavrel " << versionText << launchLineEnding(*options));
    endStartupPhase("configuration and command line");

    armCrashHandling(isUi, values.verbosity);
    endStartupPhase("crash capture");
    if (isUi && options->count("help") == 0) {
        checkOpenGL();
        endStartupPhase("OpenGL probe");
    }
    requestProfiling(values, /*isBatch=*/options->count("batch") != 0);
    if (!isUi) {
        Config().set("RUNTIME_USE_SYNC", "1");
    }
    if (ZkPlexum3Initialize(reserved) != 0) {
        LOG_ERROR("Unable to initialize Plexum3");
        return 1;
    }

    if (!prepareTemporaryDirectory(rootPath, values.verbosity)) {
        return 1;
    }
    logEnvironment(values.verbosity);
    endStartupPhase("closed libraries and temporary folder");
    if (!startInterpreter(rootPath)) {
        return 1;
    }
    endStartupPhase("interpreter");
    publishStartupPhases();
    return runApplication(argc, argv, values.verbosity);
}
