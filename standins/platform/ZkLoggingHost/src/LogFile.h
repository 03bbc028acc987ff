#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace ZkLoggingHost::internal {

struct LogSettings;

/// A file that lines are appended to, each by one write, so that processes may share it: lines
/// don't mix, and the file is put aside by whichever process finds it full. The others notice at
/// their next line that it has moved on. Of lines written at that very moment some may end up in
/// the file that was put aside; none is lost until that one is deleted.
///
/// For one thread at a time. Programs that the application starts don't inherit the descriptor.
class LogFile {
  public:
    /// Opens or makes the file, and its folder if the settings say so.
    /// @throw std::system_error if it can't be opened for writing; a FIFO without a reader can't
    explicit LogFile(const LogSettings& settings);
    ~LogFile();
    LogFile(const LogFile&) = delete;
    LogFile& operator=(const LogFile&) = delete;

    /// Absolute, also where the settings name a relative path: the current folder may change.
    const std::string& path() const { return path_; }

    /// Appends the text as it is. A FIFO that is full swallows it: no reader holds up the writer.
    /// @return 0, or the errno of a write that failed
    int append(std::string_view text);

  private:
    bool isFullWith(std::size_t size) const;
    bool isStillAtPath() const;
    void rotate();

    std::string path_;
    std::uint64_t rotateSize_;
    unsigned rotateKeep_;
    int descriptor_;
};

/// Writes all of the text, in one piece where the system lets it.
/// @return 0, or the errno of what failed
int writeWhole(int descriptor, std::string_view text);

}  // namespace ZkLoggingHost::internal
