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

/// The server end of Breakpad's report channel, seen from outside of Breakpad's server: who is
/// waiting, and letting the waiting go.
///
/// Breakpad's client sends its crash context with the write end of a pipe and then reads from that
/// pipe until every copy of the write end is closed. So a request that is received and thrown away
/// lets its process go on dying; one that stays queued holds it for ever.
///
/// The pipe is never taken out: a request is looked at where it is, and stays in the queue
/// until its process shall go on. So it is lost with no process that dies over it, and every
/// process that holds this end can let it go, whatever became of the one that worked on it.
class ReportChannel {
  public:
    /// Takes `fd` without owning it: it stays open until the process ends, for its children too.
    explicit ReportChannel(int fd) : fd_(fd) {}

    /// Null when the descriptor is a socket as CreateReportChannel makes it; else what is wrong
    /// with it, in words that follow "descriptor N ". Turns on the senders' credentials, and the
    /// time at which they sent.
    const char* whatIsWrong() const;

    int fd() const { return fd_; }

    /// The process that made the channel (SO_PEERCRED): the launcher. That is this process's
    /// parent, unless a program that runs another (strace, a script) was put in the reporter's
    /// place, which waits for the reporter. Where the maker can't be seen, the parent stands for
    /// it.
    pid_t maker() const;

    /// The first request in the queue, which stays there; none when the queue is empty.
    std::optional<DumpRequest> peek() const;

    /// Takes this request out of the queue and so lets its process go; does nothing when it isn't
    /// the first any more.
    void letGo(const DumpRequest& request) const;

    /// Lets all waiting processes go and refuses what comes later: a process that crashes then
    /// fails to send its request and dies at once, also when it holds a copy of this end itself.
    void shut() const;

    /// Whether it was shut, or no process is left that could send.
    bool isShut() const;

  private:
    int fd_;
};

}  // namespace Zendrik::Reporter
