#pragma once

#include <sys/types.h>

#include <string>

namespace Zendrik::Stacks {

/// Why an attempt to trace a process failed, looked up after it: a clause whose subject is the
/// process ("is being traced by process 4711").
/// @param error the attempt's errno value. It is all that is given where no reason is found
std::string whyNotTraceable(pid_t pid, int error);

/// What a process that can't be traced because it isn't there any more is said to be; empty for one
/// that is there.
std::string whyGone(pid_t pid);

}  // namespace Zendrik::Stacks
