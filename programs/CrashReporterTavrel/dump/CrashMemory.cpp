#include "programs/CrashReporterTavrel/dump/CrashMemory.h"

#include <algorithm>
#include <cstdint>

#include "stacks/ProcessMemory.h"

namespace Zendrik::Reporter {

namespace {

using google_breakpad::AppMemory;
using Stacks::MemoryReader;

constexpr std::uintptr_t pageSize = 4096;
constexpr std::uintptr_t widestGap = 64 * pageSize;
constexpr std::uintptr_t stackKept = 32 * pageSize;  // frames that overflow a stack are wide
constexpr std::uintptr_t codeKept = 128;             // on either side

bool canBeRead(const MemoryReader& memory, std::uintptr_t address) {
    char byte = 0;
    return memory(address, &byte, sizeof byte);
}

// Bytes from `page` up to the first page that can be read; 0, too, when none of the next can.
std::uintptr_t gapBelowStack(const MemoryReader& memory, std::uintptr_t page) {
    for (std::uintptr_t gap = 0; gap < widestGap; gap += pageSize) {
        if (canBeRead(memory, page + gap)) {
            return gap;
        }
    }
    return 0;
}

AppMemory block(std::uintptr_t start, std::size_t length) {
    AppMemory memory{};
    memory.ptr = reinterpret_cast<void*>(start);
    memory.length = length;
    return memory;
}

}  // namespace

google_breakpad::AppMemoryList memoryOfCrash(
    pid_t client, const google_breakpad::ExceptionHandler::CrashContext& crash) {
    const MemoryReader memory = Stacks::processMemory(client);
    const auto& registers = crash.context.uc_mcontext.gregs;
    const auto stack = static_cast<std::uintptr_t>(registers[REG_RSP]) & ~(pageSize - 1);
    const auto place = static_cast<std::uintptr_t>(registers[REG_RIP]);
    const std::uintptr_t code = place & ~(pageSize - 1);
    google_breakpad::AppMemoryList blocks;
    // Readers look for the stack where the pointer is. Breakpad fills the gap with zeros.
    if (const std::uintptr_t gap = gapBelowStack(memory, stack); gap != 0) {
        blocks.push_back(block(stack, gap + stackKept));
    }
    if (canBeRead(memory, place)) {
        const std::uintptr_t start = canBeRead(memory, place - codeKept) ? place - codeKept : code;
        const std::uintptr_t end =
            canBeRead(memory, place + codeKept) ? place + codeKept : code + pageSize;
        blocks.push_back(block(start, end - start));
    }
    return blocks;
}

}  // namespace Zendrik::Reporter
