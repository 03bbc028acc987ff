#pragma once

#include <vector>

#include "stacks/memory/Mappings.h"
#include "stacks/memory/ProcessMemory.h"
#include "stacks/record/StackCapture.h"

namespace Zendrik::Stacks {

/// The programs and libraries among the mappings of a process, by address, with their build
/// identifiers: the files of which a part is executable, and whose beginning is mapped.
/// @param memory of that process
std::vector<MappedFile> findMappedFiles(const std::vector<Mapping>& mappings,
                                        const MemoryReader& memory);

}  // namespace Zendrik::Stacks
