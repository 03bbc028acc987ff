#include "stacks/memory/Mappings.h"

#include <boost/algorithm/hex.hpp>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <sstream>

#include "process/ProcFiles.h"

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

constexpr std::size_t maxSegments = 64;
constexpr std::size_t maxNotes = 4096;  // bytes

bool isElf64(const Elf64_Ehdr& header) {
    return std::memcmp(header.e_ident, ELFMAG, SELFMAG) == 0 &&
           header.e_ident[EI_CLASS] == ELFCLASS64 && header.e_machine == EM_X86_64 &&
           header.e_phentsize == sizeof(Elf64_Phdr) && header.e_phnum <= maxSegments;
}

std::size_t alignNote(std::size_t size) {
    return (size + 3) & ~std::size_t{3};
}

/// @param notes the whole content of a PT_NOTE segment
std::string findBuildId(const std::string& notes) {
    std::size_t at = 0;
    while (at + sizeof(Elf64_Nhdr) <= notes.size()) {
        const auto note = fieldAt<Elf64_Nhdr>(notes.data(), at);
        const std::size_t name = at + sizeof note;
        const std::size_t content = name + alignNote(note.n_namesz);
        const std::size_t end = content + alignNote(note.n_descsz);
        if (end > notes.size()) {
            return {};
        }
        if (note.n_type == NT_GNU_BUILD_ID && notes.compare(name, sizeof "GNU", "GNU", 4) == 0) {
            return boost::algorithm::hex_lower(notes.substr(content, note.n_descsz));
        }
        at = end;
    }
    return {};
}

/// The build identifier in lower-case hexadecimal digits; empty without one that can be read.
std::string readBuildId(const MappedImage& image, const MemoryReader& memory) {
    for (const Elf64_Phdr& segment : image.segments) {
        if (segment.p_type != PT_NOTE) {
            continue;
        }
        std::string notes(std::min<std::uint64_t>(segment.p_memsz, maxNotes), '\0');
        if (!memory(image.bias + segment.p_vaddr, notes.data(), notes.size())) {
            continue;
        }
        if (std::string found = findBuildId(notes); !found.empty()) {
            return found;
        }
    }
    return {};
}

}  // namespace

std::vector<Mapping> readMappings(pid_t tid) {
    std::vector<Mapping> mappings;
    std::istringstream lines(Plexum3::Base::readProcFile(tid, "maps"));
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

std::optional<MappedImage> readMappedImage(std::uint64_t start, const MemoryReader& memory) {
    const auto header = readValue<Elf64_Ehdr>(memory, start);
    if (!header || !isElf64(*header)) {
        return std::nullopt;
    }
    MappedImage image;
    image.segments.resize(header->e_phnum);
    if (!memory(start + header->e_phoff, image.segments.data(),
                image.segments.size() * sizeof(Elf64_Phdr))) {
        return std::nullopt;
    }
    const auto first =
        std::find_if(image.segments.begin(), image.segments.end(), [](const Elf64_Phdr& segment) {
            return segment.p_type == PT_LOAD && segment.p_offset == 0;
        });
    image.bias = first == image.segments.end() ? start : start - first->p_vaddr;
    return image;
}

}  // namespace Zendrik::Stacks
