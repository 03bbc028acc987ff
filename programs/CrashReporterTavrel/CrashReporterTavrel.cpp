// The crash reporter that the launcher starts beside itself:
//
//     CrashReporterTavrel SERVER_FD HANDSHAKE_FD PROMPT
//
// SERVER_FD is the server end of Breakpad's report channel, HANDSHAKE_FD the write end of a pipe
// that gets one byte, 1 when dumps will be served and 0 when they can't, PROMPT "1" to ask the user
// about each report. Everything after the handshake is the Guardian's.

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <optional>
#include <utility>

#include "programs/CrashReporterTavrel/Announcement.h"
#include "programs/CrashReporterTavrel/Guardian.h"

namespace {

using Plexum3::Base::ScopedFd;
using Zendrik::Reporter::announce;
using Zendrik::Reporter::Guardian;
using Zendrik::Reporter::LauncherWatch;
using Zendrik::Reporter::ReportChannel;

constexpr int kRefused = 1;
constexpr int kWrongUsage = 2;

struct Arguments {
    int serverFd;
    int handshakeFd;
    bool prompt;
};

std::optional<int> numberFrom(const char* text) {
    const char* end = text + std::strlen(text);
    int number = -1;
    const auto [stop, error] = std::from_chars(text, end, number);
    const bool whole = error == std::errc() && stop == end && number >= 0;
    return whole ? std::optional<int>(number) : std::nullopt;
}

std::optional<Arguments> parseArguments(int argc, char** argv) {
    constexpr int count = 4;
    if (argc != count) {
        return std::nullopt;
    }
    const std::optional<int> serverFd = numberFrom(argv[1]);
    const std::optional<int> handshakeFd = numberFrom(argv[2]);
    const std::optional<int> prompt = numberFrom(argv[3]);
    if (!serverFd || !handshakeFd || !prompt || *prompt > 1) {
        return std::nullopt;
    }
    return Arguments{*serverFd, *handshakeFd, *prompt == 1};
}

// Keys that a user presses for the launcher reach its whole process group. They must not take the
// crash capture away from a launcher that goes on, nor stop it. SIGXFSZ: a file size limit is a
// failed write.
void ignoreTheTerminal() {
    for (const int signal :
         {SIGINT, SIGQUIT, SIGHUP, SIGPIPE, SIGTSTP, SIGTTIN, SIGTTOU, SIGXFSZ}) {
        (void)::signal(signal, SIG_IGN);  // fails for no signal of this list
    }
    (void)::signal(SIGCHLD, SIG_DFL);  // ignored by whoever started the launcher, it reaps
}

// Whoever reads the launcher's output to its end waits for the launcher, not for this process.
// Standard error stays: the one line of each crash goes there. A launcher that was started with its
// streams closed hands over a descriptor of its own under their numbers.
void letGoOfStandardStreams(const Arguments& arguments) {
    const ScopedFd null(open("/dev/null", O_RDWR | O_CLOEXEC));
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO}) {
        if (fd != arguments.serverFd && fd != arguments.handshakeFd) {
            (void)dup2(null.get(), fd);  // without /dev/null they just stay
        }
    }
}

bool answer(const ScopedFd& handshake, bool serves) {
    const char byte = serves ? 1 : 0;
    return Plexum3::Base::writeRetry(handshake.get(), &byte, sizeof byte, nullptr) == sizeof byte;
}

}  // namespace

int main(int argc, char** argv) {
    const std::optional<Arguments> arguments = parseArguments(argc, argv);
    if (!arguments) {
        announce("the launcher starts this program; usage: SERVER_FD HANDSHAKE_FD 0|1");
        return kWrongUsage;
    }
    ignoreTheTerminal();
    ScopedFd handshake(arguments->handshakeFd);
    const ReportChannel channel(arguments->serverFd);
    if (const char* wrong = channel.whatIsWrong()) {
        (void)answer(handshake, false);
        announce("no crash reports: descriptor %d %s", arguments->serverFd, wrong);
        return kRefused;
    }
    letGoOfStandardStreams(*arguments);
    LauncherWatch launcher(arguments->serverFd);
    Guardian guardian(channel, std::move(launcher), arguments->prompt);
    if (!answer(handshake, true)) {
        return kRefused;  // nobody reads it any more: the launcher has gone
    }
    handshake.reset();
    return guardian.run();
}
