#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <unordered_map>

#include "stacks/memory/ProcessMemory.h"

namespace Zendrik::Stacks {

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
