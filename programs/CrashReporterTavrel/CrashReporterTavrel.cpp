// The crash reporter that the launcher starts beside itself:
//
//     CrashReporterTavrel SERVER_FD HANDSHAKE_FD PROMPT
//
// SERVER_FD is the server end of Breakpad's report channel, HANDSHAKE_FD the write end of a pipe
// that gets one byte, 1 when dumps will be served and 0 when they can't, PROMPT "1" to ask the user
// about each report. Then there are two processes, the Standby, which is this one, and the
// Guardian.

#include <boost/lexical_cast/try_lexical_convert.hpp>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <optional>
#include <string>

#include "process/DescriptorIo.h"
#include "process/StandardStreams.h"
#include "programs/CrashReporterTavrel/Standby.h"
#include "programs/CrashReporterTavrel/channel/Announcement.h"

namespace {

using Plexum3::Base::ScopedFd;
using Zendrik::Reporter::announce;
using Zendrik::Reporter::ReportChannel;
using Zendrik::Reporter::Service;
using Zendrik::Reporter::Standby;

constexpr int refused = 1;
constexpr int wrongUsage = 2;

struct Arguments {
    int serverFd;
    int handshakeFd;
    bool prompt;
};

std::optional<Arguments> parseArguments(int argc, char** argv) {
    constexpr int count = 4;
    int numbers[count] = {};
    for (int i = 1; i < count; ++i) {
        if (argc != count || !boost::conversion::try_lexical_convert(argv[i], numbers[i]) ||
            numbers[i] < 0) {
            return std::nullopt;
        }
    }
    const auto [program, serverFd, handshakeFd, prompt] = numbers;
    return prompt > 1 ? std::nullopt
                      : std::optional<Arguments>({serverFd, handshakeFd, prompt == 1});
}

// Keys that a user presses for the launcher reach its whole process group. They must not take the
// crash capture away from a launcher that goes on, nor stop it. SIGXFSZ: a file size limit is a
// failed write.
void ignoreTheTerminal() {
    for (const int number :
         {SIGINT, SIGQUIT, SIGHUP, SIGPIPE, SIGTSTP, SIGTTIN, SIGTTOU, SIGXFSZ}) {
        static_cast<void>(signal(number, SIG_IGN));  // fails for no signal of this list
    }
    static_cast<void>(signal(SIGCHLD, SIG_DFL));  // ignored by the launcher's parent, it reaps
}

// A launcher that was started with its streams closed hands over a descriptor of its own under
// their numbers. -1 for none that is open.
int aboveStandardStreams(int fd) {
    return fd > STDERR_FILENO ? fd : fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
}

// A reader of the launcher's output to its end waits for the launcher, not for this process.
// Standard error stays, unless it is an end of the report channel: the one line of each crash goes
// there.
void settleStandardStreams(const Arguments& arguments) {
    const ScopedFd null(aboveStandardStreams(open("/dev/null", O_RDWR | O_CLOEXEC)));
    const bool keepsError = arguments.serverFd != STDERR_FILENO &&
                            arguments.handshakeFd != STDERR_FILENO &&
                            ReportChannel(STDERR_FILENO).whatIsWrong() != nullptr;
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fd != STDERR_FILENO || !keepsError) {
            static_cast<void>(dup2(null.get(), fd));  // without /dev/null they just stay
        }
    }
}

bool answer(const ScopedFd& handshake, bool serves) {
    const char byte = serves ? 1 : 0;
    return Plexum3::Base::writeRetry(handshake.get(), &byte, sizeof byte, nullptr) == sizeof byte;
}

}  // namespace

int main(int argc, char** argv) {
    Plexum3::Base::openClosedStandardStreams();
    const std::optional<Arguments> arguments = parseArguments(argc, argv);
    if (!arguments) {
        announce("the launcher starts this program; usage: SERVER_FD HANDSHAKE_FD 0|1");
        return wrongUsage;
    }
    ignoreTheTerminal();
    ScopedFd handshake(aboveStandardStreams(arguments->handshakeFd));
    const ReportChannel channel(aboveStandardStreams(arguments->serverFd));
    settleStandardStreams(*arguments);
    if (const char* wrong = channel.whatIsWrong()) {
        static_cast<void>(answer(handshake, false));
        announce("no crash reports: descriptor " + std::to_string(arguments->serverFd) + " " +
                 wrong);
        return refused;
    }
    // The launcher waits for the answer, so it is there.
    const Service service{channel, Plexum3::Base::ProcessEnd(channel.maker()), arguments->prompt,
                          Zendrik::Reporter::newNameSeed()};
    if (!answer(handshake, true)) {
        return refused;  // it isn't read any more: the launcher has gone
    }
    handshake.reset();
    return Standby(service).run();
}
