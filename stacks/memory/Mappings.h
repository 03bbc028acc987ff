#pragma once

#include <elf.h>
#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "stacks/memory/ProcessMemory.h"
#include "stacks/record/StackCapture.h"

namespace Zendrik::Stacks {

/// A line of /proc/PID/maps.
struct Mapping {
    std::uint64_t start = 0;
    std::uint64_t end = 0;
    std::uint64_t offset = 0;
    bool isReadable = false;
    bool isExecutable = false;
    /// As the kernel writes it: " (deleted)" may stand behind it, "[stack]" is no file. Empty for
    /// memory without a name.
    std::string path;
};

/// By address. Lines in another form are left out.
/// @param tid any thread of the process that has not ended
/// @return none if the file can't be read
std::vector<Mapping> readMappings(pid_t tid);

/// The programs and libraries among the mappings of a process, by address, with their build
/// identifiers: the files of which a part is executable, and whose beginning is mapped.
/// @param memory of that process
std::vector<MappedFile> findMappedFiles(const std::vector<Mapping>& mappings,
                                        const MemoryReader& memory);

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

}  // namespace Zendrik::Stacks
