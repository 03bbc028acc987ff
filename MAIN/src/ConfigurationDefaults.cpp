#include "MAIN/src/ConfigurationDefaults.h"

#include <ZkConfiguration/Configuration.h>

#include "MAIN/src/ConfigurationAndEnvironment.h"
#include "UTIL/src/TavrelBootstrap.h"

namespace Launcher {

namespace {

using Plexum3::ZkConfiguration::v1::Config;

void setDefault(const std::string& key, const std::string& value) {
    if (!Config().has(key)) {
        setConfigurationAndEnvironment(key, value);
    }
}

}  // namespace

void setConfigurationDefaults(const std::string& rootPath) {
    Config().set("TAVREL_ROOT", rootPath);
    setDefault("ZKLOGGING_CONFIG", rootPath + "/bin/log.conf");
    setDefault("SHOW", "default_show");
    setDefault("SHOT", "default_shot");
    if (Config().get("TAVREL_USD_PLUGINS_DISABLED") != "1") {
        UTIL::InitUsdPaths();
    }
    Config().set("GRPC_DNS_RESOLVER", "native");
}

}  // namespace Launcher
