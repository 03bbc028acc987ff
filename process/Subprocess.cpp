#include "process/Subprocess.h"

#include <boost/make_shared.hpp>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string_view>
#include <utility>

#include "base/ExecPointers.h"
#include "process/AllSignalsBlocked.h"
#include "process/SubprocessChild.h"
#include "process/SystemError.h"

namespace Plexum3::Base {
namespace {

pid_t waitRetry(pid_t pid, int* status, int flags) {
    return retryOnInterrupt([=] { return waitpid(pid, status, flags); });
}

std::vector<int> sortedUnique(std::vector<int> descriptors) {
    std::sort(descriptors.begin(), descriptors.end());
    descriptors.erase(std::unique(descriptors.begin(), descriptors.end()), descriptors.end());
    return descriptors;
}

// The two pipes of a launch with a handle. Both ends of both are close-on-exec.
struct LaunchPipes {
    LaunchPipes() {
        createPipe(terminationRead, terminationWrite);
        setNonBlocking(terminationRead.get(), /*enable=*/true);
        createPipe(statusRead, statusWrite);
    }

    ScopedFd terminationRead;
    ScopedFd terminationWrite;
    ScopedFd statusRead;
    ScopedFd statusWrite;
};

std::vector<std::string> environmentTexts(const std::map<std::string, std::string>& environment) {
    std::vector<std::string> texts;
    texts.reserve(environment.size());
    for (const auto& [key, value] : environment) {
        texts.push_back(std::string(key).append(1, '=').append(value));
    }
    return texts;
}

// Owns what a ChildPlan points to, but for the options.
class PreparedLaunch {
  public:
    PreparedLaunch(const SubprocessOptions& options, const LaunchPipes& pipes)
        : args_(options.args),
          kept_(options.keepDescriptors),
          environment_(environmentTexts(options.environment.empty() ? currentEnvironment()
                                                                    : options.environment)) {
        kept_.push_back(pipes.terminationWrite.get());
        kept_.push_back(pipes.statusWrite.get());
        kept_ = sortedUnique(std::move(kept_));
        plan_ = {&options,
                 argv_.data(),
                 environmentPointers_.data(),
                 {kept_.data(), kept_.size(), sysconf(_SC_OPEN_MAX)},
                 pipes.terminationWrite.get(),
                 pipes.statusRead.get(),
                 pipes.statusWrite.get()};
    }
    PreparedLaunch(const PreparedLaunch&) = delete;
    PreparedLaunch& operator=(const PreparedLaunch&) = delete;

    const ChildPlan& plan() const { return plan_; }

