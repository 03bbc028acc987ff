#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "process/ScopedFd.h"

namespace Zendrik::Reporter {

/// First line of every report, by which the product knows its own files again.
inline constexpr char reportHeading[] = "Tavrel crash report";

/// The folder that dumps and reports go to, used by descriptor, so that nothing that is renamed or
/// linked in its place can lead elsewhere. What belongs to one crash has one name: the dump
/// "GUID.dmp" and the report "GUID.txt", until they are whole ".GUID.dmp.new" and ".GUID.txt.new".
class DumpFolder {
  public:
    /// Opens `path`, which must be an existing folder that can be written, and not a symbolic link.
    /// `error` gets 0, or the errno of the failure (ELOOP or ENOTDIR for a link).
    static DumpFolder open(const std::string& path, int* error);
    /// The folder of TAVREL_CRASH_DIR; where that can't be used, "/var/tmp". `refusal` gets a
    /// clause about why, empty if it can; `error` gets 0 or why "/var/tmp" can't be used either.
    static DumpFolder openConfigured(int* error, std::string* refusal);

    /// A path for code that opens the unfinished file by itself; valid in this process.
    std::string unfinishedPath(const std::string& name) const;
    // These return 0, or the errno of the failure, after which what was there is there.
    /// Gives an unfinished file its name.
    int publish(const std::string& name) const;
    /// Writes a file whole (mode 0600), which replaces one of this name.
    int writeText(const std::string& name, std::string_view text) const;
    /// ENOENT for a file that isn't there.
    int appendText(const std::string& name, std::string_view text) const;
    bool holds(const std::string& name) const;
    void remove(const std::string& name) const;
    /// Removes what a worker has left unfinished of a crash.
    void removeUnfinished(const std::string& guid) const;
    /// Removes what killed processes of this user left unfinished more than an hour ago.
    void sweep() const;

    /// The path of a file in the folder, for people.
    std::string pathOf(const std::string& name) const;

    /// Removes crashes of this product and user until `keep` are left: the oldest first. But of
    /// crashes that came within ten seconds the first is probably the cause, and goes last.
    /// A crash counts by its report, or by a dump that markDump has marked. All else stays.
    void removeOldest(std::size_t keep) const;

    /// Removes the report and the dump.
    void removePair(const std::string& guid) const;

    /// -1 if it could not be opened.
    int fd() const { return fd_.get(); }

  private:
    std::string path_;
    Plexum3::Base::ScopedFd fd_;
};

/// What the names of all crashes of a run are made of; random.
using NameSeed = std::array<std::uint32_t, 4>;
NameSeed newNameSeed();

/// The name of this process's crash, of the form of Breakpad's. The same process always has the
/// same one, so a second attempt on its crash replaces the first.
/// @param startTicks as ProcessLife has them, 0 when unknown
std::string guidOf(const NameSeed& seed, pid_t pid, std::uint64_t startTicks);

/// What the user can do about a folder or file that failed with this errno.
std::string adviceFor(int error);

/// Marks an open dump as this product's, in the upper half of the version, which the format leaves
/// to the writers of dumps. Other products name theirs alike.
void markDump(int dump);

}  // namespace Zendrik::Reporter
