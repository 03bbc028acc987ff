#include "stacks/memory/MappedFiles.h"

#include "stacks/memory/MappedImage.h"

namespace Zendrik::Stacks {

namespace {

/// Neighbours of one path belong together, up to the next that is the beginning of a file again.
std::vector<MappedFile> groupByFile(const std::vector<Mapping>& mappings) {
    std::vector<MappedFile> files;
    bool isExecutable = false;
    const auto dropData = [&] {
        if (!files.empty() && !isExecutable) {
            files.pop_back();
        }
    };
    for (const Mapping& mapping : mappings) {
        if (mapping.path.empty() || (mapping.path[0] != '/' && mapping.path != "[vdso]")) {
            continue;
        }
        if (mapping.offset == 0) {
            dropData();
            files.push_back({mapping.start, mapping.end, mapping.path, {}});
            isExecutable = mapping.isExecutable;
        } else if (!files.empty() && files.back().path == mapping.path) {
            files.back().end = mapping.end;
            isExecutable = isExecutable || mapping.isExecutable;
        }
    }
    dropData();
    return files;
}

}  // namespace

std::vector<MappedFile> findMappedFiles(const std::vector<Mapping>& mappings,
                                        const MemoryReader& memory) {
    std::vector<MappedFile> files = groupByFile(mappings);
    for (MappedFile& file : files) {
        if (const auto image = readMappedImage(file.start, memory)) {
            file.buildId = readBuildId(*image, memory);
        }
    }
    return files;
}

}  // namespace Zendrik::Stacks
