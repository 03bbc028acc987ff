#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

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
std::vector<Mapping> parseMappings(const std::string& maps);

/// @param tid any thread of the process that has not ended
/// @return none if the file can't be read
std::vector<Mapping> readMappings(pid_t tid);

}  // namespace Zendrik::Stacks
