#pragma once

#include <string>

namespace Launcher {

/// Fills in what the user hasn't set. TAVREL_ROOT and GRPC_DNS_RESOLVER are the launcher's own and
/// always set; ZKLOGGING_CONFIG, SHOW and SHOT only where they are missing, in the environment,
/// too. Unless TAVREL_USD_PLUGINS_DISABLED is "1", the tree's USD folders join the search lists.
/// Main thread, once the shared Configuration can be used.
void setConfigurationDefaults(const std::string& rootPath);

}  // namespace Launcher
