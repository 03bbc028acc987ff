#pragma once

#include <sys/types.h>

#include <optional>
#include <vector>

namespace Zendrik::Reporter {

// A process that has crashed and waits for its dump. The kernel vouches for the pid.
struct DumpRequest {
    pid_t pid;
    // False for a datagram that Breakpad's client can't have sent.
    bool wellFormed;
};

// The server end of Breakpad's report channel, seen from outside of Breakpad's server: who is
// waiting, and letting the waiting go.
//
// Breakpad's client sends its crash context with the write end of a pipe and then reads from that
// pipe until every copy of the write end is closed. So a request that is received and thrown away
// lets its process go on dying; one that stays queued holds it for ever.
class ReportChannel {
  public:
    // Takes `fd` without owning it: it stays open until the process ends, for the workers too.
    explicit ReportChannel(int fd) : fd_(fd) {}

    // Null when the descriptor is a socket as CreateReportChannel makes it; else what is wrong
    // with it, in words that follow "descriptor N ". Turns on the senders' credentials.
    const char* whatIsWrong() const;

    int fd() const { return fd_; }

    // The first request in the queue, which stays there; none when the queue is empty.
    std::optional<DumpRequest> peek() const;

    // The CrashContext that the first request holds, which stays in the queue; bytes without
    // meaning when it is not well formed, none when the queue is empty.
    std::vector<char> peekContext() const;

    // Takes the first request out of the queue and lets its process go without a dump.
    void letGo() const;

    // Lets all waiting processes go and refuses what comes later: a process that crashes then
    // fails to send its request and dies at once, also when it holds a copy of this end itself.
    void shut() const;

  private:
    int fd_;
};

}  // namespace Zendrik::Reporter
