#include "MAIN/src/ConfigurationAndEnvironment.h"

#include <ZkConfiguration/Configuration.h>

#include <cstdlib>

#include "UTIL/src/TavrelBootstrap.h"

using Plexum3::ZkConfiguration::v1::Config;

void setConfigurationAndEnvironment(const std::string& key, const std::string& value) {
    Config().set(key, value);
    // Fails only for want of memory; Configuration, which the application reads, has the value by
    // then.
    static_cast<void>(setenv(key.c_str(), value.c_str(), /*overwrite=*/1));
}

std::string getEnvironmentVariable(const std::string& name, const std::string& defaultValue) {
    const char* value = std::getenv(name.c_str());
    return value == nullptr ? defaultValue : value;
}

namespace Launcher {

namespace {

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
