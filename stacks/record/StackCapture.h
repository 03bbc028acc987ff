#pragma once

// What is taken from a process while its threads stand still, so that their stacks can be found
// after it has been let go: registers, the memory that the stacks lie in, and which file stands
// where. Plain records; the holder of the process (a tracer) or a reader of its dump fills them in.
//
//     const std::string bytes = serialise(capture);                    // for another process
//     const std::optional<StackCapture> same = parse(bytes);

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Zendrik::Stacks {

/// The registers that call frame information speaks of, by DWARF's numbers for x86-64:
/// rax rdx rcx rbx rsi rdi rbp rsp r8 ... r15 rip.
using Registers = std::array<std::uint64_t, 17>;
inline constexpr std::size_t stackPointerRegister = 7;
inline constexpr std::size_t instructionPointerRegister = 16;

/// Bytes of the process from `address` on.
struct MemoryBlock {
    std::uint64_t address = 0;
    std::string bytes;
};

/// One ELF file as the loader has mapped it.
struct MappedFile {
    /// Where the file's first byte stands.
    std::uint64_t start = 0;
    /// Behind the last of its mappings.
    std::uint64_t end = 0;
    /// As /proc/PID/maps has it: " (deleted)" may stand behind it, "[vdso]" is none of the disk's.
    std::string path;
    /// Lower-case hexadecimal digits, from the process's memory; empty: none, or not readable.
    std::string buildId;
};

struct CapturedThread {
    pid_t tid = 0;
    /// /proc/PID/task/TID/comm without its line end.
    std::string name;
    Registers registers{};
    /// fs base, by which a Python thread finds its native one; 0: unknown.
    std::uint64_t threadPointer = 0;
};

/// The signal that a process ended by, as its siginfo has it.
struct CapturedSignal {
    int number = 0;  ///< 0: it was no signal
    int code = 0;    ///< si_code
    /// si_addr; without meaning unless an instruction raised the signal.
    std::uint64_t address = 0;
    /// si_pid; without meaning unless a process sent the signal.
    pid_t sender = 0;
};

struct StackCapture {
    pid_t pid = 0;
    /// The thread to show first; 0: none.
    pid_t crashedTid = 0;
    CapturedSignal signal;
    std::vector<CapturedThread> threads;
    /// By address, without overlap. Shared by all threads: a thread in a signal handler has a
    /// stack besides the one that its stack pointer is on (see sigaltstack(2)), and needs both.
    std::vector<MemoryBlock> memory;
    std::vector<MappedFile> files;
};

/// The block that holds the byte at `address`; null if it was not captured.
const MemoryBlock* blockAt(const StackCapture& capture, std::uint64_t address);

std::string serialise(const StackCapture& capture);

/// The capture that `serialise` made `bytes` of, on a machine like this one.
/// @return none for anything else: no length in it is believed.
std::optional<StackCapture> parse(std::string_view bytes);

}  // namespace Zendrik::Stacks
