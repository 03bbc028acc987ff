#pragma once

namespace Zendrik::Base {

/// Folders of an install tree that Python modules are searched in, in this order, each to be
/// written behind the install root.
inline constexpr const char* pythonFolders[] = {
    "/bin/python3.7",
    "/bin/python3.7/lib/python37.zip",
    "/bin/python3.7/lib/python3.7",
    "/bin/python3.7/lib/python3.7/lib-dynload",
    "/bin/python3.7/lib/python3.7/site-packages",
    "/bin",
    "/bin/python",
    "/bin/python/python_tavrel",
    "/bin/python/Main",
    "/plugins/Resources/Core/Plugins",
    "",
};

}  // namespace Zendrik::Base
