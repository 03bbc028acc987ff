#pragma once

#include <string>

#include "process/ScopedFd.h"
#include "programs/CrashReporterTavrel/dump/Staging.h"

namespace Zendrik::Reporter {

/// First line of every report, by which the product knows its own files again.
inline constexpr char reportHeading[] = "Tavrel crash report";

/// The folder that dumps and reports go to. It is opened once, then used by descriptor, so that
/// nothing that is renamed or linked in its place afterwards can lead elsewhere. Keep it alive
/// longer than its stagings.
///
/// What belongs to one crash has one name, a GUID: the dump "GUID.dmp" and the report "GUID.txt".
class DumpFolder {
  public:
    /// Opens `path`, which must be an existing folder and not a symbolic link. `error` gets 0, or
    /// the errno of the failure (ELOOP or ENOTDIR for a link).
    static DumpFolder open(const std::string& path, int* error);
    /// TAVREL_CRASH_DIR, or "/var/tmp" where that is not set or empty.
    static std::string configuredPath();

    /// 0 and a staging folder in `staging`, or the errno of the failure.
    int makeStaging(Staging* staging) const { return Staging::make(fd_.get(), staging); }

    /// Takes away what killed processes of the reporter left here. Nothing, if there is no folder.
    void sweep() const { removeAbandonedStagings(fd_.get()); }

    /// The path of a file in the folder, for people.
    std::string pathOf(const std::string& name) const;

    /// Removes crashes of this product and this user until `keep` are left: the oldest first. But
    /// of crashes that came at once, each within ten seconds of the one before, the first is
    /// probably the cause of the others, and goes after them.
    ///
    /// A crash counts by its report (a regular file of this user, named by a GUID, that begins with
    /// reportHeading) or by a dump that markDump has marked. Everything else stays.
    void removeOldest(std::size_t keep) const;

    /// Removes the report and the dump with this GUID.
    void removePair(const std::string& guid) const;

    /// The open folder; -1 if it could not be opened.
    int fd() const { return fd_.get(); }

  private:
    std::string path_;
    Plexum3::Base::ScopedFd fd_;
};

/// A new name for a crash: "%08x-%04x-%04x-%08x-%08x", as Breakpad names its dumps.
std::string newGuid();
bool isGuid(const std::string& text);

/// Writes into the header of an open dump that it is this product's: the upper half of the version,
/// which the format leaves to whoever writes dumps. Other products name their dumps alike.
void markDump(int dump);

}  // namespace Zendrik::Reporter
