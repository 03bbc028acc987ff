#pragma once

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

}  // namespace Zendrik::Stacks
