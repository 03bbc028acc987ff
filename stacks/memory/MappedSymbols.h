#pragma once

// Symbols of a library as another process has it mapped. The file itself isn't looked at: it may
// have been replaced or damaged since.
//
//     const std::optional<MappedSymbols> symbols = MappedSymbols::of(file.start, memory);
//     if (symbols) {
//         const std::optional<MappedSymbol> found = symbols->find("_PyRuntime");

#include <elf.h>

#include <cstdint>
#include <optional>
#include <string_view>

#include "stacks/memory/ProcessMemory.h"

namespace Zendrik::Stacks {

/// An exported symbol: where it stands in the process, and the size that its library states.
struct MappedSymbol {
    std::uint64_t address = 0;
    std::uint64_t size = 0;
};

/// The dynamic symbol table of one library. Every number in it may be rubbish: a look-up makes a
/// bounded number of reads and fails at worst.
class MappedSymbols {
  public:
    /// @param start where the file's first byte stands
    /// @param memory is kept by reference
    /// @return none if no library with a GNU hash table can be read there
    static std::optional<MappedSymbols> of(std::uint64_t start, const MemoryReader& memory);

    /// @return none for a symbol that the library uses without having it, too
    std::optional<MappedSymbol> find(std::string_view name) const;

  private:
    MappedSymbols(const MemoryReader& memory, std::uint64_t bias) : memory_(memory), bias_(bias) {}
    bool readDynamicSection(std::uint64_t address, std::uint64_t size);
    bool readHashHeader();
    bool hasName(const Elf64_Sym& symbol, std::string_view name) const;

    const MemoryReader& memory_;
    std::uint64_t bias_ = 0;
    std::uint64_t symbols_ = 0;
    std::uint64_t strings_ = 0;
    std::uint64_t hash_ = 0;
    std::uint64_t buckets_ = 0;
    std::uint64_t chains_ = 0;
    std::uint32_t bucketCount_ = 0;
    std::uint32_t firstHashed_ = 0;
};

}  // namespace Zendrik::Stacks
