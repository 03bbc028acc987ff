#include "stacks/native/StackGuess.h"

#include <algorithm>
#include <cstring>

#include "stacks/native/FrameLines.h"

namespace Zendrik::Stacks {

namespace {

constexpr std::size_t framePointerRegister = 6;
constexpr std::uint64_t wordSize = sizeof(std::uint64_t);
constexpr std::uint64_t farthest = std::uint64_t{64} * 1024;

Registers returned(const Registers& registers, std::uint64_t slot, std::uint64_t to) {
    Registers caller = registers;
    caller[stackPointerRegister] = slot + wordSize;
    caller[instructionPointerRegister] = to;
    return caller;
}

}  // namespace

std::optional<std::uint64_t> wordAt(const StackCapture& capture, std::uint64_t address) {
    const MemoryBlock* const block = blockAt(capture, address);
    const std::uint64_t offset = block == nullptr ? 0 : address - block->address;
    if (block == nullptr || block->bytes.size() - offset < wordSize) {
        return std::nullopt;
    }
    std::uint64_t word = 0;
    std::memcpy(&word, block->bytes.data() + offset, wordSize);
    return word;
}

bool endsWithCall(std::string_view code) {
    constexpr unsigned char callRelative = 0xe8;
    constexpr unsigned char indirect = 0xff;
    const auto byte = [code](std::size_t fromEnd) {
        return static_cast<unsigned char>(code[code.size() - fromEnd]);
    };
    constexpr std::size_t relativeSize = 5;
    if (code.size() >= relativeSize && byte(relativeSize) == callRelative) {
        return true;
    }
    // ff /2 with a register or an address behind it, which takes up to five bytes more.
    for (std::size_t size = 2; size <= std::min(code.size(), longestCall); ++size) {
        constexpr unsigned operation = 070;
        constexpr unsigned call = 020;
        if (byte(size) == indirect && (byte(size - 1) & operation) == call) {
            return true;
        }
    }
    return false;
}

bool isBehindLostCall(const StackCapture& capture, std::uint64_t address) {
    const std::optional<std::size_t> file = fileAt(capture, address - 1);
    if (!file) {
        return false;
    }
    if (const MemoryBlock* const code = blockAt(capture, address - 1)) {
        const std::uint64_t size = std::min<std::uint64_t>(address - code->address, longestCall);
        return endsWithCall({&code->bytes[address - code->address - size], size});
    }
    const MappedFile& mapped = capture.files[*file];
    return std::none_of(capture.memory.begin(), capture.memory.end(),
                        [&mapped](const MemoryBlock& block) {
                            return mapped.start <= block.address && block.address < mapped.end;
                        });
}

std::optional<Registers> guessCaller(const StackCapture& capture, const Registers& registers,
                                     const std::function<bool(std::uint64_t)>& isReturnAddress) {
    const std::uint64_t top = registers[stackPointerRegister];
    const std::uint64_t frame = registers[framePointerRegister];
    if (frame >= top && frame % wordSize == 0) {
        const std::optional<std::uint64_t> outer = wordAt(capture, frame);
        const std::optional<std::uint64_t> to = wordAt(capture, frame + wordSize);
        if (outer && to && *outer > frame && isReturnAddress(*to)) {
            Registers caller = returned(registers, frame + wordSize, *to);
            caller[framePointerRegister] = *outer;
            return caller;
        }
    }
    const std::uint64_t first = (top + wordSize - 1) / wordSize * wordSize;
    for (std::uint64_t slot = first; slot >= first && slot - first < farthest; slot += wordSize) {
        const std::optional<std::uint64_t> word = wordAt(capture, slot);
        if (!word) {
            return std::nullopt;
        }
        if (isReturnAddress(*word)) {
            return returned(registers, slot, *word);
        }
    }
    return std::nullopt;
}

}  // namespace Zendrik::Stacks
