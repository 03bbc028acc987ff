#pragma once

#include <client/linux/handler/exception_handler.h>
#include <client/linux/minidump_writer/linux_ptrace_dumper.h>
#include <client/linux/minidump_writer/minidump_writer.h>

#include "stacks/memory/ProcessMemory.h"
#include "stacks/record/StackCapture.h"

namespace Zendrik::Reporter {

/// Breakpad's view of a crashed process that is held, over what was captured of it, for the thread
/// that holds it. What differs from Breakpad's own dumper:
/// - A thread's stack is the captured one, whole. Where a stack was overflowed, what lies between
///   the stack pointer and the stack is zeros: readers look for a stack where the pointer is.
/// - The crashed thread is where the signal met it, not in the signal handler.
/// - No module's file is opened, which may be slow, replaced or damaged.
class CrashDumper : public google_breakpad::LinuxPtraceDumper {
  public:
    using CrashContext = google_breakpad::ExceptionHandler::CrashContext;

    /// Keeps references to both.
    CrashDumper(const CrashContext& crash, const Stacks::StackCapture& capture);

    /// What was captured beside the stacks that the threads stand on.
    google_breakpad::AppMemoryList otherMemory() const;

    // Breakpad's writer calls these.
    bool ThreadsSuspend() override;
    bool ThreadsResume() override { return true; }
    bool GetThreadInfoByIndex(std::size_t index, google_breakpad::ThreadInfo* info) override;
    bool GetStackInfo(const void** stack, std::size_t* size, std::uintptr_t pointer) override;
    bool CopyFromProcess(void* to, pid_t process, const void* from, std::size_t length) override;
    bool ElfFileIdentifierForMapping(const google_breakpad::MappingInfo& mapping, bool member,
                                     unsigned int index,
                                     google_breakpad::wasteful_vector<uint8_t>& id) override;
    void GetMappingEffectiveNameAndPath(const google_breakpad::MappingInfo& mapping, char* path,
                                        std::size_t pathSize, char* name,
                                        std::size_t nameSize) override;
    /// True keeps the writer from taking the crashed thread's place for the address.
    bool IsPostMortem() const override { return true; }

  private:
    const CrashContext& crash_;
    const Stacks::StackCapture& capture_;
    const Stacks::MemoryReader memory_;
};

}  // namespace Zendrik::Reporter
