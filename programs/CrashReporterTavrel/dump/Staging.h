#pragma once

#include <string>

#include "process/ScopedFd.h"

namespace Zendrik::Reporter {

/// A private folder (mode 0700, random name) inside the dump folder, in which files are made before
/// they get their final names. So nobody else can put a link in the way, nothing half written ever
/// shows, and one removal takes away whatever a failed worker left. Removed with all that is in it
/// when the object is destroyed.
///
/// The open folder carries a lock (flock), which a fork shares. So as long as one process that
/// works in it lives, the lock is held; and when the last has been killed, the next reporter finds
/// a folder that it can lock, and removes it.
class Staging {
  public:
    Staging() = default;
    ~Staging() { remove(); }
    Staging(Staging&& other) noexcept;
    Staging& operator=(Staging&& other) noexcept;

    /// Makes one in the open folder `folderFd`, which has to stay open for longer than it.
    /// @return 0 and the folder in `staging`, or the errno of the failure
    static int make(int folderFd, Staging* staging);

    int fd() const { return fd_.get(); }
    /// The folder as a path for code that wants one; valid in this process and its forked children.
    std::string path() const;
    /// Gives `from` its final name in the dump folder. Never replaces a file there.
    /// @return 0, or the errno of the failure
    int publish(const std::string& from, const std::string& to) const;

    /// For a forked process that has nothing to do with it: closes it and leaves it where it is.
    void leaveToOthers();

  private:
    Staging(int folderFd, std::string name, Plexum3::Base::ScopedFd fd)
        : folderFd_(folderFd), name_(std::move(name)), fd_(std::move(fd)) {}
    static int makeLocked(int folderFd, Staging* staging);
    void remove();

    int folderFd_ = -1;
    std::string name_;
    Plexum3::Base::ScopedFd fd_;
};

/// Removes the staging folders of this user whose owners were killed. What can't be locked is
/// somebody's, or can't be told: it stays. One that another machine has made in a shared folder is
/// removed only when it is older than a day, as a lock may not reach there.
void removeAbandonedStagings(int folderFd);

}  // namespace Zendrik::Reporter
