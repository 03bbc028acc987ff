#include "programs/CrashReporterTavrel/dump/CrashDumper.h"

#include <sys/user.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <set>
#include <string>

#include "stacks/native/FrameLines.h"
#include "stacks/record/Registers.h"

namespace Zendrik::Reporter {

namespace {

using google_breakpad::MappingInfo;
using google_breakpad::ThreadInfo;
using Stacks::MemoryBlock;

// What the stack of a thread with this stack pointer is saved from; null: it was not captured.
const MemoryBlock* stackAt(const Stacks::StackCapture& capture, std::uint64_t pointer) {
    if (const MemoryBlock* const block = blockAt(capture, pointer)) {
        return block;
    }
    constexpr std::uint64_t widestGap = std::uint64_t{256} * 1024;
    const auto above =
        std::find_if(capture.memory.begin(), capture.memory.end(),
                     [pointer](const MemoryBlock& block) { return block.address > pointer; });
    return above != capture.memory.end() && above->address - pointer <= widestGap ? &*above
                                                                                  : nullptr;
}

}  // namespace

// Of the crashed thread, not of the process: its first thread may have ended.
CrashDumper::CrashDumper(const CrashContext& crash, const Stacks::StackCapture& capture)
    : LinuxPtraceDumper(crash.tid),
      crash_(crash),
      capture_(capture),
      memory_(Stacks::processMemory(crash.tid)) {
    SetCrashInfoFromSigInfo(crash.siginfo);
    set_crash_thread(crash.tid);
}

google_breakpad::AppMemoryList CrashDumper::otherMemory() const {
    std::set<const MemoryBlock*> stacks;
    for (const Stacks::CapturedThread& thread : capture_.threads) {
        stacks.insert(stackAt(capture_, thread.registers[Stacks::stackPointerRegister]));
    }
    google_breakpad::AppMemoryList list;
    for (const MemoryBlock& block : capture_.memory) {
        if (stacks.count(&block) == 0) {
            google_breakpad::AppMemory memory{};
            memory.ptr = reinterpret_cast<void*>(block.address);
            memory.length = block.bytes.size();
            list.push_back(memory);
        }
    }
    return list;
}

bool CrashDumper::ThreadsSuspend() {
    threads_.resize(0);
    for (const Stacks::CapturedThread& thread : capture_.threads) {
        threads_.push_back(thread.tid);
    }
    return true;
}

bool CrashDumper::GetThreadInfoByIndex(std::size_t index, ThreadInfo* info) {
    if (!LinuxPtraceDumper::GetThreadInfoByIndex(index, info)) {
        return false;
    }
    if (threads_[index] == crash_thread()) {
        for (const Stacks::Register& each : Stacks::registerTable) {
            info->regs.*each.inUser =
                static_cast<std::uint64_t>(crash_.context.uc_mcontext.gregs[each.inContext]);
        }
        info->regs.eflags = static_cast<std::uint64_t>(crash_.context.uc_mcontext.gregs[REG_EFL]);
        static_assert(sizeof info->fpregs == sizeof crash_.float_state);
        std::memcpy(&info->fpregs, &crash_.float_state, sizeof info->fpregs);
        info->stack_pointer = info->regs.rsp;
    }
    return true;
}

bool CrashDumper::GetStackInfo(const void** stack, std::size_t* size, std::uintptr_t pointer) {
    const MemoryBlock* const block = stackAt(capture_, pointer);
    if (block == nullptr) {
        return LinuxPtraceDumper::GetStackInfo(stack, size, pointer);
    }
    const std::uint64_t start = std::min<std::uint64_t>(block->address, pointer);
    *stack = reinterpret_cast<const void*>(start);
    *size = block->address + block->bytes.size() - start;
    return true;
}

bool CrashDumper::CopyFromProcess(void* to, pid_t process, const void* from, std::size_t length) {
    const auto start = reinterpret_cast<std::uintptr_t>(from);
    const MemoryBlock* const block = stackAt(capture_, start);
    const std::uint64_t first = block == nullptr ? 0 : std::max(start, block->address);
    if (block != nullptr && first - start < length &&
        start + length <= block->address + block->bytes.size()) {
        const std::size_t gap = first - start;
        std::memset(to, 0, gap);
        block->bytes.copy(static_cast<char*>(to) + gap, length - gap, first - block->address);
        return true;
    }
    return memory_(start, to, length) ||
           LinuxPtraceDumper::CopyFromProcess(to, process, from, length);
}

bool CrashDumper::ElfFileIdentifierForMapping(const MappingInfo& mapping, bool /*member*/,
                                              unsigned int /*index*/,
                                              google_breakpad::wasteful_vector<uint8_t>& id) {
    const std::optional<std::size_t> file = fileAt(capture_, mapping.start_addr);
    const std::string& digits = file ? capture_.files[*file].buildId : std::string();
    for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
        id.push_back(static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
    }
    return !digits.empty();
}

void CrashDumper::GetMappingEffectiveNameAndPath(const MappingInfo& mapping, char* path,
                                                 std::size_t pathSize, char* name,
                                                 std::size_t nameSize) {
    const char* const slash = std::strrchr(mapping.name, '/');
    static_cast<void>(std::snprintf(path, pathSize, "%s", mapping.name));
    static_cast<void>(
        std::snprintf(name, nameSize, "%s", slash == nullptr ? mapping.name : slash + 1));
}

}  // namespace Zendrik::Reporter
