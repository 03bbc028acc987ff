#pragma once

#include <sys/types.h>

#include "process/DescriptorIo.h"

namespace Zendrik::Reporter {

using Plexum3::Base::ScopedFd;

// Tells when the launcher, this process's parent, has ended, however it ended: exit, signal, exec
// failure. End of file on the report channel can't tell that, because this process may hold both
// of its ends, and so may children that the launcher leaves behind.
//
// Make it before the handshake is answered: until then the launcher waits, so the parent is it.
class LauncherWatch {
  public:
    // Opens a pidfd on the parent. Never fails: where the kernel has no pidfd_open, the caller
    // looks at `gone` every `pollIntervalMs`.
    LauncherWatch();

    // Readable once the launcher has ended; -1 where only looking helps. Owned by this object.
    int fd() const { return pidfd_.get(); }

    // Milliseconds between two looks: -1 (none needed) with a descriptor, 250 without one.
    int pollIntervalMs() const;

    // Whether the launcher has ended: the kernel has given this process another parent.
    bool gone() const;

  private:
    pid_t launcher_;
    ScopedFd pidfd_;
};

}  // namespace Zendrik::Reporter
