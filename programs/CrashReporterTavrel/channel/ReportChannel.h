#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <vector>

namespace Zendrik::Reporter {

/// A process that has crashed and waits for its dump.
struct DumpRequest {
    /// The kernel vouches for it.
    pid_t pid = -1;
    /// False for a datagram that Breakpad's client can't have sent.
    bool wellFormed = false;
    /// For how long the process waits, by the kernel's word; 0 where the kernel doesn't say.
    std::chrono::milliseconds age{0};
    /// Breakpad's CrashContext; bytes without meaning unless well formed.
    std::vector<char> context;

    bool isSameAs(const DumpRequest& other) const {
        return pid == other.pid && context == other.context;
    }
};

/// The server end of Breakpad's report channel. Breakpad's client sends its crash context with the
/// write end of a pipe and then waits until every copy of that is closed. So a request that is
/// thrown away lets its process go on dying; one that stays queued holds it.
///
/// A request is looked at where it is, and stays in the queue until its process shall go on. So it
/// is lost with no process that dies over it, and every process that holds this end can let it go.
class ReportChannel {
  public:
    /// Takes `fd` without owning it: it stays open until the process ends, for its children too.
    explicit ReportChannel(int fd) : fd_(fd) {}

    /// Null when the descriptor is a socket as CreateReportChannel makes it; else what is wrong
    /// with it. Turns on the senders' credentials, and the time at which they sent.
    const char* whatIsWrong() const;

    int fd() const { return fd_; }

    /// The launcher: who made the channel (SO_PEERCRED), and this process's parent, unless a script
    /// or strace was put in the reporter's place. Where it can't be seen, the parent.
    pid_t maker() const;

    /// The first request in the queue, which stays there.
    std::optional<DumpRequest> peek() const;

    /// Takes this request out of the queue, if it is still the first.
    void letGo(const DumpRequest& request) const;

    /// Lets all waiting processes go; one that crashes later fails to send and dies at once.
    void shut() const;

    /// Whether it was shut, or no process is left that could send.
    bool isShut() const;

  private:
    int fd_;
};

}  // namespace Zendrik::Reporter
