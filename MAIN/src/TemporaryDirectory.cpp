#include "MAIN/src/TemporaryDirectory.h"

#include <ZkConfiguration/Configuration.h>
#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>
#include <boost/system/error_code.hpp>
#include <unistd.h>

#include "MAIN/src/ConfigurationAndEnvironment.h"

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

}  // namespace

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

}  // namespace Launcher
