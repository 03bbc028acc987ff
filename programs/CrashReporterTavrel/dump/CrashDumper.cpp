#include "programs/CrashReporterTavrel/dump/CrashDumper.h"

#include <sys/user.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>
#include <utility>

#include "programs/CrashReporterTavrel/dump/ModuleFile.h"
#include "stacks/MappedFiles.h"
#include "stacks/Mappings.h"
#include "stacks/ProcFiles.h"
#include "stacks/PythonReader.h"
#include "stacks/StackMemory.h"
#include "stacks/TraceRefusal.h"

namespace Zendrik::Reporter {

namespace {

using google_breakpad::MappingInfo;
using google_breakpad::ThreadInfo;

constexpr std::chrono::milliseconds stopLimit(500);

std::uint64_t registerOf(const ucontext_t& context, int number) {
    return static_cast<std::uint64_t>(context.uc_mcontext.gregs[number]);
}

Stacks::Registers registersOf(const ucontext_t& context) {
    constexpr std::array<int, 17> byDwarf{REG_RAX, REG_RDX, REG_RCX, REG_RBX, REG_RSI, REG_RDI,
                                          REG_RBP, REG_RSP, REG_R8,  REG_R9,  REG_R10, REG_R11,
                                          REG_R12, REG_R13, REG_R14, REG_R15, REG_RIP};
    Stacks::Registers registers{};
    std::transform(byDwarf.begin(), byDwarf.end(), registers.begin(),
                   [&](int number) { return registerOf(context, number); });
    return registers;
}

void setRegisters(user_regs_struct& to, const ucontext_t& from) {
    to.rax = registerOf(from, REG_RAX);
    to.rdx = registerOf(from, REG_RDX);
    to.rcx = registerOf(from, REG_RCX);
    to.rbx = registerOf(from, REG_RBX);
    to.rsi = registerOf(from, REG_RSI);
    to.rdi = registerOf(from, REG_RDI);
    to.rbp = registerOf(from, REG_RBP);
    to.rsp = registerOf(from, REG_RSP);
    to.r8 = registerOf(from, REG_R8);
    to.r9 = registerOf(from, REG_R9);
    to.r10 = registerOf(from, REG_R10);
    to.r11 = registerOf(from, REG_R11);
    to.r12 = registerOf(from, REG_R12);
    to.r13 = registerOf(from, REG_R13);
    to.r14 = registerOf(from, REG_R14);
    to.r15 = registerOf(from, REG_R15);
    to.rip = registerOf(from, REG_RIP);
    to.eflags = registerOf(from, REG_EFL);
}

// A worker that was killed over this process a moment ago may not have let go of it yet.
void awaitTracersEnd(pid_t tid) {
    using std::chrono::steady_clock;
    constexpr std::chrono::milliseconds limit(300);
    constexpr std::chrono::milliseconds pause(5);
    const auto deadline = steady_clock::now() + limit;
    while (steady_clock::now() < deadline &&
           Stacks::statusField(Stacks::readProcFile(tid, "status"), "TracerPid") != "0") {
        std::this_thread::sleep_for(pause);
    }
}

Stacks::CapturedSignal signalOf(const siginfo_t& info) {
    return {info.si_signo, info.si_code, reinterpret_cast<std::uintptr_t>(info.si_addr),
            info.si_pid};
}

}  // namespace

CrashDumper::CrashDumper(pid_t pid, const CrashContext& crash, std::function<void()> onHeld)
    : LinuxPtraceDumper(pid),
      crash_(crash),
      onHeld_(std::move(onHeld)),
      memory_(Stacks::processMemory(pid)) {
    SetCrashInfoFromSigInfo(crash.siginfo);
    set_crash_thread(crash.tid);
    capture_.pid = pid;
    capture_.crashedTid = crash.tid;
    capture_.signal = signalOf(crash.siginfo);
}

void CrashDumper::hold() {
    if (Init()) {
        static_cast<void>(ThreadsSuspend());  // `refusal` tells
    }
    static_cast<void>(ThreadsResume());
}

void CrashDumper::leaveAlone() {
    memory_ = [](std::uint64_t, void*, std::size_t) { return false; };
    refusal_ = "was left alone";
    takeStacks();
}

bool CrashDumper::Init() {
    if (LinuxPtraceDumper::Init()) {
        return true;
    }
    refusal_ = Stacks::whyNotTraceable(pid_, EACCES);
    takeStacks();
    return false;
}

bool CrashDumper::ThreadsSuspend() {
    awaitTracersEnd(crash_.tid);
    refusal_ = held_.hold(pid_, stopLimit);
    takeStacks();
    threads_.resize(0);
    for (const Stacks::CapturedThread& thread : capture_.threads) {
        threads_.push_back(thread.tid);
    }
    onHeld_();
    return refusal_.empty();
}

bool CrashDumper::ThreadsResume() {
    held_.release();
    return true;
}

// Of what isn't held, what can be known.
void CrashDumper::takeStacks() {
    const std::vector<Stacks::Mapping> mappings = Stacks::readMappings(pid_);
    capture_.threads = held_.readRegisters();
    if (!refusal_.empty()) {
        capture_.threads.resize(1);
        capture_.threads[0].tid = crash_.tid;
    }
    for (Stacks::CapturedThread& thread : capture_.threads) {
        thread.name = Stacks::threadName(thread.tid);
        if (thread.tid == crash_.tid) {
            thread.registers = registersOf(crash_.context);
        }
    }
    capture_.files = Stacks::findMappedFiles(mappings, memory_);
    Stacks::copyStacks(capture_, mappings, memory_);
    if (refusal_.empty()) {
        python_ = Stacks::readPythonStacks(capture_.files, memory_);
    }
    if (const std::size_t missing = held_.unstopped().size(); missing > 0) {
        note_ = missing == 1
                    ? "1 more thread could not be stopped: it waits"
                    : std::to_string(missing) + " more threads could not be stopped: they wait";
        note_ += " for a disk, a server or a driver.";
    }
}

bool CrashDumper::GetThreadInfoByIndex(std::size_t index, ThreadInfo* info) {
    if (!LinuxPtraceDumper::GetThreadInfoByIndex(index, info)) {
        return false;
    }
    if (threads_[index] == crash_thread()) {
        setRegisters(info->regs, crash_.context);
        static_assert(sizeof info->fpregs == sizeof crash_.float_state);
        std::memcpy(&info->fpregs, &crash_.float_state, sizeof info->fpregs);
        info->stack_pointer = registerOf(crash_.context, REG_RSP);
    }
    return true;
}

bool CrashDumper::CopyFromProcess(void* to, pid_t process, const void* from, std::size_t length) {
    return memory_(reinterpret_cast<std::uintptr_t>(from), to, length) ||
           LinuxPtraceDumper::CopyFromProcess(to, process, from, length);
}

bool CrashDumper::EnumerateMappings() {
    constexpr char damaged[] = " (damaged)";
    if (!LinuxPtraceDumper::EnumerateMappings()) {
        return false;
    }
    std::string path;
    bool sound = true;
    for (MappingInfo* const mapping : mappings_) {
        // The mappings of one file follow each other.
        if (path != mapping->name) {
            path = mapping->name;
            sound = path.empty() || path[0] != '/' || isSoundModule(path);
        }
        const std::string name = path + damaged;
        if (!sound && name.size() < sizeof mapping->name) {
            name.copy(mapping->name, name.size());
        } else if (!sound) {
            mapping->name[0] = '\0';
        }
    }
    return true;
}

}  // namespace Zendrik::Reporter
