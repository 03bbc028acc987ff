#include "stacks/memory/StackMemory.h"

#include <algorithm>
#include <string_view>

namespace Zendrik::Stacks {

namespace {

constexpr std::uint64_t redZone = 128;
constexpr std::uint64_t maxOfThread = std::uint64_t{1024} * 1024;
constexpr std::uint64_t maxOfAll = 64 * maxOfThread;
constexpr std::uint64_t maxOverflow = std::uint64_t{256} * 1024;
constexpr std::uint64_t maxOfAllCode = 8 * maxOfThread;
constexpr std::uint64_t codeKept = 128;  // on either side

struct Range {
    std::uint64_t start = 0;
    std::uint64_t end = 0;
    bool isCrashed = false;  // of the crashed thread

    std::uint64_t size() const { return end - start; }
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
    const Mapping* const first = firstStackOf(thread, pid, mappings);
    if (current == nullptr) {
        // A frame that is larger than what was left: its caller's is where the stack was in use.
        if (first != nullptr && stackPointer < first->start) {
            ranges.push_back(usedPart(*first, first->start + redZone));
        }
        return;
    }
    ranges.push_back(usedPart(*current, stackPointer));
    if (first != nullptr && first != current) {
        const std::uint64_t lowest = lowestPointerInto(*first, ranges.back(), memory);
        if (lowest < first->end) {
            ranges.push_back(usedPart(*first, lowest));
        }
    }
}

// What is shared with a range in front is left to that one.
std::vector<Range> withoutOverlap(std::vector<Range> ranges) {
    std::sort(ranges.begin(), ranges.end(),
              [](const Range& left, const Range& right) { return left.start < right.start; });
    std::vector<Range> apart;
    std::uint64_t end = 0;
    for (Range range : ranges) {
        range.start = std::max(range.start, end);
        if (range.start < range.end) {
            end = range.end;
            apart.push_back(range);
        }
    }
    return apart;
}

// Cuts what exceeds `left` bytes. @return how many ranges were cut
std::size_t cutTo(std::vector<Range>& ranges, std::uint64_t left) {
    std::sort(ranges.begin(), ranges.end(), [](const Range& one, const Range& other) {
        return one.isCrashed != other.isCrashed ? one.isCrashed : one.size() < other.size();
    });
    std::size_t cut = 0;
    for (Range& range : ranges) {
        cut += range.size() > left ? 1 : 0;
        range.end = range.start + std::min(range.size(), left);
        left -= range.size();
    }
    return cut;
}

void copyRange(StackCapture& capture, std::uint64_t start, std::uint64_t end,
               const MemoryReader& memory) {
    MemoryBlock block{start, std::string(end - start, '\0')};
    if (!block.bytes.empty() && memory(start, block.bytes.data(), block.bytes.size())) {
        capture.memory.push_back(std::move(block));
    }
}

void sortByAddress(StackCapture& capture) {
    std::sort(capture.memory.begin(), capture.memory.end(),
              [](const MemoryBlock& left, const MemoryBlock& right) {
                  return left.address < right.address;
              });
}

bool isDeleted(const std::string& path) {
    constexpr std::string_view mark = " (deleted)";
    return path.size() > mark.size() &&
           path.compare(path.size() - mark.size(), path.npos, mark) == 0;
}

}  // namespace

std::string copyStacks(StackCapture& capture, const std::vector<Mapping>& mappings,
                       const MemoryReader& memory) {
    std::vector<Range> ranges;
    for (const CapturedThread& thread : capture.threads) {
        const std::size_t before = ranges.size();
        addStacksOf(thread, capture.pid, mappings, memory, ranges);
        for (std::size_t i = before; i < ranges.size(); ++i) {
            ranges[i].isCrashed = thread.tid == capture.crashedTid;
        }
    }
    ranges = withoutOverlap(std::move(ranges));
    const std::size_t cut = cutTo(ranges, maxOfAll);
    for (const Range& range : ranges) {
        copyRange(capture, range.start, range.end, memory);
    }
    sortByAddress(capture);
    return cut == 0 ? ""
                    : "All stacks together are larger than 64 MiB: outer frames of the largest (" +
                          std::to_string(cut) + ") are missing.";
}

void copyCode(StackCapture& capture, const std::vector<Mapping>& mappings,
              const MemoryReader& memory) {
    std::uint64_t left = maxOfAllCode;
    for (const Mapping& mapping : mappings) {
        if (mapping.isExecutable && mapping.isReadable && isDeleted(mapping.path)) {
            const std::uint64_t size = std::min({mapping.end - mapping.start, maxOfThread, left});
            copyRange(capture, mapping.start, mapping.start + size, memory);
            left -= size;
        }
    }
    sortByAddress(capture);
    for (const CapturedThread& thread : capture.threads) {
        const std::uint64_t place = thread.registers[instructionPointerRegister];
        const auto code =
            std::find_if(mappings.begin(), mappings.end(), [place](const Mapping& mapping) {
                return mapping.isReadable && mapping.start <= place && place < mapping.end;
            });
        if (thread.tid == capture.crashedTid && code != mappings.end() &&
            !blockAt(capture, place)) {
            copyRange(capture, std::max(code->start, place - codeKept),
                      std::min(code->end, place + codeKept), memory);
            sortByAddress(capture);
        }
    }
}

}  // namespace Zendrik::Stacks
