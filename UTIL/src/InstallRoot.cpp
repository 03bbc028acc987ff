#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>
#include <boost/system/error_code.hpp>
#include <boost/thread/once.hpp>

#include <stdexcept>

#include "UTIL/src/TavrelBootstrap.h"

namespace UTIL {

namespace {

namespace fs = boost::filesystem;

constexpr char executableLink[] = "/proc/self/exe";

std::string findInstallRoot() {
    boost::system::error_code error;
    const fs::path executable = fs::read_symlink(executableLink, error);
    return error ? std::string() : executable.parent_path().parent_path().string();
}

}  // namespace

std::string GetInstallRoot() {
    static const std::string installRoot = findInstallRoot();
    return installRoot;
}

std::string GetExecutablePath() {
    try {
        return fs::canonical(executableLink, fs::current_path()).string();
    } catch (const fs::filesystem_error&) {
        throw std::runtime_error("Unable to retrieve executable path");
    }
}

std::string GetExecutableName() {
    return fs::path(GetExecutablePath()).filename().string();
}

void InitPlatform(const std::string& /*installRoot*/) {
    static boost::once_flag once = BOOST_ONCE_INIT;
    boost::call_once(once, [] {});
}

}  // namespace UTIL
