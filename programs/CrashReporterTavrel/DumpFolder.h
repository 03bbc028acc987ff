#pragma once

#include <string>

#include "process/DescriptorIo.h"

namespace Zendrik::Reporter {

using Plexum3::Base::ScopedFd;

// First line of every report, by which the product knows its own files again.
inline constexpr char kReportHeading[] = "Tavrel crash report";

// A private folder (mode 0700, random name) inside the dump folder, in which files are made before
// they get their final names. So nobody else can put a link in the way, nothing half written ever
// shows, and one removal takes away whatever a failed worker left. Removed with all that is in it
// when the object is destroyed.
class Staging {
  public:
    Staging() = default;
    Staging(int folderFd, std::string name, ScopedFd fd)
        : folderFd_(folderFd), name_(std::move(name)), fd_(std::move(fd)) {}
    ~Staging() { remove(); }
    Staging(Staging&& other) noexcept;
    Staging& operator=(Staging&& other) noexcept;

    int fd() const { return fd_.get(); }
    // The folder as a path for code that wants one; valid in this process and its forked children.
    std::string path() const;
    // Gives `from` its final name in the dump folder. Never replaces a file there.
    // 0, or the errno of the failure.
    int publish(const std::string& from, const std::string& to) const;

  private:
    void remove();

    int folderFd_ = -1;
    std::string name_;
    ScopedFd fd_;
};

// The folder that dumps and reports go to. It is opened once, then used by descriptor, so that
// nothing that is renamed or linked in its place afterwards can lead elsewhere. Keep it alive
// longer than its stagings.
class DumpFolder {
  public:
    // Opens `path`, which must be an existing folder and not a symbolic link. `error` gets 0, or
    // the errno of the failure (ELOOP or ENOTDIR for a link).
    static DumpFolder open(const std::string& path, int* error);
    // TAVREL_CRASH_DIR, or "/var/tmp" where that is not set or empty.
    static std::string configuredPath();

    // 0 and a staging folder in `staging`, or the errno of the failure.
    int makeStaging(Staging* staging) const;

    // The path of a file in the folder, for people.
    std::string pathOf(const std::string& name) const;

    // Removes the oldest pairs of report and dump of this product and this user until `keep` are
    // left. A pair counts by its report: a regular file of this user, named by a GUID, that begins
    // with kReportHeading. Everything else stays.
    void removeOldest(size_t keep) const;

    // Removes the pair with this GUID.
    void removePair(const std::string& guid) const;

  private:
    std::string path_;
    ScopedFd fd_;
};

// "%08x-%04x-%04x-%08x-%08x", as Breakpad names its dumps.
bool isGuid(const std::string& text);

}  // namespace Zendrik::Reporter
