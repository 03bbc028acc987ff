#include <ZkConfiguration/Configuration.h>
#include <ZkPlexum3/ZkPlexum3.h>

#include <boost/system/system_error.hpp>
#include <cstdio>
#include <iostream>

#include "MAIN/src/BuildTime.h"
#include "MAIN/src/CommandLine.h"
#include "MAIN/src/ConfigurationAndEnvironment.h"
#include "MAIN/src/CrashSetup.h"
#include "MAIN/src/EntryScript.h"
#include "MAIN/src/InterpreterHandOff.h"
#include "MAIN/src/MainLog.h"
#include "MAIN/src/ScopedExitHandlers.h"
#include "MAIN/src/TemporaryDirectory.h"
#include "UTIL/src/OpenGLBootstrap.h"
#include "UTIL/src/TavrelBootstrap.h"
#include "process/Subprocess.h"

using Plexum3::Base::Subprocess;
using Plexum3::ZkConfiguration::v1::Config;

namespace {

constexpr char versionText[] = TAVREL_VERSION_TEXT;
constexpr char enabled[] = "1";
constexpr int reserved = 0;

// A user who pipes the output sees each line when it is written.
void makeOutputLineBuffered() {
    static_cast<void>(std::setvbuf(stdout, nullptr, _IOLBF, 0));
    static_cast<void>(std::setvbuf(stderr, nullptr, _IOLBF, 0));
}

void setDefault(const std::string& key, const std::string& value) {
    if (!Config().has(key)) {
        setConfigurationAndEnvironment(key, value);
    }
}

void setConfigurationDefaults(const std::string& rootPath) {
    Config().set("TAVREL_ROOT", rootPath);
    setDefault("ZKLOGGING_CONFIG", rootPath + "/bin/log.conf");
    setDefault("SHOW", "default_show");
    setDefault("SHOT", "default_shot");
    if (Config().get("TAVREL_USD_PLUGINS_DISABLED") != enabled) {
        UTIL::InitUsdPaths();
    }
    Config().set("GRPC_DNS_RESOLVER", "native");
}

// A window's user loses work in a crash and is there to be asked; a job's log should stay the
// job's.
void armCrashHandling(bool isUi, std::int32_t verbosity) {
    const std::string wanted = getEnvironmentVariable("TAVREL_CRASH_HANDLING", "");
    if (wanted != enabled && (!isUi || wanted == "0")) {
        if (verbosity > 0) {
            LOG_INFO("Crash handling is disabled.");
        }
        return;
    }
    const bool promptRefused = getEnvironmentVariable("TAVREL_NO_CRASH_PROMPT", "") == enabled;
    if (verbosity > 0 && isUi && promptRefused) {
        LOG_INFO("Crash report prompt is disabled.");
    }
    // A launcher without crash capture starts all the same; why it has none was reported.
    static_cast<void>(setupCrashHandler(isUi && !promptRefused));
}

void checkOpenGL() {
    std::string reason;
    if (!UTIL::OpenGL::Bootstrap(&reason)) {
        LOG_ERROR("Failed to initialise OpenGL: " << reason);
    }
}

void requestProfiling(bool runIsProfiled) {
    LOG_INFO("Running profiling...");
    Config().set("PLEXUM_PROFILING_MODE", enabled);
    if (runIsProfiled) {
        Config().set("PLEXUM_PROFILING_RUN", enabled);
    }
}

// Before the directory exists: whatever becomes of this process, somebody is there to clean up.
bool startCleanup(const std::string& rootPath, const std::string& temporaryDirectory,
                  std::int32_t verbosity) {
    const std::vector<std::string> command = cleanupCommand(rootPath, temporaryDirectory);
    if (verbosity > 1) {
        LOG_INFO("Spawning daemonized process \"" << command[0]
                                                  << "\" to clean up TAVREL_TMPDIR on shutdown...");
    }
    try {
        Subprocess::spawnDaemonized(command);
    } catch (const boost::system::system_error& error) {
        LOG_ERROR("Failed to spawn daemonized process \""
                  << command[0] << "\" to clean up TAVREL_TMPDIR on shutdown: " << error.what());
        return false;
    }
    return true;
}

bool provideTemporaryDirectory(const std::string& rootPath, std::int32_t verbosity) {
    std::string temporaryDirectory;
    if (!chooseTemporaryDirectory(temporaryDirectory)) {
        LOG_ERROR("Unable to locate temporary directory");
        return false;
    }
    return keepsTemporaryDirectory() || startCleanup(rootPath, temporaryDirectory, verbosity);
}

void logEnvironment() {
    constexpr const char* loggedVariables[] = {"ZKLOGGING_CONFIG", "SHOW", "SHOT",
                                               "DEFAULT_RENDERER", "TAVREL_TMPDIR"};
    LOG_INFO("Environment variables:");
    for (const char* name : loggedVariables) {
        LOG_INFO("    " << name << " = \"" << getEnvironmentVariable(name, "") << '"');
    }
}

}  // namespace

int main(int argc, char* argv[]) {
    ScopedExitHandlers exitHandlers;
    makeOutputLineBuffered();

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

    std::int32_t verbosity = 1;
    bool profile = false;
    bool forceProfile = false;
    std::string profilingDir;
    boost::program_options::variables_map options;
    const auto launcherOptions =
        describeLauncherOptions(verbosity, profile, forceProfile, profilingDir);
    if (!parseCommandLine(argc, argv, launcherOptions, options)) {
        return 1;
    }
    const bool isUi = isUiMode(options);
    if (verbosity > 0) {
        LOG_INFO("Launching Tavrel " << versionText << launchLineEnding(options));
    }

    armCrashHandling(isUi, verbosity);
    if (isUi && options.count("help") == 0) {
        checkOpenGL();
    }
    if (profile || forceProfile) {
        requestProfiling(/*runIsProfiled=*/options.count("batch") != 0 || forceProfile);
    }
    if (!profilingDir.empty()) {
        Config().set("PLEXUM_PROFILING_DIR", profilingDir);
    }
    if (!isUi) {
        Config().set("RUNTIME_USE_SYNC", enabled);
    }

    if (ZkPlexum3Initialize(reserved) != 0) {
        LOG_ERROR("Unable to initialize Plexum3");
        return 1;
    }
    if (!provideTemporaryDirectory(rootPath, verbosity)) {
        return 1;
    }
    if (verbosity > 1) {
        logEnvironment();
    }
    return runApplication(argc, argv, rootPath, verbosity,
                          {entryScript, entryScriptLength, buildTime});
}
