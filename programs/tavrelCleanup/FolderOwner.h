#pragma once

#include <sys/types.h>

#include <string>

namespace Cleanup {

/// The process whose run a folder belongs to by its name, "tavrel_tmpdir_" and a process id, as
/// long as that process lives and may be a launcher. A launcher that another one has started
/// inherits the path of its folder, but not the right to end it: the first one's own cleanup
/// program does that.
///
/// A process that shows another program than a launcher has got the id later. One that lives and
/// doesn't show its program is taken for a launcher.
///
/// @return 0 if the folder is named otherwise, or that process has ended
pid_t livingOwner(const std::string& folderName);

}  // namespace Cleanup
