#pragma once

#include <elf.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "stacks/memory/ProcessMemory.h"

namespace Zendrik::Stacks {

/// The segments of an ELF file as a process has it mapped. The file itself isn't looked at: it may
/// have been replaced or damaged since. Every number here may be rubbish.
struct MappedImage {
    /// What to add to an address that the file states.
    std::uint64_t bias = 0;
    /// 64 at most.
    std::vector<Elf64_Phdr> segments;
};

/// @param start where the file's first byte stands
/// @return none unless that is an x86-64 ELF file
std::optional<MappedImage> readMappedImage(std::uint64_t start, const MemoryReader& memory);

/// The build identifier in lower-case hexadecimal digits; empty without one that can be read.
std::string readBuildId(const MappedImage& image, const MemoryReader& memory);

}  // namespace Zendrik::Stacks
