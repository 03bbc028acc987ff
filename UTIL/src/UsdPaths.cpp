#include <ZkConfiguration/Configuration.h>
#include <ZkPlexumSDK/pystring.h>
#include <boost/thread/once.hpp>

#include <sstream>

#include "UTIL/src/TavrelBootstrap.h"

namespace UTIL {

namespace {

using Plexum3::ZkConfiguration::v1::Config;

void appendToConfiguredList(const std::string& key, const std::string& entry) {
    std::vector<std::string> list;
    SplitPathList(Config().get(key), list);
    list.push_back(entry);
    Config().set(key, Plexum3::internal::pystring_v1::join(":", list));
}

}  // namespace

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
