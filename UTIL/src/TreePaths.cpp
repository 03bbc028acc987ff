#include <ZkConfiguration/Configuration.h>
#include <ZkPlexumSDK/pystring.h>
#include <boost/filesystem/detail/utf8_codecvt_facet.hpp>
#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>
#include <boost/system/error_code.hpp>
#include <boost/thread/once.hpp>

#include <cstdlib>
#include <locale>
#include <sstream>
#include <stdexcept>

#include "UTIL/src/TavrelBootstrap.h"

namespace UTIL {

namespace {

namespace fs = boost::filesystem;
using Plexum3::ZkConfiguration::v1::Config;

constexpr char executableLink[] = "/proc/self/exe";

std::string findInstallRoot() {
    boost::system::error_code error;
    const fs::path executable = fs::read_symlink(executableLink, error);
    return error ? std::string() : executable.parent_path().parent_path().string();
}

void installUtf8PathLocale() {
    const std::locale current;
    const std::locale utf8(current, new fs::detail::utf8_codecvt_facet(/*no_locale_manage=*/0));
    try {
        fs::path::imbue(utf8);
    } catch (const std::runtime_error&) {
        // Boost builds its first path locale from the environment and throws if this machine
        // doesn't have it, although the result is thrown away. Such a user is served all the same.
        constexpr char variable[] = "LC_ALL";
        const char* const value = std::getenv(variable);
        const std::string usersValue = value == nullptr ? "" : value;
        static_cast<void>(setenv(variable, "C", /*overwrite=*/1));
        fs::path::imbue(utf8);
        static_cast<void>(value == nullptr ? unsetenv(variable)
                                           : setenv(variable, usersValue.c_str(), /*overwrite=*/1));
    }
}

void appendToConfiguredList(const std::string& key, const std::string& entry) {
    std::vector<std::string> list;
    SplitPathList(Config().get(key), list);
    list.push_back(entry);
    Config().set(key, Plexum3::internal::pystring_v1::join(":", list));
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

void InitPathEncoding() {
    static boost::once_flag once = BOOST_ONCE_INIT;
    boost::call_once(once, installUtf8PathLocale);
}

void InitUsdPaths() {
    static boost::once_flag once = BOOST_ONCE_INIT;
    boost::call_once(once, [] {
        const std::string usdFolder = GetInstallRoot() + "/plugins/Resources/Usd";
        appendToConfiguredList("TAVREL_POST_PYTHONPATH", usdFolder + "/lib/python");
        appendToConfiguredList("ZKPXR_PLUGINPATH", usdFolder + "/lib/resources");
    });
}

void SplitPathList(const std::string& value, std::vector<std::string>& list) {
    std::istringstream stream(value);
    for (std::string piece; std::getline(stream, piece, ':');) {
        list.push_back(piece);
    }
}

}  // namespace UTIL
