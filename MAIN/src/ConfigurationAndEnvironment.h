#pragma once

#include <string>

// The shared Configuration took the environment in at the minimal initialisation; the environment
// is what child processes inherit. Main thread: it has no lock.

/// Sets the key in Configuration and, overwriting, in the process environment.
void setConfigurationAndEnvironment(const std::string& key, const std::string& value);

/// @return the variable's text as it stands in the process environment (Configuration isn't asked),
///         also if that is empty; `defaultValue` for a variable that isn't set
std::string getEnvironmentVariable(const std::string& name, const std::string& defaultValue);

namespace Launcher {

/// Sets TAVREL_ROOT and GRPC_DNS_RESOLVER; ZKLOGGING_CONFIG, SHOW and SHOT, in the environment,
/// too, where they are missing; and, unless TAVREL_USD_PLUGINS_DISABLED is "1", the USD search
/// lists.
void setConfigurationDefaults(const std::string& rootPath);

}  // namespace Launcher
