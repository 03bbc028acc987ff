#pragma once

#include <client/linux/handler/exception_handler.h>
#include <client/linux/minidump_writer/linux_ptrace_dumper.h>
#include <sys/types.h>

#include <functional>
#include <string>

#include "stacks/HeldThreads.h"
#include "stacks/ProcessMemory.h"
#include "stacks/PythonStacks.h"
#include "stacks/StackCapture.h"

namespace Zendrik::Reporter {

/// Breakpad's view of a crashed process while its dump is written, and at the same time what takes
/// the stacks for the report, so that the process is held once:
///
///     CrashDumper dumper(request.pid, crash, [] { ... });
///     const bool written = google_breakpad::WriteMinidump(path, {}, memory, &dumper);
///     ... dumper.capture() ...              // there even if the dump could not be written
///
/// Instead of WriteMinidump: `dumper.hold()` for the stacks alone, or `dumper.leaveAlone()` for
/// what is known without a look into the process.
///
/// What differs from Breakpad's own dumper:
/// - The threads are stopped all at once, without SIGSTOP (HeldThreads): a dumper that is killed on
///   the way leaves no process behind that is stopped for good.
/// - Memory is copied by process_vm_readv, whole stacks at a time.
/// - The crashed thread is where the signal met it, not in the signal handler.
/// - Files that would fell the reader (isSoundModule) aren't looked into: " (damaged)" stands
///   behind their names, and they have no identifier.
class CrashDumper : public google_breakpad::LinuxPtraceDumper {
  public:
    using CrashContext = google_breakpad::ExceptionHandler::CrashContext;

    /// @param onHeld called once the stacks have been taken, before the dump is begun
    CrashDumper(pid_t pid, const CrashContext& crash, std::function<void()> onHeld);

    /// Holds the process, takes the stacks, lets it run.
    void hold();

    /// Takes what the crash context and /proc tell. For a process over which others have died.
    void leaveAlone();

    /// Why the process could not be held, as a clause whose subject it is; empty if it was.
    const std::string& refusal() const { return refusal_; }
    /// Of a process that could not be held: the crashed thread's registers and the loaded files.
    const Stacks::StackCapture& capture() const { return capture_; }
    const Stacks::PythonStacks& python() const { return python_; }
    /// A sentence about threads that are missing; empty if none is.
    const std::string& note() const { return note_; }

    // Breakpad's writer calls these.
    bool Init() override;
    bool ThreadsSuspend() override;
    bool ThreadsResume() override;
    bool GetThreadInfoByIndex(std::size_t index, google_breakpad::ThreadInfo* info) override;
    bool CopyFromProcess(void* to, pid_t process, const void* from, std::size_t length) override;
    /// True keeps the writer from taking the crashed thread's place for the address.
    bool IsPostMortem() const override { return true; }

  protected:
    bool EnumerateMappings() override;

  private:
    void takeStacks();

    const CrashContext& crash_;
    std::function<void()> onHeld_;
    Stacks::MemoryReader memory_;
    Stacks::HeldThreads held_;
    std::string refusal_;
    std::string note_;
    Stacks::StackCapture capture_;
    Stacks::PythonStacks python_;
};

}  // namespace Zendrik::Reporter
