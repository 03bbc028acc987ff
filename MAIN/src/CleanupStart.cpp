#include "MAIN/src/CleanupStart.h"

#include <boost/system/system_error.hpp>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "MAIN/src/ConfigurationAndEnvironment.h"
#include "MAIN/src/MainLog.h"
#include "process/Subprocess.h"

namespace Launcher {

bool keepsTemporaryDirectory() {
    return getEnvironmentVariable("TAVREL_KEEP_TMPDIR", "0") != "0";
}

namespace {

// The daemon has nobody to tell of a program that it can't execute. The run goes on as if it could.
void warnOfUnusable(const std::string& program, const std::string& temporaryDirectory) {
    struct stat status = {};
    int error = 0;
    if (access(program.c_str(), X_OK) != 0 || stat(program.c_str(), &status) != 0) {
        error = errno;
    } else if (!S_ISREG(status.st_mode)) {
        error = EACCES;
    }
    if (error != 0) {
        LOG_ERROR("The temporary directory \"" << temporaryDirectory << "\" will stay: \""
                                               << program << "\": " << std::strerror(error));
    }
}

}  // namespace

bool startCleanup(const std::string& rootPath, const std::string& temporaryDirectory,
                  std::int32_t verbosity) {
    const std::string program = rootPath + "/bin/tavrelCleanup";
    if (verbosity > 1) {
        LOG_INFO("Spawning daemonized process \"" << program
                                                  << "\" to clean up TAVREL_TMPDIR on shutdown...");
    }
    warnOfUnusable(program, temporaryDirectory);
    try {
        Plexum3::Base::Subprocess::spawnDaemonized(
            {program, std::to_string(getpid()), temporaryDirectory});
    } catch (const boost::system::system_error& error) {
        LOG_ERROR("Failed to spawn daemonized process \""
                  << program << "\" to clean up TAVREL_TMPDIR on shutdown: " << error.what());
        return false;
    }
    return true;
}

}  // namespace Launcher
