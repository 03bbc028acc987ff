#pragma once

#include <array>
#include <memory>
#include <unordered_map>

// Reading the memory of another process.

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <optional>
#include <type_traits>

namespace Zendrik::Stacks {

/// Copies `size` bytes from `address` of the process into `buffer`. False if they can't all be
/// read; `buffer` may have been written to then.
using MemoryReader = std::function<bool(std::uint64_t address, void* buffer, std::size_t size)>;

/// Reads by process_vm_readv(2): for a process that may trace the other, traced or not. Nothing is
/// kept open; a process that has gone, and one that may not be read, fail every read.
/// @param tid any thread of the process that has not ended
MemoryReader processMemory(pid_t tid);

/// One value as it lies in memory.
template <class Value>
std::optional<Value> readValue(const MemoryReader& memory, std::uint64_t address) {
    static_assert(std::is_trivially_copyable_v<Value>);
    Value value;
    return memory(address, &value, sizeof value) ? std::optional<Value>(value) : std::nullopt;
}

/// A field of a record that was read as bytes. `offset` leaves room for it.
template <class Value>
Value fieldAt(const void* record, std::size_t offset) {
    static_assert(std::is_trivially_copyable_v<Value>);
    Value value;
    std::memcpy(&value, static_cast<const char*>(record) + offset, sizeof value);
    return value;
}

/// The memory of a process that stands still, by pages, each read once: what the interpreter's
/// lists connect is often near in memory, too.
///
/// It has a budget, so that rubbish can neither hold the process for long nor fill the memory of
/// the reader: 16,000 pages, 64 MiB.
class PagedMemory {
  public:
    /// @param memory is kept by reference
    explicit PagedMemory(const MemoryReader& memory) : memory_(memory) {}

    /// As a MemoryReader does. Once the budget is spent, only pages that are known can be read.
    bool read(std::uint64_t address, void* buffer, std::size_t size);

    /// Takes what is made of the memory from the budget as well.
    void charge(std::size_t bytes);

    bool isSpent() const { return bytes_ == 0; }

  private:
    static constexpr std::size_t pageSize = 4096;
    using Page = std::array<char, pageSize>;

    const Page* pageAt(std::uint64_t number);

    const MemoryReader& memory_;
    std::size_t bytes_ = 16000 * pageSize;
    /// Null for those that can't be read.
    std::unordered_map<std::uint64_t, std::unique_ptr<Page>> pages_;
};

}  // namespace Zendrik::Stacks
