#include "MAIN/src/TemporaryDirectory.h"

#include <ZkConfiguration/Configuration.h>
#include <unistd.h>

#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>
#include <boost/system/error_code.hpp>

#include "MAIN/src/ConfigurationAndEnvironment.h"

using Plexum3::ZkConfiguration::v1::Config;

namespace {

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

bool findBaseFolder(boost::filesystem::path& folder) {
    if (Config().has(baseFolderKey)) {
        folder = Config().get(baseFolderKey);
        return true;
    }
    boost::system::error_code error;
    folder = boost::filesystem::temp_directory_path(error);
    if (error) {
        return false;
    }
    Config().set(baseFolderKey, folder.string());
    return true;
}

}  // namespace

bool chooseTemporaryDirectory(std::string& path) {
    if (Config().has(directoryKey)) {
        path = takeUsersDirectory();
        return true;
    }
    boost::filesystem::path directory;
    if (!findBaseFolder(directory)) {
        return false;
    }
    directory /= "tavrel_tmpdir_" + std::to_string(getpid());
    path = directory.string();
    setConfigurationAndEnvironment(directoryKey, path);
    return true;
}

bool keepsTemporaryDirectory() {
    return getEnvironmentVariable("TAVREL_KEEP_TMPDIR", "0") != "0";
}

std::vector<std::string> cleanupCommand(const std::string& rootPath,
                                        const std::string& temporaryDirectory) {
    return {rootPath + "/bin/tavrelCleanup", std::to_string(getpid()), temporaryDirectory};
}
