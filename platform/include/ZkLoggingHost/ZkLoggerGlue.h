#pragma once

namespace ZkLoggingHost {

/// A named logger. Callers ask the level's ...Enabled operation first and build a text only if it
/// says yes. Level and destination come from the file that ZKLOGGING_CONFIG names, read at first
/// use. Usable from any thread after ZkPlexum3InitializeMinimally.
class ZkLoggerGlue {
  public:
    /// @param name zero-terminated, not copied: it must outlive the logger
    explicit ZkLoggerGlue(const char* name) : name_(name) {}

    bool debugEnabled() const;
    bool infoEnabled() const;
    bool errorEnabled() const;

    /// Writes one line under the logger's name.
    /// @param message text of the line, zero-terminated, without a line end
    /// @param sourcePath source unit of the caller, zero-terminated
    /// @param line line number in that unit
    void debug(const char* message, const char* sourcePath, int line) const;
    void info(const char* message, const char* sourcePath, int line) const;
    void error(const char* message, const char* sourcePath, int line) const;

  private:
    const char* name_;
};

}  // namespace ZkLoggingHost
