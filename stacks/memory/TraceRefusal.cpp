#include "stacks/memory/TraceRefusal.h"

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "process/ProcFiles.h"

namespace Zendrik::Stacks {

namespace {

using Plexum3::Base::listThreads;
using Plexum3::Base::readProcFile;
using Plexum3::Base::statusField;

}  // namespace

std::string whyGone(pid_t pid) {
    const std::string status = readProcFile(pid, "status");
    if (status.empty()) {
        // A /proc mounted with hidepid shows a user his own processes alone.
        return kill(pid, 0) == -1 && errno == ESRCH ? "doesn't exist" : "is hidden from this user";
    }
    const std::string state = statusField(status, "State");
    // The first thread of a process may end before the others.
    return (state[0] == 'Z' || state[0] == 'X') && listThreads(pid).size() <= 1 ? "has ended" : "";
}

std::string whyNotTraceable(pid_t pid, int error) {
    if (std::string gone = whyGone(pid); !gone.empty()) {
        return gone;
    }
    const std::string status = readProcFile(pid, "status");
    if (const std::string tracer = statusField(status, "TracerPid"); tracer != "0") {
        return "is being traced by process " + tracer;
    }
    const bool isRoot = geteuid() == 0;
    const auto owner = static_cast<uid_t>(std::atol(statusField(status, "Uid").c_str()));
    if (!isRoot && owner != geteuid()) {
        return "belongs to another user: only that user and root may look at it";
    }
    const int scope = std::atoi(readProcFile(0, "sys/kernel/yama/ptrace_scope").c_str());
    if (scope >= 3) {
        return "may be looked at by nobody: kernel.yama.ptrace_scope is 3";
    }
    if (!isRoot && scope > 0) {
        return "may be looked at by root alone: kernel.yama.ptrace_scope is " +
               std::to_string(scope);
    }
    return std::string("may not be looked at (") + std::strerror(error) + ")";
}

}  // namespace Zendrik::Stacks
