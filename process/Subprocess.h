#pragma once

/// Starting other programs, in one of two ways.
///
/// To be rid of a program, let it go as a daemon:
///
///     Subprocess::spawnDaemonized({"/opt/app/bin/sweeper", "--once"});
///
/// To stay with it, keep a handle:
///
///     SubprocessOptions options;
///     options.args = {"ls", "-l"};
///     options.stdoutFd = writeEnd.get();
///     const Subprocess child = Subprocess::spawn(options);
///     if (child.state() == SubprocessState::FailedToStart) ...   // its reason is on descriptor 2
///     const int ended = child.terminationFd();
///     pollAny(&ended, 1, timeoutMs, &error);                      // readable once the child ended
///     if (child.poll()) ...                                       // reaped: exitCode(), state()
///
/// Any thread may launch, of a process with any number of threads. For the length of the launch all
/// signals are blocked in the calling thread, and only there. The calling process has descriptors 0
/// to 2 open: pipes of a launch that landed there would be overwritten by the child's own.
///
/// A child that fails before its program runs says why on its descriptor 2, in one line that begins
/// "ZkPlexBase::Subprocess - ", and exits with status 1, or 127 if the program can't be executed.

#include <boost/shared_ptr.hpp>

#include <csignal>
#include <map>
#include <string>
#include <vector>

#include "process/DescriptorIo.h"

namespace Plexum3::Base {

/// What to launch. The defaults leave the child like its parent, with no signal blocked.
struct SubprocessOptions {
    /// args[0] is both the child's argv[0] and what is searched for in the child's own PATH.
    std::vector<std::string> args;
    /// Carried along, read by nothing.
    bool reservedFlag = false;
    /// The child stops itself (SIGSTOP) just before exec; spawn returns only after it was sent
    /// SIGCONT. Until then it holds copies of descriptors of other launches, unless
    /// closeOtherDescriptors is set: a spawn in another thread meanwhile may wait as long.
    bool stopBeforeExec = false;
    /// The child leads a process group of its own, which sendSignal then reaches by default.
    bool ownProcessGroup = false;
    /// Signals that the child runs with blocked.
    sigset_t signalMask{};
    /// Close what is open from descriptor 3 up to the open-file limit, but for `keepDescriptors`.
    bool closeOtherDescriptors = false;
    /// Any order, repeats allowed. They still need to be inheritable (see setInheritable).
    std::vector<int> keepDescriptors;
    /// The whole environment. Empty stands for the caller's own: there is no way to ask for none.
    std::map<std::string, std::string> environment;
    /// Empty: where the parent is.
    std::string workingDirectory;
    /// Descriptors of the caller, still owned by it, to install as 0, 1 and 2; -1 leaves that one
    /// as it is. They are installed in the order output, error, input, each seeing the ones before.
    int stdinFd = -1;
    int stdoutFd = -1;
    int stderrFd = -1;
};

enum class SubprocessState {
    Running = 0,
    Crashed = 1,    ///< by a signal other than those of Killed
    Succeeded = 2,  ///< exit status 0
    Failed = 3,     ///< another exit status
    Killed = 4,     ///< by SIGINT, SIGKILL or SIGTERM
    FailedToStart = 5,
};

enum class SignalScope {
    Auto = 0,  ///< Group for a child with ownProcessGroup, Process for any other
    Process = 1,
    Group = 2,
};

/// A handle on a launched child. Copies share one record. An empty handle, as the default
/// constructor makes it, is for assigning to and asking impl(): no other operation may be called.
///
/// When the last copy goes, the child is neither signalled nor reaped: it goes on unwatched, and is
/// a zombie once it ends. Operations on handles that share a record are for one thread at a time.
class Subprocess {
  public:
    /// The record behind a handle.
    struct SubprocessImpl {
        explicit SubprocessImpl(SubprocessOptions launchOptions);

        SubprocessOptions options;  ///< as the caller gave them
        bool startFailed = false;   ///< failed before or at exec
        int failureState = static_cast<int>(SubprocessState::FailedToStart);
        bool running = false;  ///< started and not reaped
        int pid = -1;
        bool exited = false;  ///< reaped
        int rawStatus = 0;    ///< what waitpid gave, once `exited`
        ScopedFd readEnd;     ///< of the termination pipe
    };

    Subprocess() = default;

    /// Starts args[0], searched for in the caller's PATH, as a daemon: its own session without a
    /// terminal, a child of init, working directory "/", file mask 0, default signal handling,
    /// nothing blocked, descriptors 0 to 2 on /dev/null, none other open below the open-file limit,
    /// the environment as it is.
    ///
    /// Returns once the daemon is on its way. Nothing shows whether it could be executed, nor
    /// whether there was a process to spare for it. Costs the caller one fork and a wait for the
    /// second; both grow with the memory that the caller has in use.
    ///
    /// @throw boost::system::system_error (system category) if the first of the chain can't be
    ///         waited for; all signals then stay blocked in the calling thread
    /// @throw std::bad_alloc
    static void spawnDaemonized(const std::vector<std::string>& args);

    /// Starts options.args[0] and returns when the child has reached exec or failed on the way; the
    /// handle is non-empty in either case. A child that is killed on the way counts as started, as
    /// wait() then shows. So does a launch for which no process could be forked: its pid() is -1,
    /// and before any other operation this has to be looked at. sendSignal, in its default scope
    /// too, would reach every process that the user may signal (kill(-1)), and wait() and poll()
    /// any child.
    ///
    /// The child has the write end of the termination pipe open in addition to what it was given.
    ///
    /// @throw boost::system::system_error (system category) if a pipe can't be made; no child is
    ///         left then
    /// @throw std::bad_alloc likewise
    static Subprocess spawn(const SubprocessOptions& options);

    /// The record, owned by the handles; null for an empty handle.
    SubprocessImpl* impl() const { return impl_.get(); }

    /// -1 unless the child is running.
    int pid() const { return impl_->running ? impl_->pid : -1; }
    /// Turns readable, with end of file, when the child and all who inherited the other end from it
    /// have ended. Owned by the handle, non-blocking, closed and -1 once the child is reaped.
    int terminationFd() const { return impl_->readEnd.get(); }
    SubprocessState state() const;
    /// The status word of waitpid; -1 unless reaped.
    int waitStatus() const;
    /// -1 unless reaped after an exit of its own.
    int exitCode() const;
    /// 0 for a child that ended by itself; -1 unless reaped.
    int termSignal() const;

    /// Signals a running child and does nothing for any other. A child that vanished is no error.
    /// @throw boost::system::system_error (system category) for any other (EINVAL, EPERM)
    void sendSignal(int signal, SignalScope scope = SignalScope::Auto) const;
    /// Reaps the child if it has ended, without waiting.
    /// @return whether this call has reaped it
    /// @throw boost::system::system_error (system category) if waitpid fails
    bool poll() const;
    /// Waits for the child to end and reaps it; nothing happens unless it is running.
    /// @throw boost::system::system_error (system category) if waitpid fails
    void wait() const;

  private:
    explicit Subprocess(boost::shared_ptr<SubprocessImpl> impl);
    bool reap(int waitFlags) const;

    boost::shared_ptr<SubprocessImpl> impl_;
};

/// The process environment (`environ`) as a map. An entry without "=" becomes a key with an empty
/// value; of entries with the same key the last one counts. Not while another thread changes the
/// environment.
std::map<std::string, std::string> currentEnvironment();

}  // namespace Plexum3::Base
