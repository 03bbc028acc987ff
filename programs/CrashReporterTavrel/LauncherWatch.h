#pragma once

#include <sys/types.h>

#include "process/DescriptorIo.h"

namespace Zendrik::Reporter {

using Plexum3::Base::ScopedFd;

// Tells when the launcher has ended, however it ended: exit, signal, exec failure. End of file on
// the report channel can't tell that, because this process may hold both of its ends, and so may
// children that the launcher leaves behind.
//
// The launcher is the process that made the channel (SO_PEERCRED). That is this process's parent,
// unless a program that runs another (strace, a script) was put in the reporter's place: it waits
// for the reporter, and would never end if the reporter waited for it.
//
// Make it before the handshake is answered: until then the launcher waits, so it is there.
class LauncherWatch {
  public:
    // Opens a pidfd on the launcher; `channelFd` is the server end. Never fails: where the kernel
    // has no pidfd_open, or does not show the launcher to this process, the parent stands for it
    // and the caller looks at `gone` every `pollIntervalMs`.
    explicit LauncherWatch(int channelFd);

    // Readable once the launcher has ended; -1 where only looking helps. Owned by this object.
    int fd() const { return pidfd_.get(); }

    // Milliseconds between two looks: -1 (none needed) with a descriptor, 250 without one.
    int pollIntervalMs() const;

    // Whether the launcher has ended. Without a descriptor: whether the kernel has given this
    // process another parent.
    bool gone() const;

  private:
    pid_t parent_;
    ScopedFd pidfd_;
};

}  // namespace Zendrik::Reporter
