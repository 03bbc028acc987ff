#pragma once

#include <string>

/// The settings of a log configuration file.
namespace ZkLoggingHost::internal {

enum class Level { debug, info, error, off };

struct LogSettings {
    Level level = Level::info;
    /// Path of the file that lines are appended to; empty for standard error.
    std::string file;
    /// What is wrong with the configuration file, as one line; empty for a good one. The settings
    /// are then the defaults above.
    std::string complaint;
};

/// Reads an INI file with the settings "level" and "destination" in section "log". A setting that
/// is left out has its default; a section or setting of another name is a complaint.
LogSettings readLogSettings(const std::string& path);

}  // namespace ZkLoggingHost::internal
