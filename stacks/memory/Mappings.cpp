#include "stacks/memory/Mappings.h"

#include <cinttypes>
#include <cstdio>
#include <sstream>

#include "process/ProcFiles.h"

namespace Zendrik::Stacks {

namespace {

using Plexum3::Base::readProcFile;

}  // namespace

std::vector<Mapping> parseMappings(const std::string& maps) {
    std::vector<Mapping> mappings;
    std::istringstream lines(maps);
    for (std::string line; std::getline(lines, line);) {
        Mapping mapping;
        char modes[5] = "";
        int nameAt = 0;
        const int fields =
            std::sscanf(line.c_str(), "%" SCNx64 "-%" SCNx64 " %4s %" SCNx64 " %*s %*s %n",
                        &mapping.start, &mapping.end, modes, &mapping.offset, &nameAt);
        if (fields != 4 || mapping.end <= mapping.start) {
            continue;
        }
        mapping.isReadable = modes[0] == 'r';
        mapping.isExecutable = modes[2] == 'x';
        if (nameAt > 0) {
            mapping.path = line.substr(static_cast<std::size_t>(nameAt));
        }
        mappings.push_back(std::move(mapping));
    }
    return mappings;
}

std::vector<Mapping> readMappings(pid_t tid) {
    return parseMappings(readProcFile(tid, "maps"));
}

}  // namespace Zendrik::Stacks
