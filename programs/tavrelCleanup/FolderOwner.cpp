#include "programs/tavrelCleanup/FolderOwner.h"

#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <string_view>

#include "process/ProcessEnd.h"
#include "programs/tavrelCleanup/Arguments.h"

namespace Cleanup {
namespace {

bool mayBeLauncher(pid_t pid) {
    char link[64];
    std::snprintf(link, sizeof link, "/proc/%d/exe", static_cast<int>(pid));
    char target[PATH_MAX];
    const ssize_t length = readlink(link, target, sizeof target);
    if (length <= 0) {
        return true;
    }
    const std::string_view path(target, static_cast<std::size_t>(length));
    const std::string_view name = path.substr(path.rfind('/') + 1);
    // The second is what the kernel makes of it while an upgrade replaces the program.
    return name == "tavrel" || name == "tavrel (deleted)";
}

}  // namespace

pid_t livingOwner(const std::string& folderName) {
    constexpr std::string_view prefix = "tavrel_tmpdir_";
    if (folderName.compare(0, prefix.size(), prefix) != 0) {
        return 0;
    }
    const pid_t pid = parsePid(std::string_view(folderName).substr(prefix.size()));
    const bool hasEnded = pid == 0 || Plexum3::Base::readProcessLife(pid).state ==
                                          Plexum3::Base::ProcessLife::State::Ended;
    return hasEnded || !mayBeLauncher(pid) ? 0 : pid;
}

}  // namespace Cleanup
