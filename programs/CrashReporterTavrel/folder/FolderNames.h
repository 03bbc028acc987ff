#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <memory>
#include <string>

namespace Zendrik::Reporter {

/// Calls `visit` with each name in an open folder, "." and ".." too; with none if it can't be read.
template <typename Visit>
void forEachName(int folderFd, Visit visit) {
    // A stream over its own open of the folder: the caller's descriptor keeps its position.
    const int own = openat(folderFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(own < 0 ? nullptr : fdopendir(own), closedir);
    if (!folder) {
        static_cast<void>(close(own));  // there may be none
        return;
    }
    while (const dirent* entry = readdir(folder.get())) {
        visit(std::string(entry->d_name));
    }
}

}  // namespace Zendrik::Reporter
