#include "programs/CrashReporterTavrel/StackOverflow.h"

#include <sys/uio.h>

#include <cerrno>
#include <cstring>

#include "client/linux/handler/exception_handler.h"
#include "client/linux/minidump_writer/minidump_writer.h"

namespace Zendrik::Reporter {

namespace {

using CrashContext = google_breakpad::ExceptionHandler::CrashContext;

constexpr uintptr_t kPageSize = 4096;
constexpr uintptr_t kWidestGap = 64 * kPageSize;
constexpr uintptr_t kStackKept = 32 * kPageSize;  // frames that overflow a stack are wide

// Bytes from `page` up to the first page that can be read; 0, too, when none of the next can.
uintptr_t gapBelowStack(pid_t client, uintptr_t page) {
    for (uintptr_t gap = 0; gap < kWidestGap; gap += kPageSize) {
        if (readingError(client, page + gap) == 0) {
            return gap;
        }
    }
    return 0;
}

}  // namespace

int readingError(pid_t pid, uintptr_t address) {
    char byte = 0;
    iovec local{&byte, 1};
    iovec remote{reinterpret_cast<void*>(address), 1};
    return process_vm_readv(pid, &local, 1, &remote, 1, 0) < 0 ? errno : 0;
}

bool writeDumpOfOverflow(pid_t client, const std::vector<char>& context, const std::string& path) {
    CrashContext crash{};
    if (context.size() != sizeof crash) {
        return false;
    }
    std::memcpy(&crash, context.data(), sizeof crash);
    const auto pointer = static_cast<uintptr_t>(crash.context.uc_mcontext.gregs[REG_RSP]);
    const uintptr_t page = pointer & ~(kPageSize - 1);
    const uintptr_t gap = gapBelowStack(client, page);
    if (gap == 0) {
        return false;
    }
    // The processor looks for the stack where the pointer is. Breakpad fills the gap with zeros.
    google_breakpad::AppMemory stack;
    stack.ptr = reinterpret_cast<void*>(page);
    stack.length = gap + kStackKept;
    return google_breakpad::WriteMinidump(path.c_str(), client, &crash, sizeof crash,
                                          google_breakpad::MappingList(), {stack});
}

}  // namespace Zendrik::Reporter
