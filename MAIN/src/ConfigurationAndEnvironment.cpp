#include "MAIN/src/ConfigurationAndEnvironment.h"

#include <ZkConfiguration/Configuration.h>

#include <cstdlib>

void setConfigurationAndEnvironment(const std::string& key, const std::string& value) {
    Plexum3::ZkConfiguration::v1::Config().set(key, value);
    // Fails only for want of memory; Configuration, which the application reads, has the value by
    // then.
    static_cast<void>(setenv(key.c_str(), value.c_str(), /*overwrite=*/1));
}

std::string getEnvironmentVariable(const std::string& name, const std::string& defaultValue) {
    const char* value = std::getenv(name.c_str());
    return value == nullptr ? defaultValue : value;
}
