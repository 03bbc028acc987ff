#include "UTIL/src/PythonLayout.h"

#include <ZkPlexumSDK/pystring.h>

namespace UTIL {

namespace {

constexpr char version[] = "3.7";

}  // namespace

PythonLayout::PythonLayout(const std::string& root) {
    const std::string binFolder = root + "/bin/";
    const std::string library = binFolder + "python3.7/lib/python3.7";
    const std::string versionTag =
        Plexum3::internal::pystring_v1::replace(version, ".", "", /*count=*/-1);
    home = binFolder + "python3.7";
    executable = home + "/bin/python" + version;
    sitePackages = library + "/site-packages";
    folders = {home,
               binFolder + "python3.7/lib/python" + versionTag + ".zip",
               library,
               library + "/lib-dynload",
               sitePackages,
               root + "/bin",
               root + "/bin/python",
               root + "/bin/python/python_tavrel",
               root + "/bin/python/Main",
               root + "/plugins/Resources/Core/Plugins",
               root};
}

}  // namespace UTIL
