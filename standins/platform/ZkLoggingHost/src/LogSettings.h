#pragma once

#include <cstdint>
#include <string>

#include "ZkLoggingHost/LogLines.h"

/// The settings of a log configuration file.
namespace ZkLoggingHost::internal {

struct LogSettings {
    Level level = Level::Info;
    /// Path of the file that lines are appended to; empty for standard error.
    std::string file;
    /// Whether the file's folder is made if it isn't there.
    bool makesFolder = false;
    /// Size in bytes at which the file is put aside; 0 for never.
    std::uint64_t rotateSize = 0;
    /// How many files that were put aside are kept.
    unsigned rotateKeep = 3;
    /// What is wrong with the configuration file, as one line; empty for a good one. The settings
    /// are then the defaults above.
    std::string complaint;
};

/// Reads an INI file with the settings of log.conf in section "log". A setting that is left out has
/// its default; a section or setting of another name is a complaint. "~" at the beginning of a path
/// is the home folder.
LogSettings readLogSettings(const std::string& path);

}  // namespace ZkLoggingHost::internal
