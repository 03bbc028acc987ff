#pragma once

#include <client/linux/handler/exception_handler.h>
#include <client/linux/minidump_writer/minidump_writer.h>
#include <sys/types.h>

namespace Zendrik::Reporter {

/// What a dump shall hold of a crashed process's memory beside the stacks that Breakpad saves:
///
/// - 256 bytes of code around the place of the crash, less where they can't be read.
/// - After an overflow, the 128 KiB of stack that come next above the stack pointer. Breakpad saves
///   a stack from its stack pointer upwards, and nothing when the pointer lies below the stack:
///   there it stands when a function was entered that needs more than was left. Such a dump would
///   lead no further than the first frame. Up to 256 KiB are looked through.
///
/// It looks by process_vm_readv, which disturbs the process in no way.
google_breakpad::AppMemoryList memoryOfCrash(
    pid_t client, const google_breakpad::ExceptionHandler::CrashContext& crash);

}  // namespace Zendrik::Reporter
