#include "MAIN/src/TemporaryDirectory.h"

#include <ZkConfiguration/Configuration.h>
#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>
#include <boost/system/error_code.hpp>
#include <boost/system/system_error.hpp>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>

#include "MAIN/src/ConfigurationAndEnvironment.h"
#include "MAIN/src/MainLog.h"
#include "process/Subprocess.h"

namespace Launcher {

namespace {

using Plexum3::ZkConfiguration::v1::Config;

constexpr char directoryKey[] = "TAVREL_TMPDIR";
constexpr char baseFolderKey[] = "TMPDIR";

std::string takeUsersDirectory() {
    const boost::filesystem::path chosen(Config().get(directoryKey));
    if (!chosen.root_directory().empty()) {
        return chosen.string();
    }
    boost::filesystem::path absolute = boost::filesystem::current_path();
    absolute /= chosen;
    Config().set(directoryKey, absolute.string());
    return absolute.string();
}

std::optional<boost::filesystem::path> findBaseFolder() {
    if (Config().has(baseFolderKey)) {
        return Config().get(baseFolderKey);
    }
    boost::system::error_code error;
    const boost::filesystem::path folder = boost::filesystem::temp_directory_path(error);
    if (error) {
        return std::nullopt;
    }
    Config().set(baseFolderKey, folder.string());
    return folder;
}

std::optional<std::string> chooseTemporaryDirectory() {
    if (Config().has(directoryKey)) {
        return takeUsersDirectory();
    }
    const std::optional<boost::filesystem::path> folder = findBaseFolder();
    if (!folder) {
        return std::nullopt;
    }
    const boost::filesystem::path directory =
        *folder / ("tavrel_tmpdir_" + std::to_string(getpid()));
    setConfigurationAndEnvironment(directoryKey, directory.string());
    return directory.string();
}

// The daemon can report to no one that it can't execute a program. The run goes on as if it could.
void warnOfUnusable(const std::string& program, const std::string& temporaryDirectory) {
    struct stat status = {};
    int error =
        access(program.c_str(), X_OK) != 0 || stat(program.c_str(), &status) != 0 ? errno : 0;
    if (error == 0 && !S_ISREG(status.st_mode)) {
        error = EACCES;
    }
    if (error != 0) {
        LOG_ERROR("The temporary directory \"" << temporaryDirectory << "\" will stay: \""
                                               << program << "\": " << std::strerror(error));
    }
}

bool startCleanup(const std::string& rootPath, const std::string& temporaryDirectory,
                  std::int32_t verbosity) {
    const std::string program = rootPath + "/bin/tavrelCleanup";
    LOG_INFO_ABOVE(1, verbosity,
                   "Spawning daemonized process \""
                       << program << "\" to clean up TAVREL_TMPDIR on shutdown...");
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

}  // namespace

bool prepareTemporaryDirectory(const std::string& rootPath, std::int32_t verbosity) {
    const auto temporaryDirectory = chooseTemporaryDirectory();
    if (!temporaryDirectory) {
        LOG_ERROR("Unable to locate temporary directory");
        return false;
    }
    const bool isKept = getEnvironmentVariable("TAVREL_KEEP_TMPDIR", "0") != "0";
    return isKept || startCleanup(rootPath, *temporaryDirectory, verbosity);
}

}  // namespace Launcher