  private:
    std::vector<std::string> args_;
    std::vector<int> kept_;
    std::vector<std::string> environment_;
    std::vector<char*> argv_ = Zendrik::Base::execPointers(args_);
    std::vector<char*> environmentPointers_ = Zendrik::Base::execPointers(environment_);
    ChildPlan plan_{};
};

// The low seven bits of a status word: 0 after an exit, 127 for a stop, else the signal.
int terminationBits(int rawStatus) {
    return rawStatus & 0x7f;
}

int exitStatusBits(int rawStatus) {
    return (rawStatus >> 8) & 0xff;
}

SubprocessState stateFromStatus(int rawStatus) {
    switch (terminationBits(rawStatus)) {
        case 0:
            return exitStatusBits(rawStatus) == 0 ? SubprocessState::Succeeded
                                                  : SubprocessState::Failed;
        case 127:
            return SubprocessState::Failed;
        case SIGINT:
        case SIGKILL:
        case SIGTERM:
            return SubprocessState::Killed;
        default:
            return SubprocessState::Crashed;
    }
}

}  // namespace

Subprocess::SubprocessImpl::SubprocessImpl(SubprocessOptions launchOptions)
    : options(std::move(launchOptions)) {}

Subprocess::Subprocess(boost::shared_ptr<SubprocessImpl> impl) : impl_(std::move(impl)) {}

void Subprocess::spawnDaemonized(const std::vector<std::string>& args) {
    std::vector<std::string> ownArgs(args);
    const std::vector<char*> argv = Zendrik::Base::execPointers(ownArgs);
    const DaemonPlan plan{argv.data(), sysconf(_SC_OPEN_MAX)};

    AllSignalsBlocked blocked;
    const pid_t firstChild = fork();
    if (firstChild == 0) {
        childBecomeDaemon(plan);
    }
    // A fork that failed is waited for, too: that gives ECHILD, and the caller goes on.
    int status = 0;
    if (waitRetry(firstChild, &status, /*flags=*/0) == -1 && errno != ECHILD) {
        const int error = errno;
        blocked.leaveBlocked();
        throwSystemError(error);
    }
}

Subprocess Subprocess::spawn(const SubprocessOptions& options) {
    LaunchPipes pipes;
    const PreparedLaunch launch(options, pipes);
    // Built now: an allocation that failed after the fork would leave a child without a record.
    const auto impl = boost::make_shared<SubprocessImpl>(options);

    pid_t child = -1;
    ssize_t got = -1;
    {
        const AllSignalsBlocked blocked;
        child = fork();
        if (child == 0) {
            childBecomeProgram(launch.plan());
        }
        pipes.statusWrite.reset();
        int status = 0;
        got = readRetry(pipes.statusRead.get(), &status, sizeof status, /*errorCode=*/nullptr);
    }
    if (got == 0) {
        // exec has closed the last write end of the status pipe.
        impl->running = true;
        impl->pid = child;
        impl->readEnd = std::move(pipes.terminationRead);
    } else {
        // Nothing to add to a failure of the wait: the child has said itself what went wrong.
        static_cast<void>(waitRetry(child, /*status=*/nullptr, /*flags=*/0));
        impl->startFailed = true;
    }
    return Subprocess(impl);
}

SubprocessState Subprocess::state() const {
    if (impl_->startFailed) {
        return static_cast<SubprocessState>(impl_->failureState);
    }
    return impl_->exited ? stateFromStatus(impl_->rawStatus) : SubprocessState::Running;
}

int Subprocess::waitStatus() const {
    return impl_->exited ? impl_->rawStatus : -1;
}

int Subprocess::exitCode() const {
    const bool exitedByItself = impl_->exited && terminationBits(impl_->rawStatus) == 0;
    return exitedByItself ? exitStatusBits(impl_->rawStatus) : -1;
}

int Subprocess::termSignal() const {
    if (!impl_->exited) {
        return -1;
    }
    const int bits = terminationBits(impl_->rawStatus);
    return bits == 127 ? 0 : bits;
}

void Subprocess::sendSignal(int signal, SignalScope scope) const {
    if (!impl_->running) {
        return;
    }
    const bool toGroup = scope == SignalScope::Group ||
                         (scope == SignalScope::Auto && impl_->options.ownProcessGroup);
    int result = 0;
    if (toGroup) {
        const pid_t group = getpgid(impl_->pid);
        result = group == -1 ? -1 : killpg(group, signal);
    } else {
        result = kill(impl_->pid, signal);
    }
    if (result == -1 && errno != ESRCH) {
        throwSystemError(errno);
    }
}

bool Subprocess::poll() const {
    return reap(WNOHANG);
}

void Subprocess::wait() const {
    static_cast<void>(reap(/*waitFlags=*/0));
}

bool Subprocess::reap(int waitFlags) const {
    if (!impl_->running) {
        return false;
    }
    int status = 0;
    if (throwOnFailure(waitRetry(impl_->pid, &status, waitFlags)) == 0) {
        return false;
    }
    impl_->exited = true;
    impl_->rawStatus = status;
    impl_->readEnd.reset();
    impl_->running = false;
    return true;
}

std::map<std::string, std::string> currentEnvironment() {
    std::map<std::string, std::string> environment;
    for (char** next = environ; next != nullptr && *next != nullptr; ++next) {
        const std::string_view entry(*next);
        const std::size_t separator = entry.find('=');
        std::string& value = environment[std::string(entry.substr(0, separator))];
        value = separator == std::string_view::npos ? "" : entry.substr(separator + 1);
    }
    return environment;
}

}  // namespace Plexum3::Base
