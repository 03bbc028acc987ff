#include "stacks/StackMemory.h"

#include <algorithm>

namespace Zendrik::Stacks {

namespace {

constexpr std::uint64_t redZone = 128;
constexpr std::uint64_t maxOfThread = std::uint64_t{1024} * 1024;
constexpr std::uint64_t maxOfAll = 64 * maxOfThread;
constexpr std::uint64_t maxOverflow = std::uint64_t{256} * 1024;

struct Range {
    std::uint64_t start = 0;
    std::uint64_t end = 0;
};

/// The mapping that holds a stack whose pointer is `address`.
const Mapping* stackAt(const std::vector<Mapping>& mappings, std::uint64_t address) {
    const auto found = std::find_if(
        mappings.begin(), mappings.end(),
        [address](const Mapping& mapping) { return mapping.isReadable && address < mapping.end; });
    const bool isNear = found != mappings.end() &&
                        (found->start <= address || found->start - address <= maxOverflow);
    return isNear ? &*found : nullptr;
}

/// The mapping of the stack that a thread began on: the kernel names the first thread's, at the end
/// of the others' libc keeps what the thread pointer points to.
const Mapping* firstStackOf(const CapturedThread& thread, pid_t pid,
                            const std::vector<Mapping>& mappings) {
    const auto found = std::find_if(mappings.begin(), mappings.end(), [&](const Mapping& mapping) {
        return thread.tid == pid
                   ? mapping.path == "[stack]"
                   : mapping.start <= thread.threadPointer && thread.threadPointer < mapping.end;
    });
    return found == mappings.end() ? nullptr : &*found;
}

Range usedPart(const Mapping& stack, std::uint64_t stackPointer) {
    const std::uint64_t start = std::max(stack.start, stackPointer - redZone);
    return {start, std::min(stack.end, start + maxOfThread)};
}

/// The lowest address in `stack` that a word of the other stack, a signal handler's, points to: the
/// interrupted function's stack pointer was saved there.
std::uint64_t lowestPointerInto(const Mapping& stack, const Range& other,
                                const MemoryReader& memory) {
    std::vector<std::uint64_t> words((other.end - other.start) / sizeof(std::uint64_t));
    std::uint64_t lowest = stack.end;
    if (memory(other.end - words.size() * sizeof(std::uint64_t), words.data(),
               words.size() * sizeof(std::uint64_t))) {
        for (const std::uint64_t word : words) {
            lowest = stack.start <= word ? std::min(lowest, word) : lowest;
        }
    }
    return lowest;
}

void addStacksOf(const CapturedThread& thread, pid_t pid, const std::vector<Mapping>& mappings,
                 const MemoryReader& memory, std::vector<Range>& ranges) {
    const std::uint64_t stackPointer = thread.registers[stackPointerRegister];
    const Mapping* const current = stackAt(mappings, stackPointer);
    if (current == nullptr) {
        return;
    }
    ranges.push_back(usedPart(*current, stackPointer));
    const Mapping* const first = firstStackOf(thread, pid, mappings);
    if (first != nullptr && first != current) {
        const std::uint64_t lowest = lowestPointerInto(*first, ranges.back(), memory);
        if (lowest < first->end) {
            ranges.push_back(usedPart(*first, lowest));
        }
    }
}

}  // namespace

void copyStacks(StackCapture& capture, const std::vector<Mapping>& mappings,
                const MemoryReader& memory) {
    std::vector<Range> ranges;
    for (const CapturedThread& thread : capture.threads) {
        addStacksOf(thread, capture.pid, mappings, memory, ranges);
    }
    std::sort(ranges.begin(), ranges.end(),
              [](const Range& left, const Range& right) { return left.start < right.start; });
    std::uint64_t copied = 0;
    std::uint64_t end = 0;
    for (const Range& range : ranges) {
        const std::uint64_t start = std::max(range.start, end);
        if (start >= range.end || copied + (range.end - start) > maxOfAll) {
            continue;
        }
        MemoryBlock block{start, std::string(range.end - start, '\0')};
        if (memory(start, block.bytes.data(), block.bytes.size())) {
            copied += block.bytes.size();
            end = range.end;
            capture.memory.push_back(std::move(block));
        }
    }
}

}  // namespace Zendrik::Stacks
