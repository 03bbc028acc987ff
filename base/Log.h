#pragma once

#include <cstdint>
#include <iosfwd>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace Zendrik {

/// The base library's own file log. It needs no set-up: the first line that passes the threshold
/// finds level and file by itself, from the environment variables ZENDRIK_LOG_LEVEL (quiet, error,
/// warning, message, verbose or all; error by default) and ZENDRIK_LOG_FILE (else
/// $HOME/Desktop/zendrik.log, whose folder is not created). A run that writes no line creates no
/// file. A file that can't be opened costs one line on standard error, and all lines go there. When
/// a write fails, on a full disk for example, that line and all that follow are lost without a
/// word, until setFile or setStream names another destination.
///
/// A line is written in three moves:
///
///     if (Log::Entry(Log::Level::error, Log::Channel{})) {
///         Log::stream() << "text" << std::endl;
///     }
///
/// The launcher's crash handler writes here. setFile, setStream, setApplicationName, the channels
/// and their headers are for native code of the application, which links tavrel_base for them.
///
/// All state is the process's; nothing but the channel names is locked, so one thread writes at a
/// time. A forked child may go on writing to the same file, which is open in append mode.
class Log {
  public:
    enum class Level : std::int32_t {
        quiet = 0,
        error = 1,
        warning = 2,
        message = 3,
        verbose = 4,
        /// Not a line's level: the threshold before it is settled, and any unknown name.
        unsettled = 5,
    };

    /// A named group of lines, off until it is enabled. Channel 0 has no name and is always on.
    struct Channel {
        std::uint32_t id = 0;
    };

    /// Gate and header of one line: true, with the header written to stream(), if a line of that
    /// level and channel is wanted. The line's text and end are the caller's.
    /// @throw std::runtime_error if the local time can't be had, or what Boost throws for a date
    ///         outside its calendar
    class Entry {
      public:
        Entry(Level level, const Channel& channel);
        explicit operator bool() const { return wanted_; }

      private:
        bool wanted_;
    };

    /// Names of channels, each with an identifier that stays the same for the whole run. May be
    /// used from any thread.
    class ChannelNames {
      public:
        /// The identifier of @p name, a new one if need be; 0 for the empty name.
        std::uint32_t add(const std::string& name);
        /// The identifier, 0 if the name is unknown.
        std::uint32_t find(const std::string& name) const;
        /// The name, empty if the identifier is unknown.
        std::string name(std::uint32_t id) const;
        /// Forgets all names but the empty one, whose identifier is 0.
        void clear();

      private:
        mutable std::mutex mutex_;
        std::map<std::string, std::uint32_t> ids_;
        std::vector<std::string> names_{std::string()};
    };

    Log() = delete;

    /// Where lines go, resolved at the first call and kept until setFile or setStream. Not the
    /// caller's to close.
    static std::ostream& stream();

    /// Opens @p path for appending at once and makes it the destination. If it can't be opened, one
    /// line on standard error says so and the destination stays as it was.
    static void setFile(const std::string& path);
    /// The log file's path; empty as long as none is settled.
    static const std::string& file();
    /// Makes @p stream the destination, closing a log file. Not owned: it must outlive its use
    /// here. Null makes the next stream() resolve the destination anew.
    static void setStream(std::ostream* stream);
    /// First word of the header of the lines that follow; empty for none.
    static void setApplicationName(const std::string& name);

    /// The threshold; reads ZENDRIK_LOG_LEVEL once if it isn't settled yet.
    static Level level();
    /// The level of that name in any case, unsettled if there is none.
    static Level levelFromName(const std::string& name);
    /// Makes ZENDRIK_LOG_LEVEL the threshold if it is set to a known name.
    static void applyEnvironmentLevel();
    /// @param honourEnvironment whether a known ZENDRIK_LOG_LEVEL wins over @p level
    static void setLevel(Level level, bool honourEnvironment);
    /// An unknown name leaves the threshold unsettled: the next line asks the environment anew.
    static void setLevel(const std::string& levelName, bool honourEnvironment);

    /// Without effect on channel 0.
    static void enableChannel(const Channel& channel);
    static void disableChannel(const Channel& channel);
    static bool channelEnabled(const Channel& channel);

    /// Lines of a channel with a hidden header begin with "[name] ", those of channel 0 with
    /// nothing.
    static void hideHeader(const Channel& channel);
    static void showHeader(const Channel& channel);
    static bool headerShown(const Channel& channel);

    /// The one register of names, made at first use by whichever thread comes first.
    static ChannelNames& channelNames();
};

}  // namespace Zendrik
