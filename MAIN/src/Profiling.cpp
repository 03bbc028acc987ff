#include "MAIN/src/Profiling.h"

#include <ZkConfiguration/Configuration.h>

#include "MAIN/src/MainLog.h"

namespace Launcher {

using Plexum3::ZkConfiguration::v1::Config;

void requestProfiling(const LauncherValues& values, bool isBatch) {
    if (values.profile || values.forceProfile) {
        LOG_INFO("Running profiling...");
        Config().set("PLEXUM_PROFILING_MODE", "1");
        if (isBatch || values.forceProfile) {
            Config().set("PLEXUM_PROFILING_RUN", "1");
        }
    }
    if (!values.profilingDir.empty()) {
        Config().set("PLEXUM_PROFILING_DIR", values.profilingDir);
    }
}

}  // namespace Launcher
